#pragma once
// When the ftrace task is woken to read the ring buffers, as the host's
// configuration asks: the instance's poll watermark (its buffer_percent file),
// how long a pass that read records holds off the next wait, and the nice
// value of the reading thread, which decides how soon it gets a CPU once woken.

#include <climits>
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
    static constexpr const char* kCoalesceMaxMsKey = "ftrace.wakeup.coalesce_max_ms";
    static constexpr const char* kReaderNiceKey = "ftrace.reader.nice";
    static constexpr int kKeepNice = INT_MIN;  // the thread keeps the nice value it started with

    // Every key, where set. A value that is not a whole number in range is
    // logged as an error and left unset, so the kernel default stays.
    static FtraceWakeup FromConfiguration(const Poco::Util::AbstractConfiguration& config);
    // Readers wake on the first record; a pass that read records holds the
    // next wait off for a few milliseconds, so that a storm is read in full
    // pages while a lone record is still delivered at once (a slow storm is
    // held off longer, see FtraceHoldOff); the reading thread runs at nice
    // -10, so that other work on a busy host delays it less.
    static FtraceWakeup LowLatency();
    void Store(Poco::Util::AbstractConfiguration& config) const;
    bool Configured() const {
        return buffer_percent >= 0 || coalesce_ms > 0 || coalesce_max_ms > 0 || reader_nice != kKeepNice;
    }
    std::string Describe() const;
    // Gives the calling thread alone this nice value. 0, or the errno of the
    // refusal (EACCES without CAP_SYS_NICE beyond RLIMIT_NICE).
    static int SetCallingThreadNice(int nice);

    int buffer_percent = -1;      // -1: the instance's watermark is left as it is
    int coalesce_ms = 0;          // 0: no hold-off
    int coalesce_max_ms = 0;      // up to coalesce_ms: the hold-off never stretches
    int reader_nice = kKeepNice;  // -20 to 19
};

}  // namespace Engine
