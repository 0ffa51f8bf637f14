// Faults around the agent process: stopped by SIGTERM in the middle of a
// scheduler storm, killed with SIGKILL and started again, and asked for event
// names that would lead the module's unvalidated paths astray.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <iostream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "AgentProcess.h"
#include "PrintedEvents.h"
#include "ProcessLoad.h"
#include "TracefsProbe.h"

namespace {

using Clock = std::chrono::steady_clock;

const std::string kInstance = "ZEV";
const char* const kLifeEvents[] = {"sched_process_exec", "sched_process_fork", "sched_process_exit"};

std::vector<std::string> AgentArguments(const std::string& format, const std::string& events = "") {
    std::vector<std::string> argv = {AgentProcess::AgentPath(), "--module-dir=" + AgentProcess::ModuleDir(),
                                     "--format=" + format, "--log-level=warning"};
    if (!events.empty()) argv.push_back("--events=" + events);
    return argv;
}

class AgentFaultTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0 || access(TracefsProbe::kTracing.c_str(), W_OK) != 0) GTEST_SKIP() << "needs root and tracefs";
        ASSERT_FALSE(TracefsProbe::InstanceExists(kInstance)) << "instance ZEV is in use by someone else";
        m_instances = TracefsProbe::Instances();
        m_top_set_event = TracefsProbe::Read(TracefsProbe::kTracing + "/set_event");
    }
    void TearDown() override {
        if (IsSkipped()) return;
        // Whatever a test left (on purpose or by failing) goes, and nothing else changed.
        EXPECT_TRUE(TracefsProbe::RemoveInstance(kInstance));
        EXPECT_EQ(TracefsProbe::Instances(), m_instances);
        EXPECT_EQ(TracefsProbe::Read(TracefsProbe::kTracing + "/set_event"), m_top_set_event);
    }

    std::set<std::string> m_instances;
    std::string m_top_set_event;
};

struct StormStopCase {
    const char* name;
    bool instance_exists;  // made before the agent starts, so the agent adopts it
};
void PrintTo(const StormStopCase& param, std::ostream* os) { *os << param.name; }

class SigtermInStormTest : public AgentFaultTest, public ::testing::WithParamInterface<StormStopCase> {};

// The stop is noticed after at most one 1000 ms wait and one drain of every
// CPU, also while the scheduler floods the buffers. Every event is off
// afterwards; the instance is removed only if this agent made it.
TEST_P(SigtermInStormTest, StopsCleanlyAndPromptly) {
    if (IsSkipped()) return;
    ASSERT_TRUE(ProcessLoad::HavePerf()) << "perf is needed for the scheduler storm (package linux-perf)";
    if (GetParam().instance_exists) {
        ASSERT_EQ(mkdir(TracefsProbe::InstanceDir(kInstance).c_str(), 0755), 0);
    }

    AgentProcess agent(AgentArguments("none", "sched:sched_switch,sched:sched_process_exec,sched:sched_process_exit"),
                       nullptr);
    ASSERT_TRUE(TracefsProbe::WaitForEnable(kInstance, "sched", "sched_switch", "1", 60)) << agent.Stderr();
    ProcessLoad load;
    ProcessLoad::Storm storm;
    storm.loops = 1000000000;  // runs until stopped
    storm.idle = false;        // competes with the agent: more than it can read
    load.Start(200, storm);
    std::this_thread::sleep_for(std::chrono::seconds(3));
    ASSERT_TRUE(agent.Running()) << agent.Stderr();

    const auto signalled = Clock::now();
    agent.Signal(SIGTERM);
    const int status = agent.Wait(std::chrono::seconds(60));
    const double stop_seconds = std::chrono::duration<double>(Clock::now() - signalled).count();
    load.Stop();
    EXPECT_TRUE(load.Errors().empty()) << load.Errors().front();
    ASSERT_EQ(status, 0) << agent.Stderr();
    std::cout << "stopped " << stop_seconds << " s after SIGTERM\n";
    EXPECT_LT(stop_seconds, 5.0) << agent.Stderr();
    EXPECT_NE(agent.Stderr().find("sched:sched_switch: "), std::string::npos) << agent.Stderr();

    EXPECT_EQ(TracefsProbe::InstanceExists(kInstance), GetParam().instance_exists);
    if (GetParam().instance_exists) {
        for (const char* event : {"sched_switch", "sched_process_exec", "sched_process_exit"})
            EXPECT_EQ(TracefsProbe::EnableState(kInstance, "sched", event), "0") << event;
        EXPECT_EQ(TracefsProbe::Read(TracefsProbe::InstanceDir(kInstance) + "/set_event"), "");
    }
}

INSTANTIATE_TEST_SUITE_P(Faults, SigtermInStormTest,
                         ::testing::Values(StormStopCase{"InstanceMadeByTheAgent", false},
                                           StormStopCase{"InstanceAdopted", true}),
                         [](const ::testing::TestParamInfo<StormStopCase>& info) { return info.param.name; });

// SIGKILL leaves the instance behind with its events on. The next start
// adopts it and traces; its clean stop switches the events off but leaves
// the instance, which it did not make (TearDown removes it, as an operator would).
TEST_F(AgentFaultTest, KilledAgentLeavesInstanceThatTheNextStartAdopts) {
    if (IsSkipped()) return;
    {
        AgentProcess first(AgentArguments("json"), nullptr);
        for (const char* event : kLifeEvents)
            ASSERT_TRUE(TracefsProbe::WaitForEnable(kInstance, "sched", event, "1", 60)) << first.Stderr();
        first.Signal(SIGKILL);
        ASSERT_EQ(first.Wait(std::chrono::seconds(30)), 128 + SIGKILL);
    }
    ASSERT_TRUE(TracefsProbe::InstanceExists(kInstance));
    for (const char* event : kLifeEvents) EXPECT_EQ(TracefsProbe::EnableState(kInstance, "sched", event), "1") << event;

    PrintedEvents printed;
    AgentProcess second(AgentArguments("json"), [&](const char* line, size_t length) { printed.Line(line, length); });
    // The events are on already, so a child may come before the new agent
    // subscribed: try until one is printed.
    bool traced = false;
    for (const auto deadline = Clock::now() + std::chrono::seconds(60); !traced && Clock::now() < deadline;) {
        const pid_t child = ProcessLoad::RunTrue();
        for (int i = 0; i < 20 && !traced; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            traced = printed.Printed(child, true) && printed.Printed(child, false);
        }
    }
    EXPECT_TRUE(traced) << "the restarted agent printed no exec and exit of a new child\n" << second.Stderr();
    second.Signal(SIGTERM);
    ASSERT_EQ(second.Wait(std::chrono::seconds(30)), 0) << second.Stderr();
    EXPECT_NE(second.Stderr().find("instance ZEV exists already"), std::string::npos) << second.Stderr();

    EXPECT_TRUE(TracefsProbe::InstanceExists(kInstance)) << "an adopted instance must be left in place";
    for (const char* event : kLifeEvents) EXPECT_EQ(TracefsProbe::EnableState(kInstance, "sched", event), "0") << event;
}

// Names with "/" or ".." would reach other files through the module, which
// does not check them; the agent refuses anything the kernel does not list in
// available_events before it loads the module, so ZEV is never touched.
TEST_F(AgentFaultTest, EventNamesOutsideAvailableEventsAreRefusedBeforeTracing) {
    if (IsSkipped()) return;
    const char* const names[] = {
        "sched/../sched:sched_switch", "sched:../sched/sched_switch", "sched:sched_switch/../sched_wakeup",
        "..:..", "sched:*", "sched:sched_switch\n", "sched: sched_switch", "sched:nonexistent",
    };
    for (const char* name : names) {
        SCOPED_TRACE(name);
        AgentProcess agent(AgentArguments("json", name), nullptr);
        EXPECT_EQ(agent.Wait(std::chrono::seconds(30)), 2);
        EXPECT_NE(agent.Stderr().find("unknown event"), std::string::npos) << agent.Stderr();
        EXPECT_FALSE(TracefsProbe::InstanceExists(kInstance));
    }
}

}  // namespace
