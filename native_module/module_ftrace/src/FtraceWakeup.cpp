#include "FtraceWakeup.h"

#include <Poco/Util/AbstractConfiguration.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

#include "ConfiguredNumber.h"

namespace Engine {

FtraceWakeup FtraceWakeup::FromConfiguration(const Poco::Util::AbstractConfiguration& config) {
    FtraceWakeup wakeup;
    wakeup.buffer_percent = ConfiguredNumber(config, kBufferPercentKey, 0, 100, -1);
    // Up to the task's bounded wait: longer would delay the stop check.
    wakeup.coalesce_ms = ConfiguredNumber(config, kCoalesceMsKey, 0, 1000, 0);
    wakeup.coalesce_max_ms = ConfiguredNumber(config, kCoalesceMaxMsKey, 0, 1000, 0);
    wakeup.reader_nice = ConfiguredNumber(config, kReaderNiceKey, -20, 19, kKeepNice);
    return wakeup;
}

FtraceWakeup FtraceWakeup::LowLatency() {
    FtraceWakeup wakeup;
    wakeup.buffer_percent = 0;
    wakeup.coalesce_ms = 4;
    wakeup.coalesce_max_ms = 12;
    // A nice value, not a real-time policy: however long a storm keeps the
    // thread busy, it only weighs more among the host's ordinary threads and
    // can never take a CPU from them entirely.
    wakeup.reader_nice = -10;
    return wakeup;
}

void FtraceWakeup::Store(Poco::Util::AbstractConfiguration& config) const {
    if (buffer_percent >= 0) config.setInt(kBufferPercentKey, buffer_percent);
    if (coalesce_ms > 0) config.setInt(kCoalesceMsKey, coalesce_ms);
    if (coalesce_max_ms > 0) config.setInt(kCoalesceMaxMsKey, coalesce_max_ms);
    if (reader_nice != kKeepNice) config.setInt(kReaderNiceKey, reader_nice);
}

std::string FtraceWakeup::Describe() const {
    const std::string watermark =
        buffer_percent < 0 ? "the instance's buffer_percent" : "buffer_percent " + std::to_string(buffer_percent);
    std::string hold_off = "no hold-off";
    if (coalesce_ms > 0) {
        hold_off = "next wait held off " + std::to_string(coalesce_ms) + " ms after a pass that read records";
        if (coalesce_max_ms > coalesce_ms) {
            hold_off += ", up to " + std::to_string(coalesce_max_ms) + " ms in a slow storm";
        }
    }
    return "readers wake at " + watermark + ", " + hold_off +
           (reader_nice != kKeepNice ? ", reading thread at nice " + std::to_string(reader_nice) : "");
}

int FtraceWakeup::SetCallingThreadNice(int nice) {
    // Linux keeps a nice value per thread: PRIO_PROCESS with a thread id sets that thread's alone.
    const auto thread = static_cast<id_t>(syscall(SYS_gettid));
    return setpriority(PRIO_PROCESS, thread, nice) == 0 ? 0 : errno;
}

}  // namespace Engine
