#include "StopTimer.h"

#include <chrono>

namespace Agent {

StopTimer::~StopTimer() { Cancel(); }

void StopTimer::Start(double seconds, std::function<void()> on_expiry) {
    Cancel();
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_cancelled = false;
    }
    m_thread = std::thread([this, seconds, on_expiry = std::move(on_expiry)] {
        using Clock = std::chrono::steady_clock;
        const Clock::time_point now = Clock::now();
        // A delay the clock cannot hold (some 290 years in nanoseconds, less
        // the time since boot) would wrap round into the past: it never ends.
        // One second spare for the rounding of doubles that large.
        const std::chrono::duration<double> longest = Clock::time_point::max() - now;
        std::unique_lock<std::mutex> lock(m_mutex);
        if (!(seconds < longest.count() - 1)) {
            m_wake.wait(lock, [this] { return m_cancelled; });
            return;
        }
        const auto deadline =
            now + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
        if (m_wake.wait_until(lock, deadline, [this] { return m_cancelled; })) return;
        lock.unlock();
        on_expiry();
    });
}

void StopTimer::Cancel() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_cancelled = true;
    }
    m_wake.notify_all();
    if (m_thread.joinable()) m_thread.join();
}

}  // namespace Agent
