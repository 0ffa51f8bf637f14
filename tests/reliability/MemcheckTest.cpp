// A short agent run under valgrind's memcheck: the module loaded with dlopen,
// a process-life subscription, records decoded and printed, a SIGTERM stop.
// No invalid access and no definite leak; tests/valgrind.supp names the one
// deliberate exception.

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
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
constexpr int kMemcheckError = 99;

}  // namespace

TEST(AgentMemcheckTest, NoInvalidAccessAndNoDefiniteLeak) {
    if (geteuid() != 0 || access(TracefsProbe::kTracing.c_str(), W_OK) != 0) GTEST_SKIP() << "needs root and tracefs";
    ASSERT_FALSE(TracefsProbe::InstanceExists(kInstance)) << "instance ZEV is in use by someone else";

    PrintedEvents printed;
    AgentProcess agent({FTRACE_VALGRIND, "--tool=memcheck", "--leak-check=full", "--errors-for-leak-kinds=definite",
                        "--show-leak-kinds=definite", "--error-exitcode=" + std::to_string(kMemcheckError),
                        "--suppressions=" FTRACE_VALGRIND_SUPPRESSIONS, "--num-callers=40",
                        AgentProcess::AgentPath(), "--module-dir=" + AgentProcess::ModuleDir(), "--format=json",
                        "--log-level=warning"},
                       [&](const char* line, size_t length) { printed.Line(line, length); });
    ASSERT_TRUE(TracefsProbe::WaitForEnable(kInstance, "sched", "sched_process_exec", "1", 120)) << agent.Stderr();

    // A few records through the whole path: reader, decoding, delivery, printing.
    bool traced = false;
    for (const auto deadline = Clock::now() + std::chrono::seconds(60); !traced && Clock::now() < deadline;) {
        const pid_t child = ProcessLoad::RunTrue();
        for (int i = 0; i < 30 && !traced; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            traced = printed.Printed(child, true) && printed.Printed(child, false);
        }
    }
    EXPECT_TRUE(traced) << "no exec and exit of a child printed under valgrind\n" << agent.Stderr();

    agent.Signal(SIGTERM);
    const int status = agent.Wait(std::chrono::seconds(120));
    const std::string report = agent.Stderr();
    EXPECT_NE(status, kMemcheckError) << report;
    EXPECT_EQ(status, 0) << report;
    EXPECT_NE(report.find("ERROR SUMMARY: 0 errors"), std::string::npos) << report;
    EXPECT_FALSE(TracefsProbe::InstanceExists(kInstance));
}
