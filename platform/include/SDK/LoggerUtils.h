#pragma once
// Process-wide registry of the agent's Poco loggers.

#include <atomic>
#include <string>

namespace Poco {
class Logger;
}

namespace SDK {

class LoggerUtils {
public:
    // Never null; lives until the process exits.
    static LoggerUtils* GetInstance();

    // The logger "name". With create == false an unknown name yields null, so a
    // module's lines stay silent until the agent configured its logger; with
    // create == true the logger is made (child of the root logger: same channel
    // and level) when missing.
    Poco::Logger* GetModuleLogger(const std::string& name, bool create);

    // The agent's root logger; null only when logging was switched off entirely
    // with SetRootLoggerEnabled(false).
    Poco::Logger* GetRootLogger();
    void SetRootLoggerEnabled(bool enabled);

    // The agent's logging recipe in one call: writes nothing when `logger` is
    // null or its level is below `priority` (Poco numbering, 1 fatal .. 8 trace);
    // otherwise sends a Poco::Message (source = the logger's name, `text`,
    // `priority`, base name of `file`, `line`) to the logger's channel.
    // Poco::Message keeps the file name as a bare pointer (also in copies that
    // asynchronous channels queue), so `file` must outlive the process's
    // logging: pass __FILE__. A std::exception thrown while logging is swallowed.
    static void Log(Poco::Logger* logger, int priority, const std::string& text, const char* file,
                    int line) noexcept;

    // True when `logger` is set and admits `priority`; callers test this before
    // paying for formatting.
    static bool Admits(const Poco::Logger* logger, int priority) noexcept;

private:
    LoggerUtils() = default;
    std::atomic<bool> m_root_enabled{true};
};

}  // namespace SDK
