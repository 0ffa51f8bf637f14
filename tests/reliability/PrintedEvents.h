#pragma once
// What ftrace-agent printed with --format=json, counted line by line as the
// output arrives: the pids of the sched_process_exec and sched_process_exit
// messages, and how many lines and sched_switch messages there were.

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <set>
#include <string_view>
#include <utility>

class PrintedEvents {
public:
    // One output line, without its line feed. Any thread, one at a time.
    void Line(const char* line, size_t length) {
        ++m_lines;
        const std::string_view text(line, length);
        if (text.rfind("{\"name\":\"sched:sched_switch\"", 0) == 0) ++m_switches;
        const bool exec = text.rfind("{\"name\":\"sched:sched_process_exec\"", 0) == 0;
        // Numbers come in key order, so the event's own "pid" follows a comma
        // ("old_pid" and "common_pid" do not match).
        const size_t at = text.find(",\"pid\":");  // 7 characters
        if ((!exec && text.rfind("{\"name\":\"sched:sched_process_exit\"", 0) != 0) || at == text.npos) return;
        std::lock_guard<std::mutex> lock(m_mutex);
        m_processes.emplace(exec, static_cast<pid_t>(std::strtol(text.data() + at + 7, nullptr, 10)));
    }
    bool Printed(pid_t pid, bool exec) const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_processes.count({exec, pid}) != 0;
    }
    uint64_t Lines() const { return m_lines; }
    uint64_t Switches() const { return m_switches; }

private:
    mutable std::mutex m_mutex;
    std::set<std::pair<bool, pid_t>> m_processes;  // (exec, pid)
    std::atomic<uint64_t> m_lines{0};
    std::atomic<uint64_t> m_switches{0};
};
