#pragma once
// What ftrace-agent printed with --format=json, counted line by line as the
// output arrives: the pids of the sched_process_exec and sched_process_exit
// messages, and how many lines and sched_switch messages there were.

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <set>
#include <utility>

class PrintedEvents {
public:
    // One output line, without its line feed. Any thread, one at a time.
    void Line(const char* line, size_t length);

    bool Printed(pid_t pid, bool exec) const;
    uint64_t Lines() const { return m_lines; }
    uint64_t Switches() const { return m_switches; }

private:
    mutable std::mutex m_mutex;
    std::set<std::pair<bool, pid_t>> m_processes;  // (exec, pid)
    std::atomic<uint64_t> m_lines{0};
    std::atomic<uint64_t> m_switches{0};
};
