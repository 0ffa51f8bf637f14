// Faults around the agent process: killed with SIGKILL and started again, and
// stopped by the end of --duration right after a burst of execs, or by
// SIGTERM in the middle of a scheduler storm.

#include <memory>
#include <regex>

#include "SchedulerStorm.h"
#include "TracefsTest.h"

namespace {

using AgentFaultTest = TracefsTest;

const std::string kEventsOption = "--events=sched:sched_switch,sched:sched_process_exec,sched:sched_process_exit";

// Events the summary reports as not printed: lost or left unread in the
// kernel, or dropped by the agent.
uint64_t Counted(const std::string& summary) {
    static const std::regex count(R"((overrun|dropped events|\(instance ZEV\):|\(queue full\):) (\d+))");
    uint64_t counted = 0;
    for (std::sregex_iterator it(summary.begin(), summary.end(), count), end; it != end; ++it)
        counted += std::stoull((*it)[2]);
    return counted;
}

// SIGKILL leaves the instance behind with its events on, still recording and
// losing. The next start removes it and traces in a fresh one: nothing
// recorded before it started is printed, the loss it reports is its own, and
// its clean stop removes the instance.
TEST_F(AgentFaultTest, KilledAgentsInstanceIsReplacedAtTheNextStart) {
    AgentProcess killed({kEventsOption});
    if (!WaitUntilTracing(killed, "sched_process_exit")) return;
    killed.Signal(SIGKILL);
    ASSERT_EQ(killed.Wait(std::chrono::seconds(30)), 128 + SIGKILL);
    ASSERT_TRUE(std::ofstream(kZev + "/buffer_size_kb") << "4" << std::flush);  // overflows at once
    std::vector<pid_t> before(5);
    ASSERT_TRUE(WaitFor([&] {
        for (pid_t& pid : before) pid = SpawnTrue();
        return ZevLost() >= 1000;
    }, 30));
    const uint64_t dead_runs_loss = ZevLost();
    PrintedEvents printed;
    AgentProcess agent({kEventsOption, "--format=json"},
                       [&](const char* line, size_t length) { printed.Line(line, length); });
    EXPECT_TRUE(TraceAChild(printed, 60)) << "no exec and exit of a child printed\n" << agent.Stderr();
    agent.Signal(SIGTERM);
    ASSERT_EQ(agent.Wait(std::chrono::seconds(30)), 0) << agent.Stderr();
    EXPECT_NE(agent.Stderr().find("removed instance ZEV, left behind"), std::string::npos) << agent.Stderr();
    for (const pid_t pid : before) EXPECT_FALSE(printed.Printed(pid, true) || printed.Printed(pid, false)) << pid;
    EXPECT_LT(Counted(agent.Stderr()), dead_runs_loss) << agent.Stderr();
}

// Every exec of a burst just before the stop is printed or counted in the
// summary (repeated: the race is narrow). The stop comes after at most one
// 1000 ms wait and one drain of every CPU, also while the scheduler floods
// the buffers and under the tightest CPU budget. Every event goes off with
// the instance.
TEST_F(AgentFaultTest, StopsPromptlyAndPrintsOrCountsEverythingBeforeIt) {
    const struct {
        std::vector<std::string> options;
        bool storm;
        int rounds;
    } cases[] = {
        {{"--format=json", "--events=sched:sched_process_exec", "--duration=0.8"}, false, 8},
        {{"--format=json", kEventsOption}, true, 1},
        {{"--format=json", kEventsOption, "--cpu-limit=1"}, true, 1},
    };
    for (const auto& c : cases) {
        for (int round = 0; round < c.rounds; ++round) {
            SCOPED_TRACE(c.options.back() + ", round " + std::to_string(round));
            PrintedEvents printed;
            AgentProcess agent(c.options, [&](const char* line, size_t length) { printed.Line(line, length); });
            if (!WaitUntilTracing(agent, "sched_process_exec")) return;
            std::unique_ptr<SchedulerStorm> storm;
            if (c.storm) {
                storm = std::make_unique<SchedulerStorm>(1000000000, 0, false);  // more than the agent can read
                std::this_thread::sleep_for(std::chrono::seconds(3));
            }
            std::vector<pid_t> execs(20);
            for (pid_t& pid : execs) pid = SpawnTrue();
            ASSERT_TRUE(agent.Running()) << "stopped before the execs were spawned\n" << agent.Stderr();
            const auto stopping = std::chrono::steady_clock::now();
            if (c.storm) agent.Signal(SIGTERM);
            const int status = agent.Wait(std::chrono::seconds(60));
            const std::chrono::duration<double> stop = std::chrono::steady_clock::now() - stopping;
            EXPECT_TRUE(!storm || storm->Stop()) << "perf bench sched pipe failed (perf: package linux-perf)";
            ASSERT_EQ(status, 0) << agent.Stderr();
            EXPECT_TRUE(!c.storm || stop.count() < 5.0) << "stopped " << stop.count() << " s after SIGTERM\n"
                                                         << agent.Stderr();
            const auto missing = std::count_if(execs.begin(), execs.end(), [&](pid_t p) { return !printed.Printed(p, true); });
            EXPECT_LE(static_cast<uint64_t>(missing), Counted(agent.Stderr())) << agent.Stderr();
            EXPECT_FALSE(ZevExists());
        }
    }
}

}  // namespace
