#pragma once
// Fixture for tests that run the agent or the module on the real tracefs,
// where they use the instance ZEV. Skipped without root and tracefs, or while
// an ftrace-agent owns ZEV. Afterwards the instances and the top-level
// set_event must be as they were; a ZEV left behind is reported, then removed.

#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/file.h>

#include "AgentProcess.h"
#include "InstanceLossReader.h"
#include "PrintedEvents.h"
#include "TestSupport.h"

using test_support::WaitFor;

class TracefsTest : public ::testing::Test {
protected:
    static inline const std::string kTracing = "/sys/kernel/tracing";
    static inline const std::string kZev = kTracing + "/instances/ZEV";

    void SetUp() override {
        if (geteuid() != 0 || access(kTracing.c_str(), W_OK) != 0) GTEST_SKIP() << "needs root and tracefs";
        const int lock = open("/run/ftrace-agent.ZEV.lock", O_RDONLY | O_CLOEXEC);
        const bool agent_running = lock >= 0 && flock(lock, LOCK_EX | LOCK_NB) != 0;
        if (lock >= 0) close(lock);
        if (agent_running) GTEST_SKIP() << "an ftrace-agent is running on this host and owns ZEV";
        ASSERT_FALSE(ZevExists()) << "instance ZEV is in use by someone else";
        m_instances = Instances();
        m_set_event = Read(kTracing + "/set_event");
        m_ready = true;
    }
    void TearDown() override {
        if (!m_ready) return;
        EXPECT_EQ(Instances(), m_instances);
        EXPECT_EQ(Read(kTracing + "/set_event"), m_set_event);
        // Events off first, so that nothing keeps tracing should rmdir fail (as it does while a pipe is open).
        if (ZevExists()) std::ofstream(kZev + "/events/enable") << "0";
        rmdir(kZev.c_str());
    }

    static std::string Read(const std::string& path) { return test_support::ReadAll(path); }
    static std::set<std::string> Instances() {
        std::set<std::string> names;
        std::error_code error;
        for (const auto& entry : std::filesystem::directory_iterator(kTracing + "/instances", error))
            names.insert(entry.path().filename());
        return names;
    }
    static bool ZevExists() { return Instances().count("ZEV") != 0; }
    // "1" or "0" of ZEV's events/sched/<event>/enable, "" when unreadable.
    static std::string Enabled(const std::string& sched_event) {
        return Read(kZev + "/events/sched/" + sched_event + "/enable").substr(0, 1);
    }
    // Events the kernel could not keep in ZEV's buffers, as the agent reports them.
    static uint64_t ZevLost() {
        const Agent::KernelLoss loss = Agent::InstanceLossReader::Read(kZev);
        return loss.overrun + loss.dropped_events;
    }
    // Runs /bin/true to its end; its pid, -1 on failure.
    static pid_t SpawnTrue() {
        pid_t pid = -1;
        char* argv[] = {const_cast<char*>("/bin/true"), nullptr};
        int status = -1;
        if (posix_spawn(&pid, argv[0], nullptr, nullptr, argv, environ) != 0 || waitpid(pid, &status, 0) != pid) return -1;
        return status == 0 ? pid : -1;
    }
    // Until `agent` switched sched_event on in ZEV, else the test fails.
    static bool WaitUntilTracing(AgentProcess& agent, const std::string& sched_event, int seconds = 30) {
        if (WaitFor([&] { return Enabled(sched_event) == "1"; }, seconds)) return true;
        agent.Wait(std::chrono::seconds(1));
        ADD_FAILURE() << sched_event << " was not switched on in ZEV:\n" << agent.Stderr();
        return false;
    }
    // Runs /bin/true until `printed` shows one child's exec and exit: an
    // agent whose events are on may not have subscribed yet.
    static bool TraceAChild(const PrintedEvents& printed, int seconds) {
        return WaitFor([&] {
            const pid_t child = SpawnTrue();
            return WaitFor([&] { return printed.Printed(child, true) && printed.Printed(child, false); }, 3);
        }, seconds);
    }

private:
    std::set<std::string> m_instances;
    std::string m_set_event;
    bool m_ready = false;  // ZEV is this test's to clean up
};
