// Against the running kernel's tracefs, in instances of our own: the instance
// lifecycle, single events switched on and off, and the PID filter as the
// kernel reports it. The top-level tracing directory is never written.

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <set>

#include "CatalogueTestSupport.h"
#include "TraceFS.h"
#include "ftrace.h"

using namespace catalogue_test;

namespace {

const std::string kInstances = "/sys/kernel/tracing/instances";

// This process's instances only: other suites may hold their own meanwhile.
std::set<std::string> Instances() {
    const std::string prefix = "ftrace_test_" + std::to_string(getpid());
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(kInstances))
        if (entry.path().filename().string().rfind(prefix, 0) == 0) names.insert(entry.path().filename());
    return names;
}

std::set<std::string> Lines(const std::string& text) {
    std::set<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.insert(line);
    return lines;
}

class FtraceKernelTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!fs::is_directory(kInstances) || geteuid() != 0) GTEST_SKIP() << "needs tracefs and root";
        active = true;
        before = Instances();
        name = "ftrace_test_" + std::to_string(getpid()) + "_" +
               testing::UnitTest::GetInstance()->current_test_info()->name();
        dir = kInstances + "/" + name;
        ASSERT_FALSE(fs::exists(dir));
    }
    void TearDown() override {
        if (!active) return;
        if (fs::exists(dir)) rmdir(dir.c_str());
        EXPECT_EQ(Instances(), before);
    }
    bool active = false;
    std::set<std::string> before;
    std::string name, dir;
};

}  // namespace

TEST_F(FtraceKernelTest, InstanceIsCreatedAdoptedAndRemovedByItsCreatorOnly) {
    auto first = std::make_unique<TraceFS>(name);
    ASSERT_TRUE(first->IsValid() && first->IsCreated());
    EXPECT_EQ(first->dir(), dir);
    EXPECT_TRUE(fs::exists(first->file("set_event_pid")));
    auto second = std::make_unique<TraceFS>(name);
    EXPECT_TRUE(second->IsValid() && !second->IsCreated());
    second.reset();
    EXPECT_TRUE(fs::is_directory(dir));
    first.reset();
    EXPECT_FALSE(fs::exists(dir));
}

TEST_F(FtraceKernelTest, AddAndRemoveSwitchOneEventInTheInstance) {
    Ftrace ftrace(name);
    ASSERT_TRUE(ftrace.tracefs().IsCreated());
    for (const auto& [system, event] : {std::pair<std::string, std::string>{"sched", "sched_process_exec"},
                                        {"syscalls", "sys_enter_openat"},
                                        {"irq", "irq_handler_entry"}}) {
        SCOPED_TRACE(system + ":" + event);
        const std::string enable = dir + "/events/" + system + "/" + event + "/enable";
        const FtraceEvent loaded = ftrace.get_event(system, event);
        if (!loaded && !fs::exists(enable)) continue;  // not built into this kernel
        ASSERT_TRUE(loaded);
        ftrace.add(loaded);
        ftrace.add(loaded);  // a second line is a no-op for the kernel
        EXPECT_EQ(ReadAll(enable), "1\n");
        EXPECT_EQ(Lines(ReadAll(dir + "/set_event")).count(system + ":" + event), 1u);
        ftrace.remove(loaded);
        EXPECT_EQ(ReadAll(enable), "0\n");
        EXPECT_EQ(Lines(ReadAll(dir + "/set_event")).count(system + ":" + event), 0u);
        ftrace.remove(loaded);  // never-enabled events take the "0" as well
        EXPECT_EQ(ReadAll(enable), "0\n");
    }

    // An event the kernel does not know: it refuses the set_event line.
    const std::string text = ReadAll(std::string(FTRACE_FIXTURES_ROOT) + "/events/sched/sched_switch/format");
    tep_event* unknown = nullptr;
    ASSERT_EQ(tep_parse_format(ftrace.handle(), &unknown, text.c_str(), text.size(), "no_such_system"), 0);
    auto capture = LogCapture::On(Poco::Logger::get("ftrace"));
    ftrace.add(FtraceEvent(unknown));
    ftrace.remove(FtraceEvent(unknown));
    capture->Release();
    ASSERT_EQ(capture->lines.size(), 2u);
    EXPECT_EQ(capture->lines[0].getText(), "Ftrace::append write file {" + dir + "/set_event} err");
    EXPECT_EQ(capture->lines[1].getText(),
              "Ftrace::remove open file {" + dir + "/events/no_such_system/sched_switch/enable} err");
}

TEST_F(FtraceKernelTest, PidFilterAsTheKernelReportsIt) {
    Ftrace ftrace(name);
    const std::string pid_file = dir + "/set_event_pid", self = std::to_string(getpid());
    auto capture = LogCapture::On(Poco::Logger::get("ftrace"));
    ftrace.event_filter_add_pid(1);
    ftrace.event_filter_add_pid(getpid());
    EXPECT_EQ(Lines(ReadAll(pid_file)), (std::set<std::string>{"1", self}));
    ftrace.event_filter_rmv_pid(1);
    EXPECT_EQ(Lines(ReadAll(pid_file)), (std::set<std::string>{self}));
    ftrace.event_filter_rmv_pid(2);  // not listed: rewritten unchanged
    EXPECT_EQ(Lines(ReadAll(pid_file)), (std::set<std::string>{self}));
    ftrace.event_filter_add_pid(1);
    ftrace.event_filter_rmv_pid(getpid());
    EXPECT_EQ(Lines(ReadAll(pid_file)), (std::set<std::string>{"1"}));
    ftrace.event_filter_rmv_pid(1);  // the last one: a write of length 0
    EXPECT_EQ(ReadAll(pid_file), "");
    ftrace.event_filter_add_pid(1);
    ftrace.event_filter_clean_all();
    EXPECT_EQ(ReadAll(pid_file), "");
    capture->Release();
    EXPECT_TRUE(capture->lines.empty());
}

TEST_F(FtraceKernelTest, InstanceRemovedFromOutsideOnlyLogs) {
    Ftrace ftrace(name);
    const FtraceEvent exec = ftrace.get_event("sched", "sched_process_exec");
    ASSERT_TRUE(exec);
    ASSERT_EQ(rmdir(dir.c_str()), 0);
    auto capture = LogCapture::On(Poco::Logger::get("ftrace"));
    ftrace.add(exec);
    ftrace.event_filter_rmv_pid(1);
    ftrace.event_filter_clean_all();
    capture->Release();
    ASSERT_EQ(capture->lines.size(), 2u);
    EXPECT_EQ(capture->lines[0].getText(), "Ftrace::append open file {" + dir + "/set_event} err");
    EXPECT_EQ(capture->lines[1].getText(), "Ftrace::event_filter_rmv_pid open file {" + dir + "/set_event_pid} err");
    EXPECT_FALSE(fs::exists(dir));
}
