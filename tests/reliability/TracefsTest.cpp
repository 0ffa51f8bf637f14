#include "TracefsTest.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

extern char** environ;

const std::string TracefsTest::kTracing = "/sys/kernel/tracing";
const std::string TracefsTest::kZev = kTracing + "/instances/ZEV";

void TracefsTest::SetUp() {
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

void TracefsTest::TearDown() {
    if (!m_ready) return;
    EXPECT_EQ(Instances(), m_instances);
    EXPECT_EQ(Read(kTracing + "/set_event"), m_set_event);
    RemoveZev();
}

std::set<std::string> TracefsTest::Instances() {
    std::set<std::string> names;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(kTracing + "/instances", error))
        names.insert(entry.path().filename());
    return names;
}

bool TracefsTest::RemoveZev() {
    if (!ZevExists()) return true;
    std::ofstream(kZev + "/events/enable") << "0";
    rmdir(kZev.c_str());
    return !ZevExists();
}

std::string TracefsTest::Enabled(const std::string& sched_event) {
    return Read(kZev + "/events/sched/" + sched_event + "/enable").substr(0, 1);
}

uint64_t TracefsTest::ZevLost() {
    uint64_t lost = 0;
    for (int cpu = 0;; ++cpu) {
        std::ifstream stats(kZev + "/per_cpu/cpu" + std::to_string(cpu) + "/stats");
        if (!stats) return lost;
        for (std::string line; std::getline(stats, line);) {
            for (const char* label : {"overrun:", "commit overrun:", "dropped events:"})
                if (line.rfind(label, 0) == 0) lost += std::strtoull(line.c_str() + std::strlen(label), nullptr, 10);
        }
    }
}

pid_t TracefsTest::SpawnTrue() {
    pid_t pid = -1;
    char* argv[] = {const_cast<char*>("/bin/true"), nullptr};
    int status = -1;
    if (posix_spawn(&pid, argv[0], nullptr, nullptr, argv, environ) != 0 || waitpid(pid, &status, 0) != pid) return -1;
    return status == 0 ? pid : -1;
}

bool TracefsTest::WaitUntilTracing(AgentProcess& agent, const std::string& sched_event, int seconds) {
    if (WaitFor([&] { return Enabled(sched_event) == "1"; }, seconds)) return true;
    agent.Wait(std::chrono::seconds(1));
    if (agent.Stderr().find("in use by another ftrace-agent") != std::string::npos) {
        [&] { GTEST_SKIP() << agent.Stderr(); }();
    } else {
        ADD_FAILURE() << sched_event << " was not switched on in ZEV:\n" << agent.Stderr();
    }
    return false;
}

bool TracefsTest::TraceAChild(const PrintedEvents& printed, int seconds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (std::chrono::steady_clock::now() < deadline) {
        const pid_t child = SpawnTrue();
        if (WaitFor([&] { return printed.Printed(child, true) && printed.Printed(child, false); }, 3)) return true;
    }
    return false;
}
