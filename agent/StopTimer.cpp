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
        const auto deadline = std::chrono::steady_clock::now() +
                              std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                  std::chrono::duration<double>(seconds));
        std::unique_lock<std::mutex> lock(m_mutex);
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
