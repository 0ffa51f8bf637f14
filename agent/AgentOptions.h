#pragma once
// What the user asked ftrace-agent to do, parsed from its command line.

#include <cstdint>
#include <string>
#include <vector>

#include "NatsSettings.h"

namespace Agent {

// One trace event, named as the kernel's available_events lists it.
struct EventName {
    std::string system;
    std::string event;
    std::string FullName() const { return system + ":" + event; }
};

// low: every record wakes the reader, coalesced to a few milliseconds;
// batch: the kernel's watermark and the reader's bounded wait of a second.
enum class Latency { Low, Batch };

class AgentOptions {
public:
    AgentOptions();

    // "system:event,system:event,...". Throws std::invalid_argument with a
    // message naming the bad entry.
    static std::vector<EventName> ParseEventList(const std::string& text);
    // One of OutputTable::FormatNames().
    static std::string ParseFormat(const std::string& text);
    static Latency ParseLatency(const std::string& text);
    static const char* LatencyName(Latency latency);
    // Decimal seconds > 0 ("2", "0.5").
    static double ParseSeconds(const std::string& text);
    // Decimal integer in [min, max].
    static long long ParseInteger(const std::string& option, const std::string& text, long long min,
                                  long long max);

    std::vector<EventName> events;  // the three process-life events unless --events is given
    std::string format = "text";
    std::string output_url;  // --output: a message system instead of standard output
    NatsSettings nats;
    Latency latency = Latency::Low;
    double duration_seconds = 0;  // 0: until stopped
    uint64_t count = 0;           // 0: no limit
    std::vector<int> pids;
    int cpu_limit_percent = 0;  // 0: no CPU budget
    int buffer_kb = 0;          // 0: the kernel's ring buffer size
    std::string module_dir;     // empty: next to the executable
    std::string log_level = "information";
    std::string log_file;  // empty: standard error
    bool daemon = false;
    bool help = false;
};

}  // namespace Agent
