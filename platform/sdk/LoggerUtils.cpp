#include "SDK/LoggerUtils.h"

#include <Poco/Logger.h>
#include <Poco/Message.h>

#include <exception>

#include "SDK/PathUtils.h"

namespace SDK {

LoggerUtils* LoggerUtils::GetInstance() {
    // Leaked on purpose: modules may log from static destructors after main returns.
    static LoggerUtils* instance = new LoggerUtils();
    return instance;
}

Poco::Logger* LoggerUtils::GetModuleLogger(const std::string& name, bool create) {
    if (create) return &Poco::Logger::get(name);
    return Poco::Logger::has(name);
}

Poco::Logger* LoggerUtils::GetRootLogger() { return m_root_enabled ? &Poco::Logger::root() : nullptr; }

void LoggerUtils::SetRootLoggerEnabled(bool enabled) { m_root_enabled = enabled; }

bool LoggerUtils::Admits(const Poco::Logger* logger, int priority) noexcept {
    return logger != nullptr && logger->getLevel() >= priority;
}

void LoggerUtils::Log(Poco::Logger* logger, int priority, const std::string& text, const char* file,
                      int line) noexcept {
    if (!Admits(logger, priority)) return;
    try {
        // Point into `file` itself: the message (and any queued copy of it)
        // keeps only the pointer, so it must not refer to a temporary string.
        const char* base = file != nullptr ? file : "";
        const std::string name = PathUtils::GetFileNameFromPath(base);
        base += std::char_traits<char>::length(base) - name.size();
        Poco::Message message(logger->name(), text, static_cast<Poco::Message::Priority>(priority), base,
                              line);
        logger->log(message);
    } catch (const std::exception&) {
        // A failing channel must never take the caller down.
    }
}

}  // namespace SDK
