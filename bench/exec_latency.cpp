// Latency from spawning a process to a subscriber's receipt of its
// sched:sched_process_exec message. Loads libftrace_module.so into an engine
// like the agent does, subscribes one task, spawns /bin/true at a steady rate
// and prints p50, p99 and max of (receipt - spawn), for the agent's latency
// settings one after the other (batch, then low; or the one given). With
// --storm the task also takes every sched:sched_switch while `perf bench
// sched pipe -l LOOPS` runs, and the execs are spawned while it lasts. Needs
// root and tracefs; no other user of the instance ZEV may run meanwhile.
//
// --breakdown runs the module's task in-process with a hook on its record
// path, sets ZEV's trace clock to CLOCK_MONOTONIC and splits each latency into
// spawn -> exec recorded (kernel time stamp) -> read by the ftrace thread ->
// received, and prints how long the ftrace, subscriber and spawning threads
// waited for a CPU (schedstat run delay). With --storm the sched_switch
// records also split the two later spans into the time the ftrace and the
// subscriber thread ran, waited for a CPU and slept.
//
//   exec_latency [--rate=PER_SECOND] [--count=N] [--module=PATH] [--latency=low|batch] [--storm=LOOPS] [--breakdown]

#include <fcntl.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
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
#include "FtraceTask.h"
#include "FtraceWakeup.h"
#include "FtraceWatchMessage.h"

extern char** environ;

namespace {

int64_t NowNs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

pid_t ThreadId() { return static_cast<pid_t>(syscall(SYS_gettid)); }

// Run delay (ns waiting on a run queue) and time slices of one thread so far.
struct SchedStat {
    int64_t run_ns = 0;
    int64_t delay_ns = 0;
    int64_t slices = 0;
};

SchedStat ReadSchedStat(pid_t tid) {
    SchedStat stat;
    if (tid <= 0) return stat;
    if (FILE* file = std::fopen(("/proc/self/task/" + std::to_string(tid) + "/schedstat").c_str(), "r")) {
        long long run = 0, delay = 0, slices = 0;
        if (std::fscanf(file, "%lld %lld %lld", &run, &delay, &slices) == 3) stat = {run, delay, slices};
        std::fclose(file);
    }
    return stat;
}

// When the ftrace thread handled an exec record, and the read pass it was in:
// a pass starts at the first record after a gap of more than kPassGapNs.
struct ReadStamp {
    int64_t read_ns = 0;
    int64_t pass_began_ns = 0;
    int64_t records_before = 0;  // in the same pass
};
constexpr int64_t kPassGapNs = 500000;

// The module's task with a hook on the record path (breakdown only).
class TimedFtraceTask : public Engine::FtraceTask {
public:
    int Run() override {
        m_tid = ThreadId();
        return Engine::FtraceTask::Run();
    }
    void send_ftrace_message(FtraceRecord& record) override {
        const int64_t now = NowNs();
        if (now - m_last_ns > kPassGapNs) {
            m_pass_began_ns = now;
            m_pass_records = 0;
            ++passes;
        }
        ++records;
        m_last_ns = now;
        if (record.event().get() != m_last_event) {
            m_last_event = record.event().get();
            m_last_is_exec = record.event().event_name() == "sched_process_exec";
        }
        if (m_last_is_exec) {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_reads[static_cast<pid_t>(record.get("pid"))] = {now, m_pass_began_ns, m_pass_records};
        }
        ++m_pass_records;
        Engine::FtraceTask::send_ftrace_message(record);
    }
    bool Read(pid_t pid, ReadStamp& stamp) {
        std::lock_guard<std::mutex> lock(m_mutex);
        const auto it = m_reads.find(pid);
        if (it == m_reads.end()) return false;
        stamp = it->second;
        return true;
    }
    pid_t tid() const { return m_tid; }
    std::atomic<int64_t> passes{0}, records{0};

private:
    std::atomic<pid_t> m_tid{0};
    int64_t m_last_ns = 0;
    int64_t m_pass_began_ns = 0;
    int64_t m_pass_records = 0;
    const tep_event* m_last_event = nullptr;
    bool m_last_is_exec = false;
    std::mutex m_mutex;
    std::map<pid_t, ReadStamp> m_reads;
};

class TimedFtraceModule : public Framework::Module {
public:
    TimedFtraceModule() : Framework::Module("ftrace_module") {}
    int Init() override {
        Framework::Module::Init();
        task = new TimedFtraceTask();
        if (!task->ftrace().tracefs().IsValid()) {
            delete task;
            task = nullptr;
            return -1;
        }
        return RegisterTask(task, false);
    }
    TimedFtraceTask* task = nullptr;
};

// When one thread was switched in and out, from the sched_switch records.
class ThreadTimeline {
public:
    enum Kind { kOn, kPreempted, kSlept };
    void Note(int64_t at, Kind kind) { m_changes.emplace_back(at, kind); }
    bool empty() const { return m_changes.empty(); }
    // Of [from, to): time running, runnable but waiting for a CPU (switched
    // out while runnable) and asleep (switched out to wait, wake-up delay included).
    void Split(int64_t from, int64_t to, double& running_ms, double& preempted_ms, double& asleep_ms) const {
        running_ms = preempted_ms = asleep_ms = 0;
        if (m_changes.empty()) return;
        auto it = std::upper_bound(m_changes.begin(), m_changes.end(), std::make_pair(from, kSlept));
        Kind kind = it == m_changes.begin() ? kOn : std::prev(it)->second;
        int64_t at = from;
        for (;; ++it) {
            const int64_t until = it == m_changes.end() ? to : std::min(to, it->first);
            const double ms = static_cast<double>(until - at) / 1e6;
            (kind == kOn ? running_ms : kind == kPreempted ? preempted_ms : asleep_ms) += ms;
            if (it == m_changes.end() || it->first >= to) break;
            at = it->first;
            kind = it->second;
        }
    }

private:
    std::vector<std::pair<int64_t, Kind>> m_changes;  // in time order per CPU; sorted before use
    friend class ExecReceiver;
};

// Notes the arrival time of every exec message, by the exec'ed pid.
class ExecReceiver : public Framework::Task, public Engine::AbstructMessage<Engine::FtraceMessage>::Receiver {
public:
    // `nice`: as the agent's own subscriber runs with the same setting.
    explicit ExecReceiver(int nice)
        : Framework::Task("exec_latency", "bench", Framework::TaskCondition::TASK_TYPE_NORMAL, 65536), m_nice(nice) {}
    int Run() override {
        m_tid = ThreadId();
        if (m_nice != Engine::FtraceWakeup::kKeepNice) Engine::FtraceWakeup::SetCallingThreadNice(m_nice);
        while (state() != Poco::Task::TASK_CANCELLING) {
            if (MessageEmpty()) GetEventWaiter().WaitAndHandleEvent(100, 16);
            BulkConsumeMsg(256);
        }
        return 0;
    }
    int Receive(Engine::FtraceMessage* message) override {
        if (watched[0] != 0 && message->name() == "sched:sched_switch") {
            const int64_t at = static_cast<int64_t>(message->get_number("timestamp"));
            const pid_t prev = static_cast<pid_t>(message->get_number("prev_pid"));
            const pid_t next = static_cast<pid_t>(message->get_number("next_pid"));
            for (int i = 0; i < 2; ++i) {
                if (prev == watched[i]) {
                    std::lock_guard<std::mutex> lock(m_mutex);
                    m_timelines[i].Note(at, (message->get_number("prev_state") & 0xff) == 0 ? ThreadTimeline::kPreempted
                                                                                         : ThreadTimeline::kSlept);
                }
                if (next == watched[i]) {
                    std::lock_guard<std::mutex> lock(m_mutex);
                    m_timelines[i].Note(at, ThreadTimeline::kOn);
                }
            }
            return 0;
        }
        if (message->name() != "sched:sched_process_exec") return 0;
        const int64_t now = NowNs();
        std::lock_guard<std::mutex> lock(m_mutex);
        m_arrivals.emplace(static_cast<pid_t>(message->get_number("pid")),
                           std::make_pair(now, static_cast<int64_t>(message->get_number("timestamp"))));
        return 0;
    }
    // Receipt time and the record's kernel time stamp.
    bool Arrival(pid_t pid, int64_t& at, int64_t& recorded) {
        std::lock_guard<std::mutex> lock(m_mutex);
        const auto it = m_arrivals.find(pid);
        if (it == m_arrivals.end()) return false;
        at = it->second.first;
        recorded = it->second.second;
        return true;
    }
    pid_t tid() const { return m_tid; }
    // The ftrace thread and this one, whose switches are noted (breakdown only).
    std::atomic<pid_t> watched[2] = {{0}, {0}};
    ThreadTimeline Timeline(int i) {
        std::lock_guard<std::mutex> lock(m_mutex);
        ThreadTimeline copy = m_timelines[i];
        std::stable_sort(copy.m_changes.begin(), copy.m_changes.end(),
                         [](const auto& a, const auto& b) { return a.first < b.first; });
        return copy;
    }

private:
    const int m_nice;
    ThreadTimeline m_timelines[2];
    std::atomic<pid_t> m_tid{0};
    std::mutex m_mutex;
    std::map<pid_t, std::pair<int64_t, int64_t>> m_arrivals;
};

class ReceiverModule : public Framework::Module {
public:
    explicit ReceiverModule(int nice) : Framework::Module("exec_latency"), m_nice(nice) {}
    int Init() override {
        Framework::Module::Init();
        receiver = new ExecReceiver(m_nice);
        return RegisterTask(receiver, false);
    }
    ExecReceiver* receiver = nullptr;

private:
    const int m_nice;
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

void PrintSpread(const char* what, std::vector<double> values) {
    std::sort(values.begin(), values.end());
    std::printf("  %-34s p50 %7.2f  p90 %7.2f  p99 %7.2f  max %7.2f ms\n", what, Percentile(values, 0.50),
                Percentile(values, 0.90), Percentile(values, 0.99), values.empty() ? 0.0 : values.back());
}

void PrintWait(const char* thread, const SchedStat& before, const SchedStat& after) {
    const int64_t slices = after.slices - before.slices;
    std::printf("  %-10s ran %8.1f ms, waited for a CPU %8.1f ms in %7lld slices: %6.1f us per slice\n", thread,
                static_cast<double>(after.run_ns - before.run_ns) / 1e6,
                static_cast<double>(after.delay_ns - before.delay_ns) / 1e6, static_cast<long long>(slices),
                slices > 0 ? static_cast<double>(after.delay_ns - before.delay_ns) / 1e3 / static_cast<double>(slices)
                           : 0.0);
}

// Where the time of each exec went (see --breakdown). The trace clock is
// CLOCK_MONOTONIC for the run, so kernel time stamps compare with NowNs.
void PrintBreakdown(const std::vector<std::pair<pid_t, int64_t>>& spawns, ExecReceiver& receiver,
                    TimedFtraceTask& task) {
    struct Row {
        double total, spawn, before_pass, in_pass, deliver;
        int64_t records_before;
        double reader[3], subscriber[3];  // running, preempted, asleep
    };
    const ThreadTimeline reader = receiver.Timeline(0), subscriber = receiver.Timeline(1);
    std::vector<Row> rows;
    for (const auto& spawn : spawns) {
        int64_t arrival = 0, recorded = 0;
        ReadStamp read;
        if (!receiver.Arrival(spawn.first, arrival, recorded) || !task.Read(spawn.first, read)) continue;
        rows.push_back({static_cast<double>(arrival - spawn.second) / 1e6,
                        static_cast<double>(recorded - spawn.second) / 1e6,
                        static_cast<double>(read.pass_began_ns - recorded) / 1e6,
                        static_cast<double>(read.read_ns - std::max(read.pass_began_ns, recorded)) / 1e6,
                        static_cast<double>(arrival - read.read_ns) / 1e6, read.records_before, {}, {}});
        Row& row = rows.back();
        reader.Split(recorded, read.read_ns, row.reader[0], row.reader[1], row.reader[2]);
        subscriber.Split(read.read_ns, arrival, row.subscriber[0], row.subscriber[1], row.subscriber[2]);
    }
    std::vector<double> spawn_ms, pass_ms, in_pass_ms, deliver_ms, split[6];
    for (const Row& row : rows) {
        spawn_ms.push_back(row.spawn);
        pass_ms.push_back(row.before_pass);
        in_pass_ms.push_back(row.in_pass);
        deliver_ms.push_back(row.deliver);
        for (int i = 0; i < 3; ++i) {
            split[i].push_back(row.reader[i]);
            split[3 + i].push_back(row.subscriber[i]);
        }
    }
    PrintSpread("spawn -> exec recorded", spawn_ms);
    PrintSpread("recorded -> its read pass began", pass_ms);
    PrintSpread("pass began -> exec read", in_pass_ms);
    PrintSpread("read -> received", deliver_ms);
    if (!reader.empty()) {  // no sched_switch records without --storm
        PrintSpread("recorded -> read: ftrace running", split[0]);
        PrintSpread("recorded -> read: ftrace preempted", split[1]);
        PrintSpread("recorded -> read: ftrace asleep", split[2]);
        PrintSpread("read -> received: sub. running", split[3]);
        PrintSpread("read -> received: sub. preempted", split[4]);
        PrintSpread("read -> received: sub. asleep", split[5]);
    }
    std::sort(rows.begin(), rows.end(), [](const Row& a, const Row& b) { return a.total > b.total; });
    for (size_t i = 0; i < rows.size() && i < 5; ++i) {
        const Row& row = rows[i];
        std::printf("  slowest %zu: %.2f ms = spawn %.2f + to pass %.2f + in pass %.2f (%lld records before) + "
                    "deliver %.2f; ftrace run/preempted/asleep %.2f/%.2f/%.2f, subscriber %.2f/%.2f/%.2f\n",
                    i + 1, row.total, row.spawn, row.before_pass, row.in_pass,
                    static_cast<long long>(row.records_before), row.deliver, row.reader[0], row.reader[1],
                    row.reader[2], row.subscriber[0], row.subscriber[1], row.subscriber[2]);
    }
}

bool WriteFile(const std::string& path, const std::string& text) {
    FILE* file = std::fopen(path.c_str(), "w");
    if (file == nullptr) return false;
    const bool written = std::fputs(text.c_str(), file) >= 0;
    return std::fclose(file) == 0 && written;
}

// One engine with the module configured as `wakeup`; false when it cannot run.
bool Measure(const std::string& module, const std::string& setting, const Engine::FtraceWakeup& wakeup, double rate,
             int count, long storm_loops, bool breakdown) {
    Framework::Engine engine;
    wakeup.Store(engine.config());
    std::string error;
    TimedFtraceModule* timed = nullptr;
    if (breakdown) {
        timed = new TimedFtraceModule();
        if (engine.AddModule(timed) != 0) {
            std::fprintf(stderr, "exec_latency: the ftrace module did not start\n");
            return false;
        }
    } else if (engine.LoadModule(module, &error) != 0) {
        std::fprintf(stderr, "exec_latency: %s\n", error.c_str());
        return false;
    }
    auto* receiver_module = new ReceiverModule(wakeup.reader_nice);
    if (engine.AddModule(receiver_module) != 0 || engine.StartTasks() != 0) {
        std::fprintf(stderr, "exec_latency: tasks did not start\n");
        return false;
    }
    const std::string clock_file = "/sys/kernel/tracing/instances/ZEV/trace_clock";
    if (breakdown && !WriteFile(clock_file, "mono")) {
        std::fprintf(stderr, "exec_latency: cannot set %s\n", clock_file.c_str());
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

    const pid_t reader_tid = timed != nullptr ? timed->task->tid() : 0;
    if (breakdown) {
        receiver->watched[1] = receiver->tid();
        receiver->watched[0] = reader_tid;
    }
    const SchedStat reader0 = ReadSchedStat(reader_tid), receiver0 = ReadSchedStat(receiver->tid()),
                    main0 = ReadSchedStat(ThreadId());
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
    const SchedStat reader1 = ReadSchedStat(reader_tid), receiver1 = ReadSchedStat(receiver->tid()),
                    main1 = ReadSchedStat(ThreadId());
    std::this_thread::sleep_for(std::chrono::milliseconds(2500));  // longer than the task's bounded wait

    std::vector<double> latencies_ms;
    for (const auto& spawn : spawns) {
        int64_t arrival = 0, recorded = 0;
        if (receiver->Arrival(spawn.first, arrival, recorded)) {
            latencies_ms.push_back(static_cast<double>(arrival - spawn.second) / 1e6);
        }
    }
    std::sort(latencies_ms.begin(), latencies_ms.end());
    std::printf("exec latency %s %s: %zu of %zu spawns at %.1f/s: p50 %.2f ms, p99 %.2f ms, max %.2f ms\n",
                setting.c_str(), storm_loops > 0 ? "storm" : "quiet", latencies_ms.size(), spawns.size(), rate,
                Percentile(latencies_ms, 0.50), Percentile(latencies_ms, 0.99),
                latencies_ms.empty() ? 0.0 : latencies_ms.back());
    if (breakdown) {
        std::printf("  %lld records read in %lld passes (runs without a gap of %.1f ms)\n",
                    static_cast<long long>(timed->task->records.load()), static_cast<long long>(timed->task->passes.load()),
                    static_cast<double>(kPassGapNs) / 1e6);
        PrintBreakdown(spawns, *receiver, *timed->task);
        PrintWait("ftrace", reader0, reader1);
        PrintWait("subscriber", receiver0, receiver1);
        PrintWait("spawner", main0, main1);
        WriteFile(clock_file, "local");  // the kernel's default, should the instance outlive the engine
    }
    std::fflush(stdout);
    engine.Shutdown();
    return !spawns.empty() && latencies_ms.size() == spawns.size();
}

}  // namespace

int main(int argc, char** argv) {
    double rate = 20;
    int count = 200;
    long storm_loops = 0;
    bool breakdown = false;
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
        } else if (std::strcmp(argv[i], "--breakdown") == 0) {
            breakdown = true;
        } else {
            std::fprintf(stderr,
                         "usage: %s [--rate=PER_SECOND] [--count=N] [--module=PATH] [--latency=low|batch] "
                         "[--storm=LOOPS] [--breakdown]\n",
                         argv[0]);
            return 2;
        }
    }
    if (rate <= 0 || count <= 0 || storm_loops < 0) return 2;
    bool complete = true;
    for (const std::string& setting : settings) {
        // The agent's two settings: batch stores nothing.
        Engine::FtraceWakeup wakeup = setting == "low" ? Engine::FtraceWakeup::LowLatency() : Engine::FtraceWakeup();
        complete = Measure(module, setting, wakeup, rate, count, storm_loops, breakdown) && complete;
    }
    return complete ? 0 : 1;
}
