// A short agent run under valgrind's memcheck: the module loaded with dlopen,
// a process-life subscription, records decoded and printed, a SIGTERM stop.
// No invalid access and no definite leak; tests/valgrind.supp names the one
// deliberate exception.

#include "TracefsTest.h"

namespace {

using AgentMemcheckTest = TracefsTest;

TEST_F(AgentMemcheckTest, NoInvalidAccessAndNoDefiniteLeak) {
    PrintedEvents printed;
    AgentProcess agent({"--format=json", "--log-level=warning"},
                       [&](const char* line, size_t length) { printed.Line(line, length); },
                       {FTRACE_VALGRIND, "--tool=memcheck", "--leak-check=full", "--errors-for-leak-kinds=definite",
                        "--show-leak-kinds=definite", "--error-exitcode=99", "--num-callers=40",
                        "--suppressions=" FTRACE_VALGRIND_SUPPRESSIONS});
    if (!WaitUntilTracing(agent, "sched_process_exec", 120)) return;
    // Records through the whole path: reader, decoding, delivery, printing.
    EXPECT_TRUE(TraceAChild(printed, 60)) << "no exec and exit of a child printed under valgrind\n" << agent.Stderr();
    agent.Signal(SIGTERM);
    // Any error, a definite leak among them, makes valgrind exit with 99.
    EXPECT_EQ(agent.Wait(std::chrono::seconds(120)), 0) << agent.Stderr();
}

}  // namespace
