#pragma once
// Fixture for tests that run the agent or the module on the real tracefs,
// where they use the instance ZEV. Skipped without root and tracefs, or while
// an ftrace-agent owns ZEV. Afterwards the instances and the top-level
// set_event must be as they were; a ZEV left behind is reported, then removed.

#include <gtest/gtest.h>

#include <cstdint>
#include <set>
#include <string>

#include "AgentProcess.h"
#include "PrintedEvents.h"
#include "TestSupport.h"

using test_support::WaitFor;

class TracefsTest : public ::testing::Test {
protected:
    static const std::string kTracing;  // /sys/kernel/tracing
    static const std::string kZev;      // its instance ZEV

    void SetUp() override;
    void TearDown() override;

    static std::string Read(const std::string& path) { return test_support::ReadAll(path); }
    static std::set<std::string> Instances();
    static bool ZevExists() { return Instances().count("ZEV") != 0; }
    // Events off first, so that nothing keeps tracing should rmdir fail
    // (as it does while a pipe is open); true when ZEV is gone.
    static bool RemoveZev();
    // "1" or "0" of ZEV's events/sched/<event>/enable, "" when unreadable.
    static std::string Enabled(const std::string& sched_event);
    // Events the kernel could not keep in ZEV's buffers: "overrun", "commit
    // overrun" and "dropped events" summed over per_cpu/cpuN/stats.
    static uint64_t ZevLost();

    // Runs /bin/true to its end; its pid, -1 on failure.
    static pid_t SpawnTrue();
    // Until `agent` switched sched_event on in ZEV. Otherwise the test is
    // skipped when another agent took ZEV first, else failed.
    bool WaitUntilTracing(AgentProcess& agent, const std::string& sched_event, int seconds = 30);
    // Runs /bin/true until `printed` shows one child's exec and exit: an
    // agent whose events are on may not have subscribed yet.
    static bool TraceAChild(const PrintedEvents& printed, int seconds);

private:
    std::set<std::string> m_instances;
    std::string m_set_event;
    bool m_ready = false;  // ZEV is this test's to clean up
};
