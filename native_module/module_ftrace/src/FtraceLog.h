#pragma once
// Logging for the module: the "ftrace" logger, the priority test before any
// formatting, and the caller's file and line on every line.

#include <Poco/Format.h>
#include <Poco/Logger.h>

#include "SDK/LoggerUtils.h"

namespace FtraceLog {

inline Poco::Logger* ModuleLogger() noexcept {
    try {
        return SDK::LoggerUtils::GetInstance()->GetModuleLogger("ftrace", false);
    } catch (const std::exception&) {
        return nullptr;
    }
}

// Formats with Poco::format only when `logger` admits `priority`.
template <typename... Args>
void Write(Poco::Logger* logger, int priority, const char* file, int line, const std::string& fmt,
           const Args&... args) noexcept {
    try {
        if (!SDK::LoggerUtils::Admits(logger, priority)) return;
        SDK::LoggerUtils::Log(logger, priority, Poco::format(fmt, args...), file, line);
    } catch (const std::exception&) {
    }
}

inline void Write(Poco::Logger* logger, int priority, const char* file, int line, const std::string& text) noexcept {
    try {
        if (!SDK::LoggerUtils::Admits(logger, priority)) return;
        SDK::LoggerUtils::Log(logger, priority, text, file, line);
    } catch (const std::exception&) {
    }
}

}  // namespace FtraceLog

// Poco priorities: 1 fatal, 2 critical, 3 error, 4 warning, 5 notice, 6 information, 7 debug, 8 trace.
#define FTRACE_LOG_TO(logger, priority, ...) FtraceLog::Write((logger), (priority), __FILE__, __LINE__, __VA_ARGS__)
#define FTRACE_LOG(priority, ...) FTRACE_LOG_TO(FtraceLog::ModuleLogger(), (priority), __VA_ARGS__)
