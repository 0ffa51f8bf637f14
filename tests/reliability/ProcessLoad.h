#pragma once
// Load on the traced host: a thread that spawns short-lived /bin/true children
// at a steady rate and remembers their pids, and a thread that keeps
// `perf bench sched pipe` running (two tasks ping-ponging over a pipe, a
// context-switch storm).

#include <sys/types.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

class ProcessLoad {
public:
    struct Storm {
        long loops = 0;     // ping-pongs per perf run; 0: no storm
        int pause_ms = 0;   // idle time between runs
        // SCHED_IDLE: the storm takes only the CPU time the agent leaves, so it
        // floods the buffers about as fast as they are read. Otherwise it
        // competes with the agent and outruns it.
        bool idle = false;
    };

    ProcessLoad() = default;
    ~ProcessLoad() { Stop(); }
    ProcessLoad(const ProcessLoad&) = delete;
    ProcessLoad& operator=(const ProcessLoad&) = delete;

    void Start(double spawns_per_second, Storm storm);
    // Ends both threads; a perf run in progress is killed.
    void Stop();

    // Pids of the children spawned so far (each one has exited).
    std::vector<pid_t> Spawned() const;
    unsigned long StormRuns() const { return m_storm_runs; }
    // Failures to spawn a child or to run perf.
    std::vector<std::string> Errors() const;

    // Spawns /bin/true, waits for it and returns its pid (-1 on failure).
    static pid_t RunTrue();
    static bool HavePerf();

private:
    void SpawnLoop(double spawns_per_second);
    void StormLoop(Storm storm);
    void Error(const std::string& text);

    std::atomic<bool> m_stop{false};
    std::atomic<pid_t> m_perf_group{0};
    std::atomic<unsigned long> m_storm_runs{0};
    std::thread m_spawner;
    std::thread m_storm;
    mutable std::mutex m_mutex;
    std::vector<pid_t> m_spawned;
    std::vector<std::string> m_errors;
};
