#pragma once
// Fixture for tests that run the agent or the module on the real tracefs,
// where they use the instance ZEV. Skipped without root and tracefs, or while
// an ftrace-agent owns ZEV. Afterwards the instances and the top-level
// set_event must be as they were; a ZEV left behind is reported, then removed.

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <set>
#include <string>

#include "AgentProcess.h"
#include "PrintedEvents.h"

class TracefsTest : public ::testing::Test {
protected:
    static const std::string kTracing;  // /sys/kernel/tracing
    static const std::string kZev;      // its instance ZEV

    void SetUp() override;
    void TearDown() override;

    static std::string Read(const std::string& path);
    static std::set<std::string> Instances();
    static bool ZevExists() { return Instances().count("ZEV") != 0; }
    // Events off first, so that nothing keeps tracing should rmdir fail
    // (as it does while a pipe is open); true when ZEV is gone.
    static bool RemoveZev();
    // "1" or "0" of ZEV's events/sched/<event>/enable, "" when unreadable.
    static std::string Enabled(const std::string& sched_event);
    static bool WaitFor(const std::function<bool()>& done, int seconds);
    // Events the kernel could not keep in ZEV's buffers: "overrun", "commit
    // overrun" and "dropped events" summed over per_cpu/cpuN/stats.
    static uint64_t ZevLost();

    // Runs /bin/true (or a copy of it at `path`) to its end; its pid, -1 on failure.
    static pid_t SpawnTrue(const char* path = "/bin/true");
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
