// The per-CPU reader over hand-built ring-buffer pages, with real event
// formats loaded into an Ftrace whose tracing directory is a temporary copy.
// The kernel's own pages are read by the task and agent tests.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>

#include "FtracePerCPUReader.h"
#include "RingBufferPage.h"
#include "SDK/InnerCpuCtrlUtils.h"
#include "TestSupport.h"

namespace {

std::vector<uint8_t> Payload(size_t size, uint16_t type) {
    std::vector<uint8_t> bytes(size, 0xab);
    std::memcpy(&bytes[0], &type, 2);
    return bytes;
}

struct Seen {  // copied out: the record points into the reader's page
    std::string text;
    std::vector<uint8_t> data;
};

// Throws once a walk delivers more records than any test page holds: a walk that does not end.
void Collect(FtraceRecord& record, void* context) {
    auto& seen = *static_cast<std::vector<Seen>*>(context);
    if (seen.size() >= 8) throw std::runtime_error("the walk does not end");
    const tep_record& raw = *record.record();
    std::ostringstream text;
    text << record.event_name() << " cpu " << raw.cpu << " ts " << raw.ts << " offset " << raw.offset << " missed "
         << raw.missed_events << " size " << raw.record_size << "/" << raw.size;
    const auto* data = static_cast<const uint8_t*>(raw.data);
    seen.push_back({text.str(), std::vector<uint8_t>(data, data + raw.size)});
}

class FtracePerCPUReaderTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(switch_id = ftrace->get_event("sched", "sched_switch").id());
        ASSERT_TRUE(exec_id = ftrace->get_event("sched", "sched_process_exec").id());
    }
    // Read end of a non-blocking pipe holding `bytes`; the write end stays in `writers`.
    FileDescriptor Pipe(const std::vector<uint8_t>& bytes) {
        int ends[2];
        EXPECT_EQ(0, ::pipe2(ends, O_NONBLOCK | O_CLOEXEC));
        EXPECT_EQ(static_cast<ssize_t>(bytes.size()), ::write(ends[1], bytes.data(), bytes.size()));
        writers.emplace_back(ends[1]);
        return FileDescriptor(ends[0]);
    }

    // An instance directory that already exists is adopted, so it can hold copied formats.
    test_support::TempTracingDir tracing{"reader_test"};
    std::unique_ptr<Ftrace> ftrace = std::make_unique<Ftrace>("reader_test");
    uint16_t switch_id = 0, exec_id = 0;
    std::vector<FileDescriptor> writers;
    const size_t page_size = static_cast<size_t>(getpagesize());
};

// Readers made for the instance's per_cpu files through the C entry point, a
// CPU without one (its reader is made all the same, invalid), and the task's
// form: the descriptor moved out into its event and passed in. The file holds
// a whole page, a page without records and the first page again, cut short.
TEST_F(FtracePerCPUReaderTest, DeliversKnownRecordsAsKbufferReportsThemAndTellsPageEndOrError) {
    const auto sw = Payload(64, switch_id), ex = Payload(172, exec_id);
    RingBufferPage page(5000000, 3);
    page.event(10, sw);                  // offset 16, 4 + 64 bytes
    page.event(5, Payload(8, 9999));     // id not in the catalogue: skipped
    page.time_extend(3ULL << 27);        // offset 96
    page.event(7, ex);                   // offset 104, 8 + 172 bytes (long header)
    std::vector<uint8_t> pages = page.bytes(page_size), empty = RingBufferPage(43).bytes(page_size), cut = page.bytes();
    pages.insert(pages.end(), empty.begin(), empty.end());
    pages.insert(pages.end(), cut.begin(), cut.end());
    test_support::WriteAll(tracing.Instance("reader_test") + "/per_cpu/cpu2/trace_pipe_raw",
                           std::string(pages.begin(), pages.end()));
    const std::vector<int> cpus = {2, 9999};
    std::vector<FtracePerCPUReader*> made;
    FtracePerCPUReader::create_readers(*ftrace, cpus.begin(), cpus.end(), std::back_inserter(made));
    const std::vector<std::unique_ptr<FtracePerCPUReader>> readers(made.begin(), made.end());
    ASSERT_EQ(2u, readers.size());
    EXPECT_EQ(FD_CLOEXEC, ::fcntl(readers[0]->fd().get(), F_GETFD));
    EXPECT_FALSE(readers[1]->valid());
    std::vector<Seen> seen;
    void* words[4] = {&seen, reinterpret_cast<void*>(&Collect), readers[0].get(), ftrace.get()};
    EXPECT_EQ(2, FtracePerCPUReader_read_once(words));
    EXPECT_EQ(2, readers[1]->read_once(*ftrace, readers[0]->fd().get(), Collect, &seen));  // a page without records
    EXPECT_EQ(2, FtracePerCPUReader_read_once(words));                                     // a short read
    EXPECT_EQ(1, FtracePerCPUReader_read_once(words));                                     // end of file
    EXPECT_EQ(0, readers[1]->read_once(*ftrace, Collect, &seen));                          // EBADF
    ASSERT_EQ(4u, seen.size());
    for (size_t i = 0; i < 4; i += 2) {
        // Only the page's first record carries the loss; 407653206 = 5000000 + 10 + 5 + 3 << 27 + 7.
        EXPECT_EQ("sched:sched_switch cpu 2 ts 5000010 offset 16 missed 3 size 68/64", seen[i].text);
        EXPECT_EQ("sched:sched_process_exec cpu 2 ts 407653206 offset 104 missed 0 size 180/172", seen[i + 1].text);
        EXPECT_TRUE(seen[i].data == sw && seen[i + 1].data == ex);
    }
}

// Corrupt lengths: a record that claims more than the page holds is cut at
// the page's end; one whose length would read it again ends the page.
TEST_F(FtracePerCPUReaderTest, CorruptLengthsAreCutOrEndThePage) {
    // The length word counts itself: 4084 claims 4080 bytes where 4072 are left.
    for (const uint32_t length : {4084u, 0xFFFFFFFCu}) {
        RingBufferPage page(0);
        page.word(1 << 5);  // type_len 0: a length word follows
        page.word(length);
        const auto payload = Payload(64, switch_id);
        page.records.insert(page.records.end(), payload.begin(), payload.end());
        FtracePerCPUReader reader(*ftrace, Pipe(page.bytes(page_size)), 0);
        std::vector<Seen> seen;
        EXPECT_EQ(2, reader.read_once(*ftrace, Collect, &seen));
        ASSERT_EQ(1u, seen.size()) << length;
        EXPECT_EQ(static_cast<int>(page_size) - 24, static_cast<int>(seen[0].data.size())) << length;
    }
}

uint64_t ThreadCpuNanos() {
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000u + static_cast<uint64_t>(ts.tv_nsec);
}

// Uses 2 ms of thread CPU per record, so that a budget has something to take back.
void Burn(FtraceRecord&, void* count) {
    const uint64_t start = ThreadCpuNanos();
    while (ThreadCpuNanos() - start < 2000000u) {}
    ++*static_cast<int*>(count);
}

// The reader adjusts its thread between records: on a budget of 10 % of a CPU
// it stays far below a whole one, however busy the callback. A released
// thread (its task is being stopped) leaves its sleep at once: at 1 % the
// 40 ms of CPU would take 4 s, and it is released after 0.1 s.
TEST_F(FtracePerCPUReaderTest, ThrottleKeepsTheThreadWithinItsBudgetUntilReleased) {
    RingBufferPage page(1);
    for (int i = 0; i < 20; ++i) page.event(1, Payload(64, switch_id));
    const uint64_t saved_run_tick = SDK::InnerCpuCtrlUtils::GetSuggestedRunTick();
    SDK::InnerCpuCtrlUtils::SetSuggestedRunTick(0);
    for (const int percent : {10, 1}) {
        FtracePerCPUReader reader(*ftrace, Pipe(page.bytes(page_size)), 0);
        SDK::InnerCpuCtrlUtils::Enable(percent);
        int delivered = 0, result = -1;
        double share = 1, seconds = 0;
        // A fresh thread: the budget keeps its accounting window per thread.
        std::thread thread([&] {
            const auto wall_start = std::chrono::steady_clock::now();
            const uint64_t cpu_start = ThreadCpuNanos();
            result = reader.read_once(*ftrace, Burn, &delivered);
            seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - wall_start).count();
            share = static_cast<double>(ThreadCpuNanos() - cpu_start) / 1e9 / seconds;
        });
        const std::thread::id id = thread.get_id();
        if (percent == 1) std::this_thread::sleep_for(std::chrono::milliseconds(100));
        if (percent == 1) SDK::InnerCpuCtrlUtils::ReleaseThread(id);
        thread.join();
        SDK::InnerCpuCtrlUtils::RestoreThread(id);
        EXPECT_TRUE(result == 2 && delivered == 20) << percent << ": " << result << ", " << delivered;
        // Released: done well within 2 s. Throttled: under half a CPU.
        EXPECT_LT(percent == 1 ? seconds / 4 : share, 0.5) << percent;
    }
    SDK::InnerCpuCtrlUtils::Disable();
    SDK::InnerCpuCtrlUtils::SetSuggestedRunTick(saved_run_tick);
}

}  // namespace
