#pragma once
// When the ftrace task is woken to read the ring buffers, as the host's
// configuration asks: the instance's poll watermark (its buffer_percent file)
// and how long a pass that read records holds off the next wait.

#include <string>

namespace Poco {
namespace Util {
class AbstractConfiguration;
}
}  // namespace Poco

namespace Engine {

struct FtraceWakeup {
    static constexpr const char* kBufferPercentKey = "ftrace.wakeup.buffer_percent";
    static constexpr const char* kCoalesceMsKey = "ftrace.wakeup.coalesce_ms";

    // Both keys, where set. A value that is not a whole number in range is
    // logged as an error and left unset, so the kernel default stays.
    static FtraceWakeup FromConfiguration(const Poco::Util::AbstractConfiguration& config);
    // Readers wake on the first record; a pass that read records holds the
    // next wait off for a few milliseconds, so that a storm is read in full
    // pages while a lone record is still delivered at once.
    static FtraceWakeup LowLatency();
    void Store(Poco::Util::AbstractConfiguration& config) const;
    bool Configured() const { return buffer_percent >= 0 || coalesce_ms > 0; }
    std::string Describe() const;

    int buffer_percent = -1;  // -1: the instance's watermark is left as it is
    int coalesce_ms = 0;      // 0: no hold-off
};

}  // namespace Engine
