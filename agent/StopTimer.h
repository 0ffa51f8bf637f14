#pragma once
// Calls a function once after a delay, on a thread of its own, unless it is
// cancelled first (--duration).

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace Agent {

class StopTimer {
public:
    StopTimer() = default;
    ~StopTimer();
    StopTimer(const StopTimer&) = delete;
    StopTimer& operator=(const StopTimer&) = delete;

    // A delay longer than the steady clock can represent never expires.
    void Start(double seconds, std::function<void()> on_expiry);
    // Returns once the thread has ended; the function is not called after this.
    void Cancel();

private:
    std::mutex m_mutex;
    std::condition_variable m_wake;
    bool m_cancelled = false;
    std::thread m_thread;
};

}  // namespace Agent
