#pragma once
// The instance's pid filter for --pid: each process with every thread it has
// at start, and, through the instance's options/event-fork, every thread and
// child process that any of them starts while the run lasts (the kernel adds
// those to set_event_pid when they are created and drops them when they exit).

#include <string>
#include <vector>

class Ftrace;

namespace Agent {

class PidFilter {
public:
    // Empties the filter; then, for a non-empty `pids`, switches event-fork
    // on and lists every thread id under /proc/PID/task/ of each pid.
    void Apply(Ftrace& instance, const std::vector<int>& pids);
    // Empties the filter and puts event-fork back as Apply found it.
    // Idempotent.
    void Clear(Ftrace& instance);

private:
    std::string m_event_fork_before;  // "" when Apply did not change event-fork
};

}  // namespace Agent
