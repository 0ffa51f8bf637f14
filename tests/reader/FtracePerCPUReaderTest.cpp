// The per-CPU reader over hand-built ring-buffer pages in pipes, with real
// event formats loaded into an Ftrace whose tracing directory is a temporary copy.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <chrono>
#include <thread>

#include "CPUTopology.h"
#include "FtracePerCPUReader.h"
#include "RingBufferPage.h"
#include "SDK/InnerCpuCtrlUtils.h"
#include "tracefs_shim.h"

namespace fs = std::filesystem;

namespace {

// Event data with the common header (type, pid) filled in, little-endian.
std::vector<uint8_t> Payload(size_t size, uint16_t type, uint32_t pid,
                             std::initializer_list<std::pair<size_t, std::string>> parts = {}) {
    std::vector<uint8_t> bytes(size, 0);
    std::memcpy(&bytes[0], &type, 2);
    std::memcpy(&bytes[4], &pid, 4);
    for (const auto& [offset, part] : parts) std::memcpy(&bytes[offset], part.data(), part.size());
    return bytes;
}
template <typename T>
std::string Raw(T value) { return std::string(reinterpret_cast<const char*>(&value), sizeof value); }

struct Seen {  // copied out: the record points into the reader's page
    std::string name, text;
    uint64_t pid, number;
    int cpu;
    tep_record raw;
    std::vector<uint8_t> data;
};

void Collect(FtraceRecord& record, void* context) {
    const bool exec = record.event_name() == "sched:sched_process_exec";
    const auto* data = static_cast<const uint8_t*>(record.record()->data);
    static_cast<std::vector<Seen>*>(context)->push_back(
        {record.event_name(), record.get_string(exec ? "filename" : "next_comm"), record.pid(),
         record.get(exec ? "old_pid" : "next_pid"), record.cpu(), *record.record(),
         std::vector<uint8_t>(data, data + record.record()->size)});
    EXPECT_EQ(record.timestamp(), record.record()->ts);
}

class FtracePerCPUReaderTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/ftrace-reader-XXXXXX";
        ASSERT_NE(nullptr, ::mkdtemp(pattern));
        root = pattern;
        // An instance directory that already exists is adopted, so it can hold copied formats.
        for (const char* name : {"sched_switch", "sched_process_exec"}) {
            const fs::path to = root / "instances/reader_test/events/sched" / name;
            fs::create_directories(to);
            fs::copy_file(fs::path(FTRACE_FIXTURES_ROOT) / "events/sched" / name / "format", to / "format");
        }
        ASSERT_EQ(0, ftrace_shim_set_tracing_dir(root.c_str()));
        ftrace = std::make_unique<Ftrace>("reader_test");
        ASSERT_TRUE(switch_id = ftrace->get_event("sched", "sched_switch").id());
        ASSERT_TRUE(exec_id = ftrace->get_event("sched", "sched_process_exec").id());
    }
    void TearDown() override {
        ftrace.reset();
        ftrace_shim_set_tracing_dir(nullptr);
        fs::remove_all(root);
    }
    // Read end of a non-blocking pipe holding `bytes`; the write end stays open unless asked.
    FileDescriptor Pipe(const std::vector<uint8_t>& bytes, bool close_writer = false) {
        int ends[2];
        EXPECT_EQ(0, ::pipe2(ends, O_NONBLOCK | O_CLOEXEC));
        EXPECT_EQ(static_cast<ssize_t>(bytes.size()), ::write(ends[1], bytes.data(), bytes.size()));
        FileDescriptor writer(ends[1]);
        if (!close_writer) writers.push_back(std::move(writer));
        return FileDescriptor(ends[0]);
    }

    fs::path root;
    std::unique_ptr<Ftrace> ftrace;
    uint16_t switch_id = 0, exec_id = 0;
    std::vector<FileDescriptor> writers;
    const size_t page_size = static_cast<size_t>(getpagesize());
};

TEST_F(FtracePerCPUReaderTest, DeliversKnownRecordsAsKbufferReportsThem) {
    const std::string file = "/usr/libexec/" + std::string(133, 'x') + "/true";  // 20 + 151 + NUL = 172 bytes
    const auto sw = Payload(64, switch_id, 1234, {{40, "bash"}, {56, Raw<int32_t>(4321)}});
    const auto ex = Payload(20 + file.size() + 1, exec_id, 777,
                            {{8, Raw<uint32_t>((file.size() + 1) << 16 | 20)}, {16, Raw<int32_t>(776)}, {20, file}});
    RingBufferPage page(5000000, 3);
    page.event(10, sw);                             // offset 16, 4 + 64 bytes
    page.event(5, Payload(8, 9999, 1));             // id not in the catalogue: skipped
    page.time_extend(3ULL << 27);                   // offset 96
    page.event(7, ex);                              // offset 104, 8 + 172 bytes (long header)

    for (const size_t written : {page_size, page.bytes().size()}) {  // a whole page, then a short read
        SCOPED_TRACE(written);
        FtracePerCPUReader reader(*ftrace, Pipe(page.bytes(written)), 3);
        std::vector<Seen> seen;
        EXPECT_EQ(2, reader.read_once(*ftrace, Collect, &seen));
        EXPECT_EQ(1, reader.read_once(*ftrace, Collect, &seen));  // drained: EAGAIN
        ASSERT_EQ(2u, seen.size());
        EXPECT_EQ("sched:sched_switch", seen[0].name);
        EXPECT_EQ(std::string("bash") + std::string(12, '\0'), seen[0].text);
        EXPECT_EQ(1234u, seen[0].pid);
        EXPECT_EQ(4321u, seen[0].number);
        EXPECT_EQ("sched:sched_process_exec", seen[1].name);
        EXPECT_EQ(file + '\0', seen[1].text);
        EXPECT_EQ(777u, seen[1].pid);
        EXPECT_EQ(776u, seen[1].number);

        const struct { uint64_t ts, offset; long long missed; int record_size, size; std::vector<uint8_t> data; } expected[] = {
            {5000010, 16, 3, 68, 64, sw},  // only the page's first record carries the loss
            {5000015 + (3ULL << 27) + 7, 104, 0, 180, 172, ex}};
        for (size_t i = 0; i < 2; ++i) {
            SCOPED_TRACE(seen[i].name);
            EXPECT_EQ(expected[i].ts, seen[i].raw.ts);
            EXPECT_EQ(expected[i].offset, seen[i].raw.offset);
            EXPECT_EQ(expected[i].missed, seen[i].raw.missed_events);
            EXPECT_EQ(expected[i].record_size, seen[i].raw.record_size);
            EXPECT_EQ(expected[i].size, seen[i].raw.size);
            EXPECT_EQ(expected[i].data, seen[i].data);
            EXPECT_EQ(3, seen[i].cpu);
            EXPECT_EQ(3, seen[i].raw.cpu);
            EXPECT_EQ(0, seen[i].raw.ref_count + seen[i].raw.locked);
            EXPECT_EQ(nullptr, seen[i].raw.priv);
        }
    }
}

TEST_F(FtracePerCPUReaderTest, ResultTellsPageNothingToReadOrError) {
    struct Case { const char* name; FileDescriptor fd; int expected; };
    Case cases[] = {
        {"page without records", Pipe(RingBufferPage(42).bytes(page_size)), 2},
        {"empty pipe, writer open (EAGAIN)", Pipe({}), 1},
        {"empty pipe, writer closed (read gives 0)", Pipe({}, true), 1},
        {"no descriptor (EBADF)", FileDescriptor(), 0},
        {"directory (EISDIR)", FileDescriptor(::open(root.c_str(), O_RDONLY | O_DIRECTORY)), 0},
    };
    FtracePerCPUReader reader(*ftrace, FileDescriptor(), 0);
    for (Case& c : cases) {
        std::vector<Seen> seen;
        // The task's form: the descriptor was moved out of the reader into its event.
        EXPECT_EQ(c.expected, reader.read_once(*ftrace, c.fd.get(), Collect, &seen)) << c.name;
        EXPECT_TRUE(seen.empty()) << c.name;
    }
}

TEST_F(FtracePerCPUReaderTest, ConstructorsAndTrampoline) {
    RingBufferPage page(1);
    page.event(1, Payload(64, switch_id, 55));
    FileDescriptor source = Pipe(page.bytes(page_size));
    const int number = source.get();
    FtracePerCPUReader reader(*ftrace, std::move(source), 6);
    EXPECT_EQ(-1, source.get());
    EXPECT_EQ(number, reader.fd().get());

    std::vector<Seen> seen;
    void* words[4] = {&seen, reinterpret_cast<void*>(&Collect), &reader, ftrace.get()};
    EXPECT_EQ(2, FtracePerCPUReader_read_once(words));
    ASSERT_EQ(1u, seen.size());
    EXPECT_EQ(55u, seen[0].pid);
    EXPECT_EQ(6, seen[0].cpu);

    std::ofstream(root / "raw") << "x";
    FtracePerCPUReader opened(*ftrace, (root / "raw").string(), 2);
    ASSERT_TRUE(opened.valid());
    EXPECT_EQ(O_RDONLY | O_NONBLOCK, ::fcntl(opened.fd().get(), F_GETFL) & (O_ACCMODE | O_NONBLOCK));
    EXPECT_EQ(FD_CLOEXEC, ::fcntl(opened.fd().get(), F_GETFD));
}

TEST_F(FtracePerCPUReaderTest, CreateReadersFollowsTheCPUList) {
    const std::string per_cpu = ftrace->tracing_dir() + "/per_cpu";
    for (const char* cpu : {"/cpu0", "/cpu5"}) {
        fs::create_directories(per_cpu + cpu);
        std::ofstream(per_cpu + cpu + "/trace_pipe_raw");
    }
    const std::vector<int> cpus = {0, 5, 9};  // no cpu9: an invalid reader all the same
    std::vector<FtracePerCPUReader*> made;
    FtracePerCPUReader::create_readers(*ftrace, cpus.begin(), cpus.end(), std::back_inserter(made));
    const std::vector<std::unique_ptr<FtracePerCPUReader>> readers(made.begin(), made.end());
    ASSERT_EQ(3u, readers.size());
    EXPECT_EQ(per_cpu + "/cpu0/trace_pipe_raw", filename(readers[0]->fd()));
    EXPECT_EQ(per_cpu + "/cpu5/trace_pipe_raw", filename(readers[1]->fd()));
    EXPECT_FALSE(readers[2]->valid());
    EXPECT_EQ(0, readers[2]->read_once(*ftrace, Collect, nullptr));
    for (size_t i = 0; i < cpus.size(); ++i) EXPECT_EQ(cpus[i], readers[i]->cpu());
}

// Uses 2 ms of thread CPU per record, so that a budget has something to take back.
void Burn(FtraceRecord&, void* count) {
    timespec start{}, now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &start);
    do clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    while ((now.tv_sec - start.tv_sec) * 1000000000L + now.tv_nsec - start.tv_nsec < 2000000L);
    ++*static_cast<int*>(count);
}

TEST_F(FtracePerCPUReaderTest, ThrottleAdjustsTheThreadBetweenRecords) {
    RingBufferPage page(1);
    for (int i = 0; i < 6; ++i) page.event(1, Payload(64, switch_id, 1));
    const uint64_t saved_run_tick = SDK::InnerCpuCtrlUtils::GetSuggestedRunTick();
    for (const int percent : {0, 10}) {  // 0: budget off
        SDK::InnerCpuCtrlUtils::Enable(percent);
        SDK::InnerCpuCtrlUtils::SetSuggestedRunTick(0);
        FtracePerCPUReader reader(*ftrace, Pipe(page.bytes(page_size)), 0);
        const uint64_t before = SDK::InnerCpuCtrlUtils::GetTotalThrottledMicros();
        int delivered = 0, result = -1;
        // A fresh thread: the budget keeps its accounting window per thread.
        std::thread([&] { result = reader.read_once(*ftrace, Burn, &delivered); }).join();
        SDK::InnerCpuCtrlUtils::Disable();
        SDK::InnerCpuCtrlUtils::SetSuggestedRunTick(saved_run_tick);
        EXPECT_EQ(2, result);
        EXPECT_EQ(6, delivered);
        EXPECT_EQ(percent > 0, SDK::InnerCpuCtrlUtils::GetTotalThrottledMicros() > before) << percent;
    }
}

}  // namespace

namespace {

// The kernel's own pages: an instance of our own with sched_switch on, drained on every online CPU.
TEST(FtracePerCPUReaderKernelTest, ReadsTheKernelsPages) {
    if (::access("/sys/kernel/tracing/instances", W_OK) != 0) GTEST_SKIP() << "no writable tracefs";
    const std::string name = "reader_test_" + std::to_string(::getpid());
    Ftrace ftrace(name);
    ASSERT_TRUE(ftrace.tracefs().IsCreated());
    const FtraceEvent sched_switch = ftrace.get_event("sched", "sched_switch");
    ASSERT_TRUE(sched_switch);
    const std::string enable = ftrace.tracing_file("events/sched/sched_switch/enable");
    std::ofstream(enable) << "1";
    std::vector<FtracePerCPUReader*> made;
    const std::vector<int> cpus = Engine::CPUTopology::GetOnlineCPUs();
    FtracePerCPUReader::create_readers(ftrace, cpus.begin(), cpus.end(), std::back_inserter(made));
    const std::vector<std::unique_ptr<FtracePerCPUReader>> readers(made.begin(), made.end());
    for (int i = 0; i < 20; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(5));  // switches

    std::vector<Seen> seen;
    for (const auto& reader : readers) {
        ASSERT_TRUE(reader->valid());
        const size_t before = seen.size();
        while (reader->read_once(ftrace, Collect, &seen) == 2) {}
        for (size_t i = before; i < seen.size(); ++i) EXPECT_EQ(reader->cpu(), seen[i].cpu);
    }
    std::ofstream(enable) << "0";
    ASSERT_FALSE(seen.empty());
    for (const Seen& s : seen) {
        EXPECT_EQ("sched:sched_switch", s.name);
        EXPECT_GT(s.raw.ts, 0u);
        EXPECT_GE(s.raw.size, 64);  // the format's fields end at byte 64
    }
}

}  // namespace
