// The agent stopped by SIGTERM in the middle of a scheduler storm. (Killed and
// started again: tests/agent.)

#include <signal.h>
#include <sys/stat.h>

#include <chrono>
#include <iostream>
#include <string>
#include <thread>

#include "SchedulerStorm.h"
#include "TracefsTest.h"

namespace {

using AgentFaultTest = TracefsTest;

const char* const kEvents[] = {"sched_switch", "sched_process_exec", "sched_process_exit"};
const std::string kEventsOption = "--events=sched:sched_switch,sched:sched_process_exec,sched:sched_process_exit";

// The stop is noticed after at most one 1000 ms wait and one drain of every
// CPU, also while the scheduler floods the buffers. Every event is off
// afterwards; the instance is removed only if this agent made it.
TEST_F(AgentFaultTest, SigtermInSchedulerStormStopsPromptlyAndCleanly) {
    ASSERT_TRUE(SchedulerStorm::HavePerf()) << "perf is needed for the scheduler storm (package linux-perf)";
    for (const bool adopted : {false, true}) {
        SCOPED_TRACE(adopted ? "instance adopted" : "instance made by the agent");
        if (adopted) {
            ASSERT_EQ(mkdir(kZev.c_str(), 0755), 0);
        }
        AgentProcess agent({kEventsOption, "--format=none"});
        if (!WaitUntilTracing(agent, "sched_switch")) return;
        SchedulerStorm storm(1000000000, 0, false);  // more than the agent can read
        std::this_thread::sleep_for(std::chrono::seconds(3));
        ASSERT_TRUE(agent.Running()) << agent.Stderr();
        const auto signalled = std::chrono::steady_clock::now();
        agent.Signal(SIGTERM);
        const int status = agent.Wait(std::chrono::seconds(60));
        const std::chrono::duration<double> stop = std::chrono::steady_clock::now() - signalled;
        EXPECT_TRUE(storm.Stop()) << "perf bench sched pipe failed";
        ASSERT_EQ(status, 0) << agent.Stderr();
        std::cout << "stopped " << stop.count() << " s after SIGTERM\n";
        EXPECT_LT(stop.count(), 5.0) << agent.Stderr();
        EXPECT_NE(agent.Stderr().find("sched:sched_switch: "), std::string::npos) << agent.Stderr();
        EXPECT_EQ(ZevExists(), adopted);
        if (!adopted) continue;
        for (const char* event : kEvents) EXPECT_EQ(Enabled(event), "0") << event;
        EXPECT_EQ(Read(kZev + "/set_event"), "");
        ASSERT_TRUE(RemoveZev());
    }
}

}  // namespace
