#include "SDK/InnerCpuCtrlUtils.h"

#include <time.h>
#include <unistd.h>

#include <atomic>

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

constexpr uint64_t kWindowMicros = 1000000;  // budgets are kept over one-second windows

}  // namespace

void InnerCpuCtrlUtils::Enable(int percent) { g_percent = (percent >= 1 && percent <= 100) ? percent : 0; }
void InnerCpuCtrlUtils::Disable() { g_percent = 0; }
bool InnerCpuCtrlUtils::IsEnabled() { return g_percent.load(std::memory_order_relaxed) > 0; }
int InnerCpuCtrlUtils::GetPercent() { return g_percent.load(std::memory_order_relaxed); }
uint64_t InnerCpuCtrlUtils::GetSuggestedRunTick() { return g_run_tick.load(std::memory_order_relaxed); }
void InnerCpuCtrlUtils::SetSuggestedRunTick(uint64_t ticks) { g_run_tick = ticks; }
uint64_t InnerCpuCtrlUtils::GetTotalThrottledMicros() { return g_throttled.load(); }

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
    const uint64_t sleep_us = allowed_wall - passed;
    usleep(static_cast<useconds_t>(sleep_us));
    g_throttled += sleep_us;
    return sleep_us;
}

}  // namespace SDK
