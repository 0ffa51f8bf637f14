// Latency from spawning a process to a subscriber's receipt of its
// sched:sched_process_exec message. Loads libftrace_module.so into an engine
// like the agent does, subscribes one task, spawns /bin/true at a steady rate
// and prints p50, p99 and max of (receipt - spawn), for the agent's latency
// settings one after the other (batch, then low; or the one given). With
// --storm the task also takes every sched:sched_switch while `perf bench
// sched pipe -l LOOPS` runs, and the execs are spawned while it lasts. Needs
// root and tracefs; no other user of the instance ZEV may run meanwhile.
//
//   exec_latency [--rate=PER_SECOND] [--count=N] [--module=PATH] [--latency=low|batch] [--storm=LOOPS]

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "AbstructMessage.h"
#include "Framework/Engine.h"
#include "Framework/Module.h"
#include "Framework/Task.h"
#include "FtraceMessage.h"
#include "FtraceWakeup.h"
#include "FtraceWatchMessage.h"

extern char** environ;

namespace {

int64_t NowNs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

// Notes the arrival time of every exec message, by the exec'ed pid.
class ExecReceiver : public Framework::Task, public Engine::AbstructMessage<Engine::FtraceMessage>::Receiver {
public:
    ExecReceiver() : Framework::Task("exec_latency", "bench", Framework::TaskCondition::TASK_TYPE_NORMAL, 65536) {}
    int Run() override {
        while (state() != Poco::Task::TASK_CANCELLING) {
            if (MessageEmpty()) GetEventWaiter().WaitAndHandleEvent(100, 16);
            BulkConsumeMsg(256);
        }
        return 0;
    }
    int Receive(Engine::FtraceMessage* message) override {
        if (message->name() != "sched:sched_process_exec") return 0;
        const int64_t now = NowNs();
        std::lock_guard<std::mutex> lock(m_mutex);
        m_arrivals.emplace(static_cast<pid_t>(message->get_number("pid")), now);
        return 0;
    }
    bool Arrival(pid_t pid, int64_t& at) {
        std::lock_guard<std::mutex> lock(m_mutex);
        const auto it = m_arrivals.find(pid);
        if (it == m_arrivals.end()) return false;
        at = it->second;
        return true;
    }

private:
    std::mutex m_mutex;
    std::map<pid_t, int64_t> m_arrivals;
};

class ReceiverModule : public Framework::Module {
public:
    ReceiverModule() : Framework::Module("exec_latency") {}
    int Init() override {
        Framework::Module::Init();
        receiver = new ExecReceiver();
        return RegisterTask(receiver, false);
    }
    ExecReceiver* receiver = nullptr;
};

double Percentile(const std::vector<double>& sorted, double p) {
    if (sorted.empty()) return 0;
    const size_t index = std::min(sorted.size() - 1, static_cast<size_t>(p * static_cast<double>(sorted.size())));
    return sorted[index];
}

pid_t Spawn(std::vector<const char*> argv, bool quiet) {
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (quiet) posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t child = 0;
    const int rc = posix_spawnp(&child, argv[0], &actions, nullptr, const_cast<char**>(argv.data()), environ);
    posix_spawn_file_actions_destroy(&actions);
    return rc == 0 ? child : -1;
}

// One engine with the module configured as `wakeup`; false when it cannot run.
bool Measure(const std::string& module, const std::string& setting, const Engine::FtraceWakeup& wakeup, double rate,
             int count, long storm_loops) {
    Framework::Engine engine;
    wakeup.Store(engine.config());
    std::string error;
    if (engine.LoadModule(module, &error) != 0) {
        std::fprintf(stderr, "exec_latency: %s\n", error.c_str());
        return false;
    }
    auto* receiver_module = new ReceiverModule();
    if (engine.AddModule(receiver_module) != 0 || engine.StartTasks() != 0) {
        std::fprintf(stderr, "exec_latency: tasks did not start\n");
        return false;
    }
    Framework::Task* ftrace = engine.FindTask("ftrace_task");
    ExecReceiver* receiver = receiver_module->receiver;
    for (const char* event : {"sched_process_exec", "sched_switch"}) {
        if (storm_loops == 0 && std::strcmp(event, "sched_switch") == 0) continue;
        std::shared_ptr<Framework::Message> watch =
            std::make_shared<Engine::FtraceWatchMessage>(receiver, "sched", event, false);
        ftrace->EnqueueMsg(watch);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(500));  // the watch is handled at once; be generous

    const std::string loops = std::to_string(storm_loops);
    const pid_t storm = storm_loops > 0 ? Spawn({"perf", "bench", "sched", "pipe", "-l", loops.c_str()}, true) : 0;
    const int64_t period = static_cast<int64_t>(1e9 / rate);
    std::vector<std::pair<pid_t, int64_t>> spawns;
    int64_t next = NowNs();
    for (int i = 0; storm_loops > 0 ? waitpid(storm, nullptr, WNOHANG) == 0 : i < count; ++i) {
        while (NowNs() < next) std::this_thread::sleep_for(std::chrono::microseconds(200));
        next += period;
        const int64_t at = NowNs();
        const pid_t child = Spawn({"/bin/true"}, false);
        if (child < 0) continue;
        spawns.emplace_back(child, at);
        waitpid(child, nullptr, 0);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2500));  // longer than the task's bounded wait

    std::vector<double> latencies_ms;
    for (const auto& spawn : spawns) {
        int64_t arrival = 0;
        if (receiver->Arrival(spawn.first, arrival)) latencies_ms.push_back(static_cast<double>(arrival - spawn.second) / 1e6);
    }
    engine.Shutdown();
    std::sort(latencies_ms.begin(), latencies_ms.end());
    std::printf("exec latency %s %s: %zu of %zu spawns at %.1f/s: p50 %.2f ms, p99 %.2f ms, max %.2f ms\n",
                setting.c_str(), storm_loops > 0 ? "storm" : "quiet", latencies_ms.size(), spawns.size(), rate,
                Percentile(latencies_ms, 0.50), Percentile(latencies_ms, 0.99),
                latencies_ms.empty() ? 0.0 : latencies_ms.back());
    std::fflush(stdout);
    return !spawns.empty() && latencies_ms.size() == spawns.size();
}

}  // namespace

int main(int argc, char** argv) {
    double rate = 20;
    int count = 200;
    long storm_loops = 0;
    std::vector<std::string> settings = {"batch", "low"};
    std::string module = std::string(FTRACE_BUILD_LIB_DIR) + "/libftrace_module.so";
    for (int i = 1; i < argc; ++i) {
        if (std::strncmp(argv[i], "--rate=", 7) == 0) {
            rate = std::atof(argv[i] + 7);
        } else if (std::strncmp(argv[i], "--count=", 8) == 0) {
            count = std::atoi(argv[i] + 8);
        } else if (std::strncmp(argv[i], "--module=", 9) == 0) {
            module = argv[i] + 9;
        } else if (std::strcmp(argv[i], "--latency=low") == 0 || std::strcmp(argv[i], "--latency=batch") == 0) {
            settings = {argv[i] + 10};
        } else if (std::strncmp(argv[i], "--storm=", 8) == 0) {
            storm_loops = std::atol(argv[i] + 8);
        } else {
            std::fprintf(stderr,
                         "usage: %s [--rate=PER_SECOND] [--count=N] [--module=PATH] [--latency=low|batch] "
                         "[--storm=LOOPS]\n",
                         argv[0]);
            return 2;
        }
    }
    if (rate <= 0 || count <= 0 || storm_loops < 0) return 2;
    bool complete = true;
    for (const std::string& setting : settings) {
        // The agent's two settings: batch stores nothing.
        const Engine::FtraceWakeup wakeup =
            setting == "low" ? Engine::FtraceWakeup::LowLatency() : Engine::FtraceWakeup();
        complete = Measure(module, setting, wakeup, rate, count, storm_loops) && complete;
    }
    return complete ? 0 : 1;
}
