#pragma once
// Reads one CPU's "trace_pipe_raw" a kernel ring-buffer page at a time without
// blocking, splits each page into records with libtraceevent's kbuffer and
// hands every record of a known event to a callback.

#include <memory>
#include <string>

#include "FileDescriptor.h"
#include "ftrace.h"
#include "kbuffer_wrapper.h"

class FtracePerCPUReader {
public:
    using Callback = void (*)(FtraceRecord&, void*);
    using KBufferPtr = std::unique_ptr<kbuffer, void (*)(kbuffer*)>;

    FtracePerCPUReader(const Ftrace& ftrace, FileDescriptor&& fd, int cpu);
    // Opens `path` O_RDONLY | O_NONBLOCK | O_CLOEXEC; a failed open leaves fd() at -1.
    FtracePerCPUReader(const Ftrace& ftrace, const std::string& path, int cpu);
    FtracePerCPUReader(const FtracePerCPUReader&) = delete;
    FtracePerCPUReader& operator=(const FtracePerCPUReader&) = delete;

    static KBufferPtr AllocateKBuffer(const Ftrace& ftrace);

    bool valid() const { return m_fd.valid(); }
    const FileDescriptor& fd() const { return m_fd; }
    FileDescriptor& fd() { return m_fd; }
    int cpu() const { return m_cpu; }

    // The libtraceevent record of the event at the kbuffer's current position.
    tep_record read_single_record(void* data) const;

    // Reads one page from `fd` and walks it: 2 when a page was walked (more may
    // wait), 1 when there was nothing to read (0 bytes or EAGAIN), 0 on any
    // other read error.
    int read_once(const Ftrace& ftrace, int fd, Callback callback, void* context);
    int read_once(const Ftrace& ftrace, Callback callback, void* context);

    // One new reader per CPU number in [first, last), on
    // <instance>/per_cpu/cpu<N>/trace_pipe_raw, written to `out` as owning raw
    // pointers. Readers whose open failed are output too.
    template <typename InputIt, typename OutputIt>
    static void create_readers(const Ftrace& ftrace, InputIt first, InputIt last, OutputIt out);

private:
    FileDescriptor m_fd;
    KBufferPtr m_kbuffer;
    int m_cpu;
};

template <typename InputIt, typename OutputIt>
void FtracePerCPUReader::create_readers(const Ftrace& ftrace, InputIt first, InputIt last, OutputIt out) {
    const std::string base = ftrace.tracing_file("per_cpu");
    if (base.empty() || first == last) return;
    for (; first != last; ++first) {
        const int cpu = *first;
        *out++ = new FtracePerCPUReader(ftrace, base + "/cpu" + std::to_string(cpu) + "/trace_pipe_raw", cpu);
    }
}
