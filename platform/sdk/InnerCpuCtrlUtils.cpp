#include "SDK/InnerCpuCtrlUtils.h"

#include <time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <vector>

#include "SDK/TimeUtils.h"

namespace SDK {
namespace {

std::atomic<int> g_percent{0};
std::atomic<uint64_t> g_run_tick{10000};  // re-check the budget every 10 ms of wall time
std::atomic<uint64_t> g_throttled{0};

uint64_t ThreadCpuMicros() {
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000u + static_cast<uint64_t>(ts.tv_nsec) / 1000u;
}

// Per thread: CPU time and wall time at the start of the current accounting window.
struct Window {
    uint64_t wall_start = 0;
    uint64_t cpu_start = 0;
};
thread_local Window t_window;

// Threads whose sleeps end at once; they sleep on the condition variable.
std::mutex g_release_mutex;
std::condition_variable g_release_changed;
std::vector<std::thread::id> g_released;

constexpr uint64_t kWindowMicros = 1000000;  // budgets are kept over one-second windows

}  // namespace

void InnerCpuCtrlUtils::Enable(int percent) { g_percent = (percent >= 1 && percent <= 100) ? percent : 0; }
void InnerCpuCtrlUtils::Disable() { g_percent = 0; }
bool InnerCpuCtrlUtils::IsEnabled() { return g_percent.load(std::memory_order_relaxed) > 0; }
int InnerCpuCtrlUtils::GetPercent() { return g_percent.load(std::memory_order_relaxed); }
uint64_t InnerCpuCtrlUtils::GetSuggestedRunTick() { return g_run_tick.load(std::memory_order_relaxed); }
void InnerCpuCtrlUtils::SetSuggestedRunTick(uint64_t ticks) { g_run_tick = ticks; }
uint64_t InnerCpuCtrlUtils::GetTotalThrottledMicros() { return g_throttled.load(); }

void InnerCpuCtrlUtils::ReleaseThread(std::thread::id thread) {
    {
        std::lock_guard<std::mutex> lock(g_release_mutex);
        if (std::find(g_released.begin(), g_released.end(), thread) == g_released.end()) g_released.push_back(thread);
    }
    g_release_changed.notify_all();
}

void InnerCpuCtrlUtils::RestoreThread(std::thread::id thread) {
    std::lock_guard<std::mutex> lock(g_release_mutex);
    g_released.erase(std::remove(g_released.begin(), g_released.end(), thread), g_released.end());
}

uint64_t InnerCpuCtrlUtils::AdjustThreadCpu(const char*, int, const char*, unsigned long, unsigned long) {
    const int percent = GetPercent();
    if (percent <= 0 || percent >= 100) return 0;
    const uint64_t wall = TimeUtils::GetCurrentSystemTickUsed();
    const uint64_t cpu = ThreadCpuMicros();
    Window& w = t_window;
    if (w.wall_start == 0 || wall - w.wall_start > kWindowMicros) {
        w.wall_start = wall;
        w.cpu_start = cpu;
        return 0;
    }
    // Sleep until the CPU used in this window is at most `percent` of the wall time passed.
    const uint64_t used = cpu - w.cpu_start;
    const uint64_t allowed_wall = used * 100 / static_cast<uint64_t>(percent);
    const uint64_t passed = wall - w.wall_start;
    if (allowed_wall <= passed) return 0;
    const auto self = std::this_thread::get_id();
    const auto start = std::chrono::steady_clock::now();
    {
        std::unique_lock<std::mutex> lock(g_release_mutex);
        g_release_changed.wait_for(lock, std::chrono::microseconds(allowed_wall - passed), [&] {
            return std::find(g_released.begin(), g_released.end(), self) != g_released.end();
        });
    }
    const auto slept = static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start).count());
    g_throttled += slept;
    return slept;
}

}  // namespace SDK
