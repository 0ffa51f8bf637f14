// The per-CPU reader over hand-built ring-buffer pages (pipes and plain files
// standing in for trace_pipe_raw), with real event formats loaded into an
// Ftrace whose tracing directory is a temporary copy.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "FileDescriptor.h"
#include "FtracePerCPUReader.h"
#include "RingBufferPage.h"
#include "SDK/InnerCpuCtrlUtils.h"
#include "ftrace.h"
#include "tracefs_shim.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* kInstance = "reader_test";
constexpr uint16_t kUnknownId = 9999;

// Little-endian event payload with the common header filled in.
class Payload {
public:
    Payload(size_t size, uint16_t type, uint32_t pid) : bytes(size, 0) {
        put(0, type);
        put(4, pid);
    }
    template <typename T>
    Payload& put(size_t offset, T value) {
        std::memcpy(&bytes[offset], &value, sizeof value);
        return *this;
    }
    Payload& text(size_t offset, const std::string& s) {
        std::memcpy(&bytes[offset], s.data(), s.size());
        return *this;
    }
    std::vector<uint8_t> bytes;
};

// What a callback saw; the record points into the reader's page, so copy it all.
struct Seen {
    std::string name;
    uint64_t timestamp;
    int cpu;
    uint64_t pid;
    std::string text;
    uint64_t number;
    tep_record raw;
    std::vector<uint8_t> data;
};

void Collect(FtraceRecord& record, void* context) {
    Seen seen{};
    seen.name = record.event_name();
    seen.timestamp = record.timestamp();
    seen.cpu = record.cpu();
    seen.pid = record.pid();
    if (seen.name == "sched:sched_switch") {
        seen.text = record.get_string("next_comm");
        seen.number = record.get("next_pid");
    } else {
        seen.text = record.get_string("filename");
        seen.number = record.get("pid");
    }
    seen.raw = *record.record();
    const auto* data = static_cast<const uint8_t*>(seen.raw.data);
    seen.data.assign(data, data + seen.raw.size);
    static_cast<std::vector<Seen>*>(context)->push_back(seen);
}

void WriteAll(int fd, const std::vector<uint8_t>& bytes) {
    ASSERT_EQ(static_cast<ssize_t>(bytes.size()), ::write(fd, bytes.data(), bytes.size())) << std::strerror(errno);
}

class FtracePerCPUReaderTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/ftrace-reader-XXXXXX";
        ASSERT_NE(nullptr, ::mkdtemp(pattern));
        root = pattern;
        // An instance directory that already exists is adopted, not created.
        const fs::path events = fs::path(root) / "instances" / kInstance / "events" / "sched";
        for (const char* name : {"sched_switch", "sched_process_exec"}) {
            fs::create_directories(events / name);
            fs::copy_file(fs::path(FTRACE_FIXTURES_ROOT) / "events/sched" / name / "format", events / name / "format");
        }
        ASSERT_EQ(0, ftrace_shim_set_tracing_dir(root.c_str()));
        ftrace = std::make_unique<Ftrace>(kInstance);
        switch_event = ftrace->get_event("sched", "sched_switch");
        exec_event = ftrace->get_event("sched", "sched_process_exec");
        ASSERT_TRUE(switch_event);
        ASSERT_TRUE(exec_event);
    }

    void TearDown() override {
        ftrace.reset();
        ftrace_shim_set_tracing_dir(nullptr);
        std::error_code ignored;
        fs::remove_all(root, ignored);
    }

    uint16_t id(const FtraceEvent& event) const { return static_cast<uint16_t>(event.get()->id); }

    // A non-blocking pipe holding `bytes`; its read end goes to a reader.
    FileDescriptor PipeWith(const std::vector<uint8_t>& bytes, bool close_writer = false) {
        int ends[2];
        EXPECT_EQ(0, ::pipe2(ends, O_NONBLOCK | O_CLOEXEC));
        FileDescriptor writer(ends[1]);
        if (!bytes.empty()) WriteAll(ends[1], bytes);
        if (!close_writer) writers.push_back(std::move(writer));
        return FileDescriptor(ends[0]);
    }

    std::string root;
    std::unique_ptr<Ftrace> ftrace;
    FtraceEvent switch_event;
    FtraceEvent exec_event;
    std::vector<FileDescriptor> writers;
};

TEST_F(FtracePerCPUReaderTest, DeliversEveryKnownRecordOfAPageAsKbufferReportsIt) {
    const std::string filename = "/usr/libexec/" + std::string(140, 'x') + "/true";
    const std::string comm = std::string("bash") + std::string(12, '\0');

    RingBufferPage page(5000000);
    page.set_missed_events(3);
    std::vector<RingBufferPage::Placed> placed;
    const std::vector<uint8_t> switch_payload =
        Payload(64, id(switch_event), 1234).text(8, "swapper/1").text(40, "bash").put<int32_t>(56, 4321).bytes;
    placed.push_back(page.add_event(10, switch_payload));
    page.add_event(5, Payload(8, kUnknownId, 1).bytes);  // not in the catalogue
    page.add_time_extend(3ULL << 27);
    const uint32_t location = (static_cast<uint32_t>(filename.size() + 1) << 16) | 20;
    Payload exec(20 + filename.size() + 1, id(exec_event), 777);
    exec.put(8, location).put<int32_t>(12, 777).put<int32_t>(16, 777).text(20, filename);
    placed.push_back(page.add_event(7, exec.bytes));  // long enough for the 8-byte header
    const std::vector<std::vector<uint8_t>> payloads = {switch_payload, exec.bytes};

    struct Case {
        const char* name;
        size_t written;  // bytes the pipe holds: a whole page, or a short read
    };
    const size_t page_size = static_cast<size_t>(getpagesize());
    for (const Case& c : {Case{"whole page", page_size}, Case{"short read", page.used()}}) {
        SCOPED_TRACE(c.name);
        FtracePerCPUReader reader(*ftrace, PipeWith(page.bytes(c.written)), 3);
        std::vector<Seen> seen;
        EXPECT_EQ(2, reader.read_once(*ftrace, Collect, &seen));
        ASSERT_EQ(2u, seen.size());

        EXPECT_EQ("sched:sched_switch", seen[0].name);
        EXPECT_EQ(1234u, seen[0].pid);
        EXPECT_EQ(comm, seen[0].text);
        EXPECT_EQ(4321u, seen[0].number);
        EXPECT_EQ("sched:sched_process_exec", seen[1].name);
        EXPECT_EQ(777u, seen[1].pid);
        EXPECT_EQ(filename + '\0', seen[1].text);
        EXPECT_EQ(777u, seen[1].number);

        for (size_t i = 0; i < seen.size(); ++i) {
            SCOPED_TRACE(seen[i].name);
            EXPECT_EQ(placed[i].timestamp, seen[i].timestamp);
            EXPECT_EQ(placed[i].timestamp, seen[i].raw.ts);
            EXPECT_EQ(3, seen[i].cpu);
            EXPECT_EQ(3, seen[i].raw.cpu);
            EXPECT_EQ(placed[i].header_offset, seen[i].raw.offset);
            EXPECT_EQ(i == 0 ? 3 : 0, seen[i].raw.missed_events);  // only the first record carries the loss
            EXPECT_EQ(static_cast<int>(placed[i].header_size + placed[i].data_size), seen[i].raw.record_size);
            EXPECT_EQ(static_cast<int>(placed[i].data_size), seen[i].raw.size);
            std::vector<uint8_t> expected = payloads[i];
            expected.resize(placed[i].data_size, 0);
            EXPECT_EQ(expected, seen[i].data);
            EXPECT_EQ(0, seen[i].raw.ref_count);
            EXPECT_EQ(0, seen[i].raw.locked);
            EXPECT_EQ(nullptr, seen[i].raw.priv);
        }
        EXPECT_EQ(1, reader.read_once(*ftrace, Collect, &seen)) << "the pipe is drained";
    }
}

TEST_F(FtracePerCPUReaderTest, ResultTellsPageNothingToReadAndError) {
    const size_t page_size = static_cast<size_t>(getpagesize());
    const std::vector<uint8_t> header_only = RingBufferPage(42).bytes(page_size);
    struct Case {
        const char* name;
        std::function<FileDescriptor()> open;
        int expected;
    };
    const std::vector<Case> cases = {
        {"page without records", [&] { return PipeWith(header_only); }, 2},
        {"empty pipe, writer open (EAGAIN)", [&] { return PipeWith({}); }, 1},
        {"empty pipe, writer closed (read gives 0)", [&] { return PipeWith({}, true); }, 1},
        {"no descriptor (EBADF)", [] { return FileDescriptor(); }, 0},
        {"directory (EISDIR)", [&] { return FileDescriptor(::open(root.c_str(), O_RDONLY | O_DIRECTORY)); }, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        FileDescriptor fd = c.open();
        FtracePerCPUReader reader(*ftrace, FileDescriptor(), 0);
        std::vector<Seen> seen;
        // The descriptor-taking form, as the task uses it after moving the descriptor out.
        EXPECT_EQ(c.expected, reader.read_once(*ftrace, fd.get(), Collect, &seen));
        EXPECT_TRUE(seen.empty());
    }
}

TEST_F(FtracePerCPUReaderTest, ConstructorsTakeOrOpenTheDescriptor) {
    FileDescriptor source = PipeWith({});
    const int number = source.get();
    FtracePerCPUReader taken(*ftrace, std::move(source), 1);
    EXPECT_EQ(-1, source.get());
    EXPECT_EQ(number, taken.fd().get());
    EXPECT_TRUE(taken.valid());
    EXPECT_EQ(1, taken.cpu());

    const std::string path = root + "/raw";
    std::ofstream(path) << "x";
    FtracePerCPUReader opened(*ftrace, path, 2);
    ASSERT_TRUE(opened.valid());
    EXPECT_EQ(path, filename(opened.fd()));
    const int flags = ::fcntl(opened.fd().get(), F_GETFL);
    EXPECT_EQ(O_RDONLY, flags & O_ACCMODE);
    EXPECT_TRUE(flags & O_NONBLOCK);
    EXPECT_TRUE(::fcntl(opened.fd().get(), F_GETFD) & FD_CLOEXEC);

    FtracePerCPUReader missing(*ftrace, root + "/absent", 4);
    EXPECT_FALSE(missing.valid());
    EXPECT_EQ(0, missing.read_once(*ftrace, Collect, nullptr));
}

TEST_F(FtracePerCPUReaderTest, TrampolineUnpacksContextCallbackReaderFtrace) {
    RingBufferPage page(1);
    page.add_event(1, Payload(64, id(switch_event), 55).bytes);
    FtracePerCPUReader reader(*ftrace, PipeWith(page.bytes(static_cast<size_t>(getpagesize()))), 6);
    std::vector<Seen> seen;
    void* words[4] = {&seen, reinterpret_cast<void*>(&Collect), &reader, ftrace.get()};
    EXPECT_EQ(2, FtracePerCPUReader_read_once(words));
    ASSERT_EQ(1u, seen.size());
    EXPECT_EQ(55u, seen[0].pid);
    EXPECT_EQ(6, seen[0].cpu);
    EXPECT_EQ(1, FtracePerCPUReader_read_once(words));
}

TEST_F(FtracePerCPUReaderTest, CreateReadersFollowsTheCPUListInOrder) {
    const std::string per_cpu = ftrace->tracing_dir() + "/per_cpu";
    ASSERT_EQ(0u, per_cpu.rfind(root, 0)) << per_cpu;
    for (int cpu : {0, 5}) {
        fs::create_directories(per_cpu + "/cpu" + std::to_string(cpu));
        std::ofstream(per_cpu + "/cpu" + std::to_string(cpu) + "/trace_pipe_raw");
    }
    const std::vector<int> cpus = {5, 0, 9};  // cpu9 has no file: still a reader, an invalid one
    std::vector<FtracePerCPUReader*> readers;
    FtracePerCPUReader::create_readers(*ftrace, cpus.begin(), cpus.end(), std::back_inserter(readers));
    std::vector<std::unique_ptr<FtracePerCPUReader>> owned(readers.begin(), readers.end());

    ASSERT_EQ(3u, owned.size());
    EXPECT_EQ(per_cpu + "/cpu5/trace_pipe_raw", filename(owned[0]->fd()));
    EXPECT_EQ(per_cpu + "/cpu0/trace_pipe_raw", filename(owned[1]->fd()));
    EXPECT_FALSE(owned[2]->valid());
    for (size_t i = 0; i < cpus.size(); ++i) EXPECT_EQ(cpus[i], owned[i]->cpu());

    readers.clear();
    const std::vector<int> none;
    FtracePerCPUReader::create_readers(*ftrace, none.begin(), none.end(), std::back_inserter(readers));
    EXPECT_TRUE(readers.empty());
}

// Burns thread CPU time so that the budget has something to take back.
void BurnAndCount(FtraceRecord&, void* context) {
    timespec start{}, now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &start);
    do clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    while ((now.tv_sec - start.tv_sec) * 1000000000L + (now.tv_nsec - start.tv_nsec) < 2000000L);
    ++*static_cast<int*>(context);
}

TEST_F(FtracePerCPUReaderTest, ThrottleAdjustsTheThreadWhileReadingRecords) {
    RingBufferPage page(1);
    for (int i = 0; i < 6; ++i) page.add_event(1, Payload(64, id(switch_event), 1).bytes);
    const std::vector<uint8_t> bytes = page.bytes(static_cast<size_t>(getpagesize()));

    const uint64_t saved_run_tick = SDK::InnerCpuCtrlUtils::GetSuggestedRunTick();
    struct Case {
        const char* name;
        bool enabled;
    };
    for (const Case& c : {Case{"budget off", false}, Case{"budget of 10%, run tick 0", true}}) {
        SCOPED_TRACE(c.name);
        if (c.enabled) SDK::InnerCpuCtrlUtils::Enable(10);
        SDK::InnerCpuCtrlUtils::SetSuggestedRunTick(0);
        FtracePerCPUReader reader(*ftrace, PipeWith(bytes), 0);
        const uint64_t before = SDK::InnerCpuCtrlUtils::GetTotalThrottledMicros();
        int delivered = 0;
        int result = -1;
        // A fresh thread starts a fresh accounting window in the budget.
        std::thread([&] { result = reader.read_once(*ftrace, BurnAndCount, &delivered); }).join();
        SDK::InnerCpuCtrlUtils::Disable();
        SDK::InnerCpuCtrlUtils::SetSuggestedRunTick(saved_run_tick);
        EXPECT_EQ(2, result);
        EXPECT_EQ(6, delivered);
        const uint64_t throttled = SDK::InnerCpuCtrlUtils::GetTotalThrottledMicros() - before;
        if (c.enabled)
            EXPECT_GT(throttled, 0u);
        else
            EXPECT_EQ(0u, throttled);
    }
}

}  // namespace
