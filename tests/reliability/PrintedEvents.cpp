#include "PrintedEvents.h"

#include <cstdlib>
#include <string_view>

void PrintedEvents::Line(const char* line, size_t length) {
    ++m_lines;
    const std::string_view text(line, length);
    constexpr std::string_view kPrefix = "{\"name\":\"sched:sched_";
    if (text.substr(0, kPrefix.size()) != kPrefix) return;
    const std::string_view rest = text.substr(kPrefix.size());
    if (rest.rfind("switch\"", 0) == 0) {
        ++m_switches;
        return;
    }
    const bool exec = rest.rfind("process_exec\"", 0) == 0;
    // Numbers come in key order, so the event's own "pid" follows a comma
    // ("old_pid" and "common_pid" do not match).
    constexpr std::string_view kPid = ",\"pid\":";
    const size_t at = rest.find(kPid);
    if ((!exec && rest.rfind("process_exit\"", 0) != 0) || at == std::string_view::npos) return;
    const auto pid = static_cast<pid_t>(std::strtol(rest.data() + at + kPid.size(), nullptr, 10));
    std::lock_guard<std::mutex> lock(m_mutex);
    m_processes.emplace(exec, pid);
}

bool PrintedEvents::Printed(pid_t pid, bool exec) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_processes.count({exec, pid}) != 0;
}
