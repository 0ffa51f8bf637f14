#pragma once
// How long the ftrace task holds off its next wait after a pass that read
// records. Each pass costs about the same beyond its records (the reading
// thread's sleep and wake-up, its subscribers' wake-ups, the reads that end on
// the page the kernel is still writing, caches gone cold while it slept),
// about as much as 60 to 80 records on a small VM. A fast storm fills a
// shortest window with thousands of records, and a lone event or a trickle
// should be read at once; in between, a slow storm would pay that cost for
// every few hundred records. While records come
// at more than kStormRate a second, the window therefore stretches so that a
// pass reads about kRecordsPerPass of them, up to the longest window.

#include <chrono>
#include <cstdint>

namespace Engine {

class FtraceHoldOff {
public:
    using Clock = std::chrono::steady_clock;
    static constexpr double kRecordsPerPass = 1000;
    static constexpr double kStormRate = 10000;  // records a second
    // How soon the rate estimate forgets a faster past. A rising rate is taken
    // at once, so that a storm's return meets a short window; a falling one
    // slowly, so that a lull of a few passes inside a storm stretches nothing.
    static constexpr std::chrono::milliseconds kRateMemory{100};

    // No stretching when longest <= shortest; no hold-off at all when shortest is 0.
    FtraceHoldOff(std::chrono::milliseconds shortest, std::chrono::milliseconds longest);

    // A pass that began at `began` read `records` records. Returns the time
    // before which the next wait must not start, or a default time point for
    // none (a pass that read nothing holds nothing off).
    Clock::time_point AfterPass(Clock::time_point began, uint64_t records);

private:
    Clock::duration Window() const;

    Clock::duration m_shortest;
    Clock::duration m_longest;
    Clock::time_point m_last_began{};  // of the last pass that read records
    double m_rate = 0;                 // records a second, recently
};

}  // namespace Engine
