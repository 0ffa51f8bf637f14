#include "ReceiveStatistics.h"

#include <cstdio>

namespace Agent {

void ReceiveStatistics::Expect(const std::vector<std::string>& event_names) {
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const auto& name : event_names) m_counts.emplace(name, 0);
}

void ReceiveStatistics::Start() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_start = std::chrono::steady_clock::now();
    m_started = true;
    m_stopped = false;
}

void ReceiveStatistics::Stop() {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_started && !m_stopped) {
        m_stop = std::chrono::steady_clock::now();
        m_stopped = true;
    }
}

uint64_t ReceiveStatistics::Count(const std::string& event_name) {
    std::lock_guard<std::mutex> lock(m_mutex);
    ++m_counts[event_name];
    return ++m_total;
}

void ReceiveStatistics::SetQueueDrops(uint64_t drops) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_queue_drops = drops;
}

void ReceiveStatistics::SetKernelLoss(const KernelLoss& loss) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_loss = loss;
}

uint64_t ReceiveStatistics::Total() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_total;
}

uint64_t ReceiveStatistics::CountOf(const std::string& event_name) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto it = m_counts.find(event_name);
    return it == m_counts.end() ? 0 : it->second;
}

double ReceiveStatistics::ElapsedSeconds() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_started) return 0;
    const auto end = m_stopped ? m_stop : std::chrono::steady_clock::now();
    return std::chrono::duration<double>(end - m_start).count();
}

void ReceiveStatistics::Print(std::ostream& os) const {
    const double seconds = ElapsedSeconds();
    std::lock_guard<std::mutex> lock(m_mutex);
    char line[160];
    std::snprintf(line, sizeof line, "%llu messages in %.3f s (%.1f per second)",
                  static_cast<unsigned long long>(m_total), seconds, seconds > 0 ? m_total / seconds : 0.0);
    os << "ftrace-agent summary: " << line << '\n';
    for (const auto& [name, count] : m_counts) os << "  " << name << ": " << count << '\n';
    if (m_queue_drops != 0) os << "  dropped by the agent (queue full): " << m_queue_drops << '\n';
    if (m_loss.known) {
        os << "  lost in the kernel (instance ZEV): overrun " << m_loss.overrun << ", dropped events "
           << m_loss.dropped_events << '\n';
        os << "  left unread in the kernel at stop (instance ZEV): " << m_loss.unread << '\n';
    } else {
        os << "  lost in the kernel (instance ZEV): unknown (per_cpu stats unreadable)\n";
    }
}

}  // namespace Agent
