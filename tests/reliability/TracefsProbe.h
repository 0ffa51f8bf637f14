#pragma once
// Reads and writes of the real tracefs that the reliability tests make from
// outside the module: instance listing, enable states, the kernel's loss
// counters, and the clean-up of an instance left behind.

#include <cstdint>
#include <set>
#include <string>

class TracefsProbe {
public:
    static const std::string kTracing;  // /sys/kernel/tracing

    static std::string InstanceDir(const std::string& instance);
    static std::set<std::string> Instances();
    static bool InstanceExists(const std::string& instance);

    static std::string Read(const std::string& path);
    static bool Write(const std::string& path, const std::string& text);
    // "1", "0" (or "" when the file cannot be read), without the line feed.
    static std::string EnableState(const std::string& instance, const std::string& system, const std::string& event);
    static bool WaitForEnable(const std::string& instance, const std::string& system, const std::string& event,
                              const std::string& state, int seconds);

    // Events the kernel could not keep in the instance's buffers: the sum of
    // "overrun", "commit overrun" and "dropped events" over per_cpu/cpuN/stats.
    static uint64_t Lost(const std::string& instance);

    // Switches every event of the instance off and removes it; true when it is gone.
    static bool RemoveInstance(const std::string& instance);
};
