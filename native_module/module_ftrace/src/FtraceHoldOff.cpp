#include "FtraceHoldOff.h"

#include <algorithm>

namespace Engine {

FtraceHoldOff::FtraceHoldOff(std::chrono::milliseconds shortest, std::chrono::milliseconds longest)
    : m_shortest(shortest), m_longest(std::max(shortest, longest)) {}

FtraceHoldOff::Clock::time_point FtraceHoldOff::AfterPass(Clock::time_point began, uint64_t records) {
    if (records == 0 || m_shortest <= Clock::duration::zero()) return {};
    // The records were written between the last pass that found some and this one.
    if (m_last_began != Clock::time_point{} && began > m_last_began) {
        const double seconds = std::chrono::duration<double>(began - m_last_began).count();
        const double rate = static_cast<double>(records) / seconds;
        const double memory = std::chrono::duration<double>(kRateMemory).count();
        m_rate = rate >= m_rate ? rate : m_rate + (rate - m_rate) * std::min(1.0, seconds / memory);
    }
    m_last_began = began;
    return began + Window();
}

FtraceHoldOff::Clock::duration FtraceHoldOff::Window() const {
    if (m_rate < kStormRate) return m_shortest;
    const std::chrono::duration<double> filling(kRecordsPerPass / m_rate);
    return std::clamp(std::chrono::duration_cast<Clock::duration>(filling), m_shortest, m_longest);
}

}  // namespace Engine
