#pragma once
// A context-switch storm on the traced host: `perf bench sched pipe` (two
// tasks ping-ponging over a pipe) run again and again, in a process group of
// its own, until stopped.

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

class SchedulerStorm {
public:
    // `loops` ping-pongs per perf run, `pause_ms` between runs. Idle (under
    // SCHED_IDLE) the storm takes only the CPU time the agent leaves, so it
    // floods the buffers about as fast as they are read; otherwise it
    // competes with the agent and outruns it.
    SchedulerStorm(long loops, int pause_ms, bool idle) {
        const std::string script = "while /usr/bin/perf bench sched pipe -l " + std::to_string(loops) +
                                   " >/dev/null 2>&1; do sleep " + std::to_string(pause_ms / 1000.0) + "; done";
        std::vector<const char*> argv = {"/usr/bin/chrt", "--idle", "0", "/bin/sh", "-c", script.c_str(), nullptr};
        posix_spawnattr_t attributes;
        posix_spawnattr_init(&attributes);
        // A group of its own: Stop kills the shell, perf and the partner perf forks in one go.
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
        posix_spawnattr_setpgroup(&attributes, 0);
        const char* const* args = idle ? argv.data() : argv.data() + 3;
        if (posix_spawn(&m_group, args[0], nullptr, &attributes, const_cast<char**>(args), environ) != 0) m_group = -1;
        posix_spawnattr_destroy(&attributes);
    }
    ~SchedulerStorm() { Stop(); }
    SchedulerStorm(const SchedulerStorm&) = delete;
    SchedulerStorm& operator=(const SchedulerStorm&) = delete;

    // Kills the storm; false when it had ended before (perf failed).
    bool Stop() {
        if (m_group <= 0) return false;
        const bool running = waitpid(m_group, nullptr, WNOHANG) == 0;
        kill(-m_group, SIGKILL);
        if (running) waitpid(m_group, nullptr, 0);
        m_group = -1;
        return running;
    }
    static bool HavePerf() { return access("/usr/bin/perf", X_OK) == 0; }

private:
    pid_t m_group = -1;
};
