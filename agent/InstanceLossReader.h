#pragma once
// Reads what the kernel reports as lost for a tracing instance: the "overrun"
// (events overwritten before they were read) and "dropped events" (events not
// written because the buffer was full) lines of every
// <instance>/per_cpu/cpuN/stats file, and "entries" (events still unread).
// Must run before the instance is removed.

#include <string>

#include "ReceiveStatistics.h"

namespace Agent {

class InstanceLossReader {
public:
    static KernelLoss Read(const std::string& instance_dir);
    // Adds the counters of one stats file's text to `loss`.
    static void AddStatsText(const std::string& text, KernelLoss& loss);
};

}  // namespace Agent
