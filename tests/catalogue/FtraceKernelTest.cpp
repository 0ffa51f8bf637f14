// Against the running kernel's tracefs, in an instance of our own: created,
// adopted and removed only by its creator, an event switched on and off, and
// the PID filter as the kernel reports it. The top-level tracing directory is
// never written.

#include <Poco/Logger.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <set>

#include "TestSupport.h"
#include "TraceFS.h"
#include "ftrace.h"

using namespace test_support;
using LineSet = std::set<std::string>;

static LineSet ReadLines(const std::string& path) {
    LineSet lines;
    std::istringstream in(ReadAll(path));
    for (std::string line; std::getline(in, line);) lines.insert(line);
    return lines;
}

TEST(FtraceKernelTest, InstanceEventSwitchAndPidFilterRoundTrip) {
    if (!fs::is_directory("/sys/kernel/tracing/instances") || geteuid() != 0) GTEST_SKIP() << "needs root";
    const std::string name = "ftrace_test_" + std::to_string(getpid());
    const std::string dir = "/sys/kernel/tracing/instances/" + name;
    ASSERT_FALSE(fs::exists(dir));
    {
        Ftrace ftrace(name);
        ASSERT_TRUE(ftrace.tracefs().IsCreated());
        EXPECT_EQ(ftrace.tracing_dir(), dir);
        {
            const TraceFS adopted(name);
            EXPECT_TRUE(adopted.IsValid() && !adopted.IsCreated());
        }
        EXPECT_TRUE(fs::is_directory(dir));  // an adopter never removes it

        const FtraceEvent exec = ftrace.get_event("sched", "sched_process_exec");
        ASSERT_TRUE(exec);
        const std::string enable = dir + "/events/sched/sched_process_exec/enable";
        Poco::AutoPtr<CapturingChannel> log(new CapturingChannel);
        Poco::Logger::get("ftrace").setChannel(log);
        ftrace.add(exec);
        ftrace.add(exec);  // a second line is a no-op for the kernel
        EXPECT_EQ(ReadAll(enable), "1\n");
        EXPECT_EQ(ReadLines(dir + "/set_event"), LineSet{"sched:sched_process_exec"});
        ftrace.remove(exec);
        EXPECT_EQ(ReadAll(enable), "0\n");
        EXPECT_EQ(ReadAll(dir + "/set_event"), "");

        const std::string pid_file = dir + "/set_event_pid", self = std::to_string(getpid());
        ftrace.event_filter_add_pid(1);
        ftrace.event_filter_add_pid(getpid());
        EXPECT_EQ(ReadLines(pid_file), (LineSet{"1", self}));
        ftrace.event_filter_rmv_pid(1);
        EXPECT_EQ(ReadLines(pid_file), LineSet{self});
        ftrace.event_filter_rmv_pid(getpid());  // the last one: a write of length 0
        EXPECT_EQ(ReadAll(pid_file), "");
        ftrace.event_filter_add_pid(1);
        ftrace.event_filter_clean_all();
        EXPECT_EQ(ReadAll(pid_file), "");
        EXPECT_TRUE(log->lines().empty());  // the kernel took every write, the empty one included
        ftrace.event_filter_add_pid(1);   // left set: the instance goes all the same
    }
    EXPECT_FALSE(fs::exists(dir));
    rmdir(dir.c_str());
}
