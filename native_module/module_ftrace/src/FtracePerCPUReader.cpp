#include "FtracePerCPUReader.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <new>
#include <utility>
#include <vector>

#include "SDK/InnerCpuCtrlUtils.h"
#include "SDK/TimeUtils.h"

namespace {

// Enough for the header and length words kbuffer may read at the page's end.
constexpr size_t kPageSlack = 16;
// common_type, common_flags, common_preempt_count, common_pid.
constexpr size_t kCommonHeaderSize = 8;

// Tick of the last CPU-budget adjustment. One value for the whole process, not
// one per reader: every reader runs on the ftrace task's thread, so together
// they are throttled as that one thread.
uint64_t g_last_adjust_tick = 0;

void ThrottleCpu() {
    if (!SDK::InnerCpuCtrlUtils::IsEnabled()) return;
    const uint64_t now = SDK::TimeUtils::GetCurrentSystemTickUsed();
    const uint64_t elapsed = now > g_last_adjust_tick ? now - g_last_adjust_tick : g_last_adjust_tick - now;
    if (elapsed > SDK::InnerCpuCtrlUtils::GetSuggestedRunTick()) {
        SDK::InnerCpuCtrlUtils::AdjustThreadCpu(__FILE__, 71, "ftrace_task", now, elapsed);
        g_last_adjust_tick = now;
    }
}

}  // namespace

FtracePerCPUReader::FtracePerCPUReader(const Ftrace& ftrace, FileDescriptor&& fd, int cpu)
    : m_fd(std::move(fd)), m_kbuffer(AllocateKBuffer(ftrace)), m_cpu(cpu) {}

FtracePerCPUReader::FtracePerCPUReader(const Ftrace& ftrace, const std::string& path, int cpu)
    : m_fd(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)), m_kbuffer(AllocateKBuffer(ftrace)), m_cpu(cpu) {}

FtracePerCPUReader::KBufferPtr FtracePerCPUReader::AllocateKBuffer(const Ftrace& ftrace) {
    const kbuffer_long_size long_size = ftrace.page_size() == 4 ? KBUFFER_LSIZE_4 : KBUFFER_LSIZE_8;
    const kbuffer_endian endian = ftrace.is_file_bigendian() ? KBUFFER_ENDIAN_BIG : KBUFFER_ENDIAN_LITTLE;
    kbuffer* buffer = kbuffer_alloc(long_size, endian);
    // kbuffer_alloc fails only when out of memory; a reader without one could never decode.
    if (buffer == nullptr) throw std::bad_alloc();
    return KBufferPtr(buffer, kbuffer_free);
}

tep_record FtracePerCPUReader::read_single_record(void* data) const {
    tep_record record{};
    kbuffer* kbuf = m_kbuffer.get();
    record.ts = kbuffer_timestamp(kbuf);
    record.offset = static_cast<unsigned long long>(static_cast<long long>(kbuffer_curr_offset(kbuf)));
    record.missed_events = kbuffer_missed_events(kbuf);
    record.record_size = kbuffer_curr_size(kbuf);
    record.size = kbuffer_event_size(kbuf);
    record.data = data;
    record.cpu = m_cpu;
    return record;
}

int FtracePerCPUReader::read_once(const Ftrace& ftrace, int fd, Callback callback, void* context) {
    // trace_pipe_raw hands out whole ring-buffer pages, which are system pages.
    const size_t page_size = static_cast<unsigned int>(getpagesize());
    // Zeroed slack past the page: kbuffer reads a record's header words before
    // it checks them against the page's length, so a corrupt last record would
    // make it read past the buffer.
    std::vector<char> page(page_size + kPageSlack, 0);
    const ssize_t count = ::read(fd, page.data(), page_size);
    if (count == 0) return 1;
    if (count < 0) return errno == EAGAIN ? 1 : 0;

    kbuffer* kbuf = m_kbuffer.get();
    kbuffer_load_subbuffer(kbuf, page.data());
    int last_offset = -1;
    for (void* data = kbuffer_read_event(kbuf, nullptr); data != nullptr; data = kbuffer_next_event(kbuf, nullptr)) {
        // kbuffer steps by each record's own length: a corrupt (negative) one
        // sends it backwards, round the same records for ever.
        const int offset = kbuffer_curr_offset(kbuf);
        if (offset <= last_offset) break;
        last_offset = offset;
        // A record that claims more than the page holds is corrupt: it is cut
        // at the page's end, and one without room for the common header (which
        // every event starts with) ends the page.
        const size_t at = static_cast<size_t>(static_cast<char*>(data) - page.data());
        if (at > page_size || page_size - at < kCommonHeaderSize) break;
        ThrottleCpu();
        tep_record record = read_single_record(data);
        if (static_cast<size_t>(static_cast<unsigned int>(record.size)) > page_size - at) {
            record.size = static_cast<int>(page_size - at);
        }
        // No bytes, so no event; and a record view without a size is not
        // bounded by one.
        if (record.size == 0) continue;
        const FtraceEvent event = ftrace.get_event(ftrace.event_id(&record));
        if (!event) continue;  // not in the catalogue: nobody asked for it
        FtraceRecord ftrace_record(event, &record);
        callback(ftrace_record, context);
    }
    return 2;
}

int FtracePerCPUReader::read_once(const Ftrace& ftrace, Callback callback, void* context) {
    return read_once(ftrace, m_fd.get(), callback, context);
}

int FtracePerCPUReader_read_once(void* arguments) {
    // Four pointer-sized words: context, callback, reader, ftrace.
    void* const* words = static_cast<void* const*>(arguments);
    void* context = words[0];
    auto callback = reinterpret_cast<FtracePerCPUReader::Callback>(words[1]);
    auto* reader = static_cast<FtracePerCPUReader*>(words[2]);
    const auto* ftrace = static_cast<const Ftrace*>(words[3]);
    return reader->read_once(*ftrace, callback, context);
}
