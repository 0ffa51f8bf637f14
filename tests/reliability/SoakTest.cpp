// The agent under load for a while: process life and sched_switch are traced
// while thousands of short processes are spawned and perf's pipe benchmark
// storms the scheduler. Memory must not creep, every child's exec and exit
// must be printed unless a loss was reported (by the kernel for the instance,
// or by the agent for its own queue), and the sanitizers (in the instrumented
// builds) must stay quiet.
//
// FTRACE_SOAK_SECONDS sets how long the load runs (scripts/soak.sh runs it
// for ten minutes); FTRACE_SOAK_SPAWN_RATE, FTRACE_SOAK_STORM_LOOPS and
// FTRACE_SOAK_STORM_PAUSE_MS shape the load.

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iostream>
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
const char* const kEvents[] = {"sched_process_exec", "sched_process_fork", "sched_process_exit", "sched_switch"};

double Setting(const char* name, double fallback) {
    const char* text = std::getenv(name);
    if (text == nullptr || *text == '\0') return fallback;
    char* end = nullptr;
    const double value = std::strtod(text, &end);
    return end != nullptr && *end == '\0' && value > 0 ? value : fallback;
}

long ResidentKb(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmRSS:", 0) == 0) return std::strtol(line.c_str() + 6, nullptr, 10);
    }
    return 0;
}

// The count after "label" in the agent's summary, 0 when the line is absent.
uint64_t SummaryCount(const std::string& summary, const std::string& label) {
    const size_t at = summary.find(label);
    return at == std::string::npos ? 0 : std::strtoull(summary.c_str() + at + label.size(), nullptr, 10);
}

}  // namespace

TEST(AgentSoakTest, UnderLoadNothingIsLostUnreportedAndMemoryStaysFlat) {
    if (geteuid() != 0 || access(TracefsProbe::kTracing.c_str(), W_OK) != 0) GTEST_SKIP() << "needs root and tracefs";
    ASSERT_FALSE(TracefsProbe::InstanceExists(kInstance)) << "instance ZEV is in use by someone else";
    ASSERT_TRUE(ProcessLoad::HavePerf()) << "perf is needed for the scheduler storm (package linux-perf)";
    const double seconds = Setting("FTRACE_SOAK_SECONDS", FTRACE_SOAK_DEFAULT_SECONDS);
    const double spawn_rate = Setting("FTRACE_SOAK_SPAWN_RATE", 100);
    ProcessLoad::Storm storm;
    storm.loops = static_cast<long>(Setting("FTRACE_SOAK_STORM_LOOPS", 10000));
    storm.pause_ms = static_cast<int>(Setting("FTRACE_SOAK_STORM_PAUSE_MS", 300));
    // A storm the agent can keep up with, so that completeness can be checked.
    storm.idle = true;
    const std::string top_set_event = TracefsProbe::Read(TracefsProbe::kTracing + "/set_event");

    // Resident memory is read with the agent on jemalloc told to hand freed
    // pages back at once. glibc keeps the pages of the largest backlog of
    // messages seen so far, which says nothing about leaks.
    const std::string jemalloc = FTRACE_SOAK_JEMALLOC;
    const bool measure_memory = !FTRACE_SOAK_SANITIZED && !jemalloc.empty();
    std::vector<std::string> environment;
    if (measure_memory) environment = {"LD_PRELOAD=" + jemalloc, "MALLOC_CONF=dirty_decay_ms:0,muzzy_decay_ms:0"};

    PrintedEvents printed;
    std::string events;
    for (const char* event : kEvents) events += std::string(events.empty() ? "" : ",") + "sched:" + event;
    AgentProcess agent({AgentProcess::AgentPath(), "--module-dir=" + AgentProcess::ModuleDir(), "--events=" + events,
                        "--format=json", "--log-level=warning"},
                       [&](const char* line, size_t length) { printed.Line(line, length); }, environment);
    ASSERT_GT(agent.Pid(), 0);
    for (const char* event : kEvents)
        ASSERT_TRUE(TracefsProbe::WaitForEnable(kInstance, "sched", event, "1", 60)) << event << "\n" << agent.Stderr();

    // It rises and falls with the backlog of messages on their way to the
    // output, which a leak does not. So it is read with the load paused and
    // the backlog printed (the output down to the trickle of an idle host's
    // context switches for a second): after the first 10 s and at the end.
    const auto settled_resident_kb = [&] {
        constexpr uint64_t kIdleLinesPer200ms = 1000;
        uint64_t lines = printed.Lines();
        for (int quiet = 0, round = 0; quiet < 5 && round < 150; ++round) {
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
            const uint64_t now = printed.Lines();
            quiet = now - lines < kIdleLinesPer200ms ? quiet + 1 : 0;
            lines = now;
        }
        return ResidentKb(agent.Pid());
    };

    ProcessLoad load;
    long early_kb = 0;
    long peak_kb = 0;
    const double first_part = std::min(10.0, seconds);
    for (const double part : {first_part, seconds - first_part}) {
        if (part <= 0) continue;
        load.Start(spawn_rate, storm);
        for (const auto start = Clock::now(); std::chrono::duration<double>(Clock::now() - start).count() < part;) {
            std::this_thread::sleep_for(std::chrono::seconds(1));
            ASSERT_TRUE(agent.Running()) << "the agent ended during the load:\n" << agent.Stderr();
            peak_kb = std::max(peak_kb, ResidentKb(agent.Pid()));
        }
        load.Stop();
        if (early_kb == 0 && part < seconds) early_kb = settled_resident_kb();
    }
    const std::vector<pid_t> spawned = load.Spawned();

    // The reader wakes at the buffer's watermark or after its 1000 ms wait;
    // give the last children time to come through.
    const auto complete = [&] {
        return std::all_of(spawned.begin(), spawned.end(),
                           [&](pid_t pid) { return printed.Printed(pid, true) && printed.Printed(pid, false); });
    };
    for (const auto deadline = Clock::now() + std::chrono::seconds(30);
         !complete() && TracefsProbe::Lost(kInstance) == 0 && Clock::now() < deadline;)
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const long late_kb = settled_resident_kb();
    const uint64_t kernel_lost = TracefsProbe::Lost(kInstance);

    agent.Signal(SIGTERM);
    ASSERT_EQ(agent.Wait(std::chrono::seconds(120)), 0) << agent.Stderr();
    const std::string summary = agent.Stderr();
    for (const char* report : {"AddressSanitizer", "LeakSanitizer", "ThreadSanitizer", "runtime error:"})
        EXPECT_EQ(summary.find(report), std::string::npos) << summary;
    EXPECT_TRUE(load.Errors().empty()) << load.Errors().front();
    EXPECT_GT(spawned.size(), 0u);
    EXPECT_GT(printed.Switches(), 0u) << "no sched_switch reached the output";
    EXPECT_FALSE(TracefsProbe::InstanceExists(kInstance)) << "the agent made ZEV and must remove it";
    EXPECT_EQ(TracefsProbe::Read(TracefsProbe::kTracing + "/set_event"), top_set_event);

    std::cout << "soak: " << seconds << " s, " << spawned.size() << " children, " << load.StormRuns()
              << " perf runs, " << printed.Lines() << " lines (" << printed.Switches() << " sched_switch); resident "
              << early_kb << " kB after 10 s, " << late_kb << " kB at the end (both idle), peak " << peak_kb << " kB\n";

    if (FTRACE_SOAK_SANITIZED) {
        std::cout << "soak: resident memory not compared: the sanitizer's own allocator dominates it\n";
    } else if (!measure_memory) {
        std::cout << "soak: resident memory not compared: no libjemalloc.so.2 (package libjemalloc2)\n";
    } else if (early_kb == 0) {
        std::cout << "soak: resident memory not compared: the run was not longer than 10 s\n";
    } else {
        EXPECT_LT(late_kb, early_kb + early_kb / 20) << "resident memory grew by more than 5% after the first 10 s";
    }

    const uint64_t queue_lost = SummaryCount(summary, "dropped by the agent (queue full): ");
    if (kernel_lost != 0 || queue_lost != 0) {
        std::cout << "soak: completeness not checked: the kernel reported " << kernel_lost
                  << " events lost in ZEV and the agent " << queue_lost << " dropped from its queue\n";
        return;
    }
    size_t missing = 0;
    std::string examples;
    for (const pid_t pid : spawned) {
        for (const bool exec : {true, false}) {
            if (printed.Printed(pid, exec)) continue;
            if (++missing <= 5) examples += " " + std::string(exec ? "exec" : "exit") + " of " + std::to_string(pid);
        }
    }
    EXPECT_EQ(missing, 0u) << "events missing without any reported loss:" << examples;
}
