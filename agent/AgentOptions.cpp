#include "AgentOptions.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <stdexcept>

#include "OutputTable.h"

namespace Agent {

AgentOptions::AgentOptions()
    : events{{"sched", "sched_process_exec"}, {"sched", "sched_process_fork"}, {"sched", "sched_process_exit"}} {}

std::vector<EventName> AgentOptions::ParseEventList(const std::string& text) {
    std::vector<EventName> result;
    std::string::size_type start = 0;
    while (start <= text.size()) {
        const auto comma = text.find(',', start);
        const std::string item = text.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        const auto colon = item.find(':');
        if (colon == std::string::npos || colon == 0 || colon + 1 == item.size() ||
            item.find(':', colon + 1) != std::string::npos) {
            throw std::invalid_argument("--events: '" + item + "' is not of the form system:event");
        }
        EventName name{item.substr(0, colon), item.substr(colon + 1)};
        bool duplicate = false;
        for (const auto& known : result) duplicate = duplicate || known.FullName() == name.FullName();
        if (!duplicate) result.push_back(std::move(name));
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
    return result;
}

std::string AgentOptions::ParseFormat(const std::string& text) {
    if (!OutputTable::IsFormat(text)) {
        throw std::invalid_argument("--format: '" + text + "' is not one of " + OutputTable::FormatNames());
    }
    return text;
}

Latency AgentOptions::ParseLatency(const std::string& text) {
    if (text == "low") return Latency::Low;
    if (text == "batch") return Latency::Batch;
    throw std::invalid_argument("--latency: '" + text + "' is not one of low, batch");
}

const char* AgentOptions::LatencyName(Latency latency) { return latency == Latency::Low ? "low" : "batch"; }

double AgentOptions::ParseSeconds(const std::string& text) {
    char* end = nullptr;
    errno = 0;
    const double value = std::strtod(text.c_str(), &end);
    if (text.empty() || errno != 0 || end == nullptr || *end != '\0' || !std::isfinite(value) || value <= 0) {
        throw std::invalid_argument("--duration: '" + text + "' is not a positive number of seconds");
    }
    return value;
}

long long AgentOptions::ParseInteger(const std::string& option, const std::string& text, long long min,
                                     long long max) {
    char* end = nullptr;
    errno = 0;
    const long long value = std::strtoll(text.c_str(), &end, 10);
    if (text.empty() || errno != 0 || end == nullptr || *end != '\0' || value < min || value > max) {
        throw std::invalid_argument("--" + option + ": '" + text + "' is not a whole number from " +
                                    std::to_string(min) + " to " + std::to_string(max));
    }
    return value;
}

}  // namespace Agent
