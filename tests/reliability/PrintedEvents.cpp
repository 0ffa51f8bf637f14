#include "PrintedEvents.h"

#include <cstdlib>
#include <cstring>

void PrintedEvents::Line(const char* line, size_t length) {
    ++m_lines;
    static const char kPrefix[] = "{\"name\":\"sched:sched_";
    const size_t prefix = sizeof kPrefix - 1;
    if (length < prefix || std::memcmp(line, kPrefix, prefix) != 0) return;
    const std::string_view rest(line + prefix, length - prefix);
    if (rest.rfind("switch\"", 0) == 0) {
        ++m_switches;
    } else if (rest.rfind("process_exec\"", 0) == 0) {
        Add(m_exec, rest);
    } else if (rest.rfind("process_exit\"", 0) == 0) {
        Add(m_exit, rest);
    }
}

bool PrintedEvents::Printed(pid_t pid, bool exec) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return (exec ? m_exec : m_exit).count(pid) != 0;
}

void PrintedEvents::Add(std::unordered_set<pid_t>& pids, std::string_view rest) {
    // Numbers come in key order, so the event's own "pid" follows a comma
    // ("old_pid" and "common_pid" do not match).
    static const char kPid[] = ",\"pid\":";
    const size_t at = rest.find(kPid);
    if (at == std::string_view::npos) return;
    const pid_t pid = static_cast<pid_t>(std::strtol(rest.data() + at + sizeof kPid - 1, nullptr, 10));
    std::lock_guard<std::mutex> lock(m_mutex);
    pids.insert(pid);
}
