#pragma once
// A context-switch storm on the traced host: `perf bench sched pipe` (two
// tasks ping-ponging over a pipe) run again and again, in a process group of
// its own, until stopped.

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

class SchedulerStorm {
public:
    // `loops` ping-pongs per perf run, `pause_ms` between runs. Idle (under
    // SCHED_IDLE) the storm takes only the CPU time the agent leaves, so it
    // floods the buffers about as fast as they are read; otherwise it
    // competes with the agent and outruns it.
    SchedulerStorm(long loops, int pause_ms, bool idle) {
        const std::string script = "while /usr/bin/perf bench sched pipe -l " + std::to_string(loops) +
                                   " >/dev/null 2>&1; do sleep " + std::to_string(pause_ms / 1000.0) + "; done";
        m_group = fork();
        // A group of its own (set on both sides of the fork, so that Stop never
        // misses it): Stop kills the shell, perf and the partner perf forks in one go.
        if (m_group > 0) setpgid(m_group, m_group);
        if (m_group != 0) return;
        setpgid(0, 0);
        execl("/usr/bin/chrt", "chrt", idle ? "--idle" : "--other", "0", "/bin/sh", "-c", script.c_str(), nullptr);
        _exit(127);
    }
    ~SchedulerStorm() { Stop(); }

    // Kills the storm; false when it had ended before (perf failed).
    bool Stop() {
        if (m_group <= 0) return false;
        const bool running = waitpid(m_group, nullptr, WNOHANG) == 0;
        kill(-m_group, SIGKILL);
        if (running) waitpid(m_group, nullptr, 0);
        m_group = -1;
        return running;
    }

private:
    pid_t m_group = -1;
};
