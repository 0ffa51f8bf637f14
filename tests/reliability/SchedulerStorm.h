#pragma once
// A context-switch storm on the traced host: `perf bench sched pipe` (two
// tasks ping-ponging over a pipe) run again and again, in a process group of
// its own, until stopped.

#include <sys/types.h>
#include <unistd.h>

class SchedulerStorm {
public:
    // `loops` ping-pongs per perf run, `pause_ms` between runs. Idle (under
    // SCHED_IDLE) the storm takes only the CPU time the agent leaves, so it
    // floods the buffers about as fast as they are read; otherwise it
    // competes with the agent and outruns it.
    SchedulerStorm(long loops, int pause_ms, bool idle);
    ~SchedulerStorm() { Stop(); }
    SchedulerStorm(const SchedulerStorm&) = delete;
    SchedulerStorm& operator=(const SchedulerStorm&) = delete;

    // Kills the storm; false when it had ended before (perf failed).
    bool Stop();
    static bool HavePerf() { return access("/usr/bin/perf", X_OK) == 0; }

private:
    pid_t m_group = -1;
};
