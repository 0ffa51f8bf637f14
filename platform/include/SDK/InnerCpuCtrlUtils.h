#pragma once
// The agent's CPU budget: a thread that calls AdjustThreadCpu regularly is put
// to sleep just long enough that its own CPU time (CLOCK_THREAD_CPUTIME_ID)
// stays under the configured share of wall-clock time. Ticks are the
// microseconds of SDK::TimeUtils.

#include <cstdint>
#include <thread>

namespace SDK {

class InnerCpuCtrlUtils {
public:
    // Turns the budget on with `percent` of one CPU (1..100); other values turn it off.
    static void Enable(int percent);
    static void Disable();
    static bool IsEnabled();
    static int GetPercent();

    // How many ticks a thread may run between two adjustments.
    static uint64_t GetSuggestedRunTick();
    static void SetSuggestedRunTick(uint64_t ticks);

    // Throttles the calling thread; `file`, `line` and `task` name the caller
    // (kept for diagnostics), `now` is the current tick and `elapsed` the ticks
    // since the caller's previous adjustment. May sleep. Returns the microseconds slept.
    static uint64_t AdjustThreadCpu(const char* file, int line, const char* task, unsigned long now,
                                    unsigned long elapsed);

    // Ends the throttle sleep that `thread` is in, if any, and lets it run
    // unthrottled until RestoreThread(thread). The engine releases a task's
    // thread when it cancels the task, so that the task's last pass is not
    // stretched by the budget and a stop takes as long as that pass needs.
    static void ReleaseThread(std::thread::id thread);
    // Throttles `thread` again (the engine calls it once the thread was
    // joined, before its id can be given to a new thread).
    static void RestoreThread(std::thread::id thread);

    // Total microseconds slept by AdjustThreadCpu in this process.
    static uint64_t GetTotalThrottledMicros();
};

}  // namespace SDK
