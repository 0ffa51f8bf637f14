#pragma once
// Messages received per event, shared between the subscriber task (which
// counts) and the agent's main thread (which prints the summary).

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

namespace Agent {

// Events the kernel could not record in the instance's ring buffers, and
// those still unread in them, summed over the CPUs' per_cpu/cpuN/stats files.
struct KernelLoss {
    bool known = false;  // false when the stats files could not be read
    uint64_t overrun = 0;
    uint64_t dropped_events = 0;
    uint64_t unread = 0;  // "entries": recorded, not read yet
};

class ReceiveStatistics {
public:
    // Events listed in the summary even when nothing arrived for them.
    void Expect(const std::vector<std::string>& event_names);
    void Start();
    void Stop();
    // Counts one message; returns the total so far.
    uint64_t Count(const std::string& event_name);
    void SetQueueDrops(uint64_t drops);
    void SetKernelLoss(const KernelLoss& loss);

    uint64_t Total() const;
    uint64_t CountOf(const std::string& event_name) const;
    double ElapsedSeconds() const;

    // The multi-line summary printed on exit.
    void Print(std::ostream& os) const;

private:
    mutable std::mutex m_mutex;
    std::map<std::string, uint64_t> m_counts;
    uint64_t m_total = 0;
    uint64_t m_queue_drops = 0;
    KernelLoss m_loss;
    std::chrono::steady_clock::time_point m_start{};
    std::chrono::steady_clock::time_point m_stop{};
    bool m_started = false;
    bool m_stopped = false;
};

}  // namespace Agent
