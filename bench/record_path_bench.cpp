// Record path: ring-buffer page -> FtraceTask -> one subscriber's queue, over
// real sched_switch / sched_process_exec pages captured from this kernel
// (bench/capture_pages.sh), against two baselines on the same pages:
//   floor: kbuffer walk and event lookup only, no field decoding;
//   text:  libtraceevent's text decoder, tep_print_event into a trace_seq.
//
// The pages sit in one memfd per CPU and are read with read(2) like the
// kernel's trace_pipe_raw; one benchmark iteration is one page. The formats are
// served from a temporary tracing directory holding the captured files, so the
// event ids match the pages whatever this kernel says. Root is not needed.
//
//   record_path_bench [--data=DIR] [google benchmark flags]

#include <Poco/InflatingStream.h>
#include <benchmark/benchmark.h>
#include <event-parse.h>
#include <sys/mman.h>
#include <trace-seq.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "AbstructMessage.h"
#include "Framework/Engine.h"
#include "Framework/Module.h"
#include "Framework/Task.h"
#include "FtraceMessage.h"
#include "FtracePerCPUReader.h"
#include "FtraceTask.h"
#include "ftrace.h"
#include "kbuffer_wrapper.h"
#include "tracefs_shim.h"

namespace fs = std::filesystem;

namespace {

const char* const kSubscriberName = "ftrace_agent_printer";  // the agent's printing task
const char* const kEvents[] = {"sched_switch", "sched_process_exec"};

std::string ReadFile(const fs::path& path, bool gzipped) {
    std::ifstream file(path, std::ios::binary);
    if (!file) throw std::runtime_error("cannot read " + path.string());
    std::ostringstream out;
    if (gzipped) {
        Poco::InflatingInputStream inflate(file, Poco::InflatingStreamBuf::STREAM_GZIP);
        out << inflate.rdbuf();
    } else {
        out << file.rdbuf();
    }
    return out.str();
}

void WriteFile(const fs::path& path, const std::string& text) {
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

// A task that never runs: the benchmark drains its queue itself.
class QueueOnlyTask : public Framework::Task {
public:
    QueueOnlyTask() : Framework::Task(kSubscriberName, "bench", Framework::TaskCondition::TASK_TYPE_REPORTER, 65536) {}
    int Run() override { return 0; }
    Framework::MessageQueue& Queue() { return m_consumer.Queue(); }
};

// A subscriber that runs on its own thread like the agent's printing task
// (same loop, same queue size) and only counts what it receives, so that the
// messages are released on another thread, as they are in the agent.
class LiveSubscriber : public Framework::Task, public Engine::AbstructMessage<Engine::FtraceMessage>::Receiver {
public:
    LiveSubscriber() : Framework::Task("bench_live_subscriber", "bench", Framework::TaskCondition::TASK_TYPE_REPORTER, 65536) {}
    int Run() override {
        while (state() != Poco::Task::TASK_CANCELLING) {
            if (MessageEmpty()) GetEventWaiter().WaitAndHandleEvent(250, 16);
            BulkConsumeMsg(1024);
        }
        return 0;
    }
    int Receive(Engine::FtraceMessage*) override {
        received.fetch_add(1, std::memory_order_relaxed);
        return 0;
    }
    std::atomic<size_t> received{0};
};

// Runs a benchmark body as a task's Run on the calling thread, so that the
// framework treats the producer as the task thread it is in the agent.
class ProducerTask : public Framework::Task {
public:
    ProducerTask() : Framework::Task("bench_producer", "bench", Framework::TaskCondition::TASK_TYPE_COLLECTOR, 2) {}
    int Run() override {
        body();
        return 0;
    }
    std::function<void()> body;
};

class SubscriberModule : public Framework::Module {
public:
    SubscriberModule() : Framework::Module("bench_subscriber") {}
    int Init() override {
        Framework::Module::Init();
        task = new QueueOnlyTask();
        live = new LiveSubscriber();
        return RegisterTask(task, false) == 0 && RegisterTask(live, false) == 0 ? 0 : -1;
    }
    QueueOnlyTask* task = nullptr;
    LiveSubscriber* live = nullptr;
};

struct CpuPages {
    int cpu;
    int fd;        // memfd with the captured pages
    size_t pages;
};

// Everything the benchmarks share, built once in main.
struct Bench {
    fs::path root;  // temporary tracing directory
    std::unique_ptr<Framework::Engine> engine;
    SubscriberModule* module = nullptr;
    std::unique_ptr<Engine::FtraceTask> task;
    std::vector<CpuPages> cpus;
    std::vector<std::unique_ptr<FtracePerCPUReader>> readers;
    size_t next = 0;  // round robin over the CPUs, one page per iteration

    void Setup(const fs::path& data) {
        char pattern[] = "/tmp/ftrace_bench_XXXXXX";
        if (mkdtemp(pattern) == nullptr) throw std::runtime_error("mkdtemp failed");
        root = pattern;
        const fs::path instance = root / "instances" / "ZEV";
        for (const char* event : kEvents) {
            const fs::path dir = instance / "events" / "sched" / event;
            WriteFile(dir / "format", ReadFile(data / "events" / "sched" / event / "format", false));
            WriteFile(dir / "enable", "");
        }
        WriteFile(instance / "set_event", "");
        WriteFile(instance / "set_event_pid", "");
        ftrace_shim_set_tracing_dir(root.c_str());

        engine = std::make_unique<Framework::Engine>();
        module = new SubscriberModule();
        if (engine->AddModule(module) != 0) throw std::runtime_error("subscriber module did not start");
        // Only the live subscriber has a thread; the queue-only task never runs.
        if (engine->StartTasks() != 0) throw std::runtime_error("subscriber tasks did not start");
        task = std::make_unique<Engine::FtraceTask>();
        for (const char* event : kEvents) {
            if (task->AddWatch(module->task, "sched", event) != 0)
                throw std::runtime_error(std::string("cannot watch sched:") + event);
        }

        for (const auto& entry : fs::directory_iterator(data / "pages")) {
            const std::string name = entry.path().filename().string();  // cpuN.raw.gz
            if (name.rfind("cpu", 0) != 0) continue;
            const std::string pages = ReadFile(entry.path(), true);
            const int fd = memfd_create(name.c_str(), MFD_CLOEXEC);
            if (fd < 0 || write(fd, pages.data(), pages.size()) != static_cast<ssize_t>(pages.size()))
                throw std::runtime_error("memfd for " + name);
            const int cpu = std::atoi(name.c_str() + 3);
            cpus.push_back({cpu, fd, pages.size() / static_cast<size_t>(getpagesize())});
            readers.push_back(std::make_unique<FtracePerCPUReader>(task->ftrace(), FileDescriptor(), cpu));
        }
        if (cpus.empty()) throw std::runtime_error("no captured pages under " + (data / "pages").string());
    }

    void Teardown() {
        readers.clear();
        for (const CpuPages& cpu : cpus) close(cpu.fd);
        task.reset();
        engine.reset();
        ftrace_shim_set_tracing_dir(nullptr);
        std::error_code ignored;
        fs::remove_all(root, ignored);
    }

    void Rewind() {
        for (const CpuPages& cpu : cpus) lseek(cpu.fd, 0, SEEK_SET);
        next = 0;
    }

    // The next CPU in turn; its memfd is positioned at a page (rewound at its end).
    size_t NextCpu() {
        const size_t index = next;
        next = (next + 1) % cpus.size();
        const off_t at = lseek(cpus[index].fd, 0, SEEK_CUR);
        if (static_cast<size_t>(at) >= cpus[index].pages * static_cast<size_t>(getpagesize()))
            lseek(cpus[index].fd, 0, SEEK_SET);
        return index;
    }

    tep_handle* tep() { return task->ftrace().handle(); }
};

Bench g_bench;

using Clock = std::chrono::steady_clock;

double Seconds(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double>(to - from).count();
}

// Minimal walk shared by the baselines: read a page, step through its records,
// find each record's event. `per_record` gets the record and its event.
template <typename PerRecord>
size_t WalkPage(kbuffer* kbuf, int fd, int cpu, PerRecord&& per_record) {
    alignas(64) static char page[65536];
    const size_t page_size = static_cast<size_t>(getpagesize());
    if (read(fd, page, page_size) <= 0) return 0;
    kbuffer_load_subbuffer(kbuf, page);
    size_t records = 0;
    tep_record record{};
    record.cpu = cpu;
    for (void* data = kbuffer_read_event(kbuf, nullptr); data != nullptr; data = kbuffer_next_event(kbuf, nullptr)) {
        record.data = data;
        tep_event* event = tep_find_event(g_bench.tep(), tep_data_type(g_bench.tep(), &record));
        if (event == nullptr) continue;
        per_record(record, event, kbuf);
        ++records;
    }
    return records;
}

kbuffer* NewKbuffer() { return kbuffer_alloc(KBUFFER_LSIZE_8, KBUFFER_ENDIAN_LITTLE); }

void Finish(benchmark::State& state, size_t records) {
    state.counters["records/page"] = benchmark::Counter(static_cast<double>(records), benchmark::Counter::kAvgIterations);
    state.SetItemsProcessed(static_cast<int64_t>(records));
}

void BM_Floor(benchmark::State& state) {
    g_bench.Rewind();
    kbuffer* kbuf = NewKbuffer();
    size_t records = 0;
    for (auto _ : state) {
        const CpuPages& cpu = g_bench.cpus[g_bench.NextCpu()];
        const auto start = Clock::now();
        records += WalkPage(kbuf, cpu.fd, cpu.cpu, [](tep_record&, tep_event* event, kbuffer*) {
            benchmark::DoNotOptimize(event);
        });
        state.SetIterationTime(Seconds(start, Clock::now()));
    }
    kbuffer_free(kbuf);
    Finish(state, records);
}

// What a text-printing tracer does per record.
template <bool kTraceCmdLine>
void BM_TextDecoder(benchmark::State& state) {
    g_bench.Rewind();
    kbuffer* kbuf = NewKbuffer();
    trace_seq seq;
    trace_seq_init(&seq);
    size_t records = 0;
    size_t bytes = 0;
    for (auto _ : state) {
        const CpuPages& cpu = g_bench.cpus[g_bench.NextCpu()];
        const auto start = Clock::now();
        records += WalkPage(kbuf, cpu.fd, cpu.cpu, [&](tep_record& record, tep_event*, kbuffer* kb) {
            record.ts = kbuffer_timestamp(kb);
            record.size = static_cast<int>(kbuffer_event_size(kb));
            trace_seq_reset(&seq);
            if (kTraceCmdLine) {
                tep_print_event(g_bench.tep(), &seq, &record, "%16s-%-5d [%03d] %6.1000d: %s: %s", TEP_PRINT_COMM,
                                TEP_PRINT_PID, TEP_PRINT_CPU, TEP_PRINT_TIME, TEP_PRINT_NAME, TEP_PRINT_INFO);
            } else {
                tep_print_event(g_bench.tep(), &seq, &record, "%s", TEP_PRINT_INFO);
            }
            bytes += seq.len;
        });
        state.SetIterationTime(Seconds(start, Clock::now()));
    }
    benchmark::DoNotOptimize(bytes);
    trace_seq_destroy(&seq);
    kbuffer_free(kbuf);
    Finish(state, records);
}

// Conversion only: create_ftrace_message for every record, dropped at once.
void ConvertOnly(FtraceRecord& record, void* context) {
    auto* task = static_cast<Engine::FtraceTask*>(context);
    std::unique_ptr<Engine::FtraceMessage> message = task->create_ftrace_message(record);
    benchmark::DoNotOptimize(message.get());
}

// The module's record path: the reader's read_once with the task's callback,
// conversion and delivery into the subscriber's queue. The queue is drained
// after every page, outside the timed region; that cost (what the subscriber
// pays to release the messages) is reported apart as drain_ns/record.
void BM_RecordPath(benchmark::State& state) {
    g_bench.Rewind();
    Engine::FtraceTask* task = g_bench.task.get();
    Framework::MessageQueue& queue = g_bench.module->task->Queue();
    std::vector<std::shared_ptr<Framework::Message>> drained;
    drained.reserve(4096);
    size_t records = 0;
    double drain_seconds = 0;
    for (auto _ : state) {
        const size_t index = g_bench.NextCpu();
        const auto start = Clock::now();
        g_bench.readers[index]->read_once(task->ftrace(), g_bench.cpus[index].fd, &Engine::FtraceTask::handle_ftrace_record,
                                          task);
        const auto stop = Clock::now();
        state.SetIterationTime(Seconds(start, stop));
        records += static_cast<size_t>(queue.DequeueBulk(drained, -1));
        drained.clear();
        drain_seconds += Seconds(stop, Clock::now());
    }
    Finish(state, records);
    state.counters["drain_ns/record"] = records ? drain_seconds * 1e9 / static_cast<double>(records) : 0;
}

// The same with the messages going to a subscriber that runs meanwhile on
// its own thread (the agent's arrangement): allocation and release now happen
// on different threads, and the subscriber's wake-ups are part of the cost.
void BM_RecordPathLiveSubscriber(benchmark::State& state) {
    g_bench.Rewind();
    Engine::FtraceTask* task = g_bench.task.get();
    LiveSubscriber* live = g_bench.module->live;
    for (const char* event : kEvents) {
        task->RemoveWatch(g_bench.module->task, "sched", event);
        task->AddWatch(live, "sched", event);
    }
    const size_t received_before = live->received.load();
    const unsigned long dropped_before = live->DroppedMessages();
    ProducerTask producer;
    producer.body = [&] {
        for (auto _ : state) {
            const size_t index = g_bench.NextCpu();
            const auto start = Clock::now();
            g_bench.readers[index]->read_once(task->ftrace(), g_bench.cpus[index].fd,
                                              &Engine::FtraceTask::handle_ftrace_record, task);
            state.SetIterationTime(Seconds(start, Clock::now()));
        }
    };
    producer.runTask();
    // Let the subscriber catch up before counting.
    for (int i = 0; i < 200 && !live->MessageEmpty(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    const size_t records = live->received.load() - received_before;
    for (const char* event : kEvents) {
        task->RemoveWatch(live, "sched", event);
        task->AddWatch(g_bench.module->task, "sched", event);
    }
    Finish(state, records);
    state.counters["dropped"] = static_cast<double>(live->DroppedMessages() - dropped_before);
}

void BM_ConvertOnly(benchmark::State& state) {
    g_bench.Rewind();
    Engine::FtraceTask* task = g_bench.task.get();
    size_t records = 0;
    for (auto _ : state) {
        const size_t index = g_bench.NextCpu();
        const off_t before = lseek(g_bench.cpus[index].fd, 0, SEEK_CUR);
        const auto start = Clock::now();
        g_bench.readers[index]->read_once(task->ftrace(), g_bench.cpus[index].fd, &ConvertOnly, task);
        state.SetIterationTime(Seconds(start, Clock::now()));
        if (lseek(g_bench.cpus[index].fd, 0, SEEK_CUR) != before) {
            // Count this page's records the cheap way, outside the timed region.
            kbuffer* kbuf = NewKbuffer();
            lseek(g_bench.cpus[index].fd, before, SEEK_SET);
            records += WalkPage(kbuf, g_bench.cpus[index].fd, 0, [](tep_record&, tep_event*, kbuffer*) {});
            kbuffer_free(kbuf);
        }
    }
    Finish(state, records);
}

// Keeps ns per record of every run for the ratios printed at the end.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.run_type != Run::RT_Iteration || run.error_occurred) continue;
            const auto it = run.counters.find("records/page");
            if (it == run.counters.end() || it->second.value <= 0) continue;
            const double ns_per_iteration = run.GetAdjustedRealTime() *
                                            benchmark::GetTimeUnitMultiplier(benchmark::kNanosecond) /
                                            benchmark::GetTimeUnitMultiplier(run.time_unit);
            // Repetitions: the least disturbed run counts.
            const double value = ns_per_iteration / it->second.value;
            auto known = ns_per_record.find(run.run_name.function_name);
            if (known == ns_per_record.end() || value < known->second) ns_per_record[run.run_name.function_name] = value;
        }
    }
    std::map<std::string, double> ns_per_record;
};

}  // namespace

BENCHMARK(BM_Floor)->UseManualTime();
BENCHMARK(BM_ConvertOnly)->UseManualTime();
BENCHMARK(BM_RecordPath)->UseManualTime();
BENCHMARK(BM_RecordPathLiveSubscriber)->UseManualTime();
BENCHMARK_TEMPLATE(BM_TextDecoder, false)->Name("BM_TextInfo")->UseManualTime();
BENCHMARK_TEMPLATE(BM_TextDecoder, true)->Name("BM_TextTraceCmdLine")->UseManualTime();

int main(int argc, char** argv) {
    fs::path data = FTRACE_BENCH_DATA_DIR;
    std::vector<char*> args;
    for (int i = 0; i < argc; ++i) {
        if (std::strncmp(argv[i], "--data=", 7) == 0) {
            data = argv[i] + 7;
        } else {
            args.push_back(argv[i]);
        }
    }
    int count = static_cast<int>(args.size());
    benchmark::Initialize(&count, args.data());
    try {
        g_bench.Setup(data);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "record_path_bench: %s\n", e.what());
        return 1;
    }
    size_t pages = 0;
    for (const CpuPages& cpu : g_bench.cpus) pages += cpu.pages;
#ifndef FTRACE_BENCH_ALLOCATOR
#define FTRACE_BENCH_ALLOCATOR "glibc"
#endif
    std::printf("allocator: %s\n", FTRACE_BENCH_ALLOCATOR);
    std::printf("captured pages: %zu on %zu CPUs (%s)\n", pages, g_bench.cpus.size(), data.c_str());
    {
        std::map<std::string, size_t> per_event;
        kbuffer* kbuf = NewKbuffer();
        g_bench.Rewind();
        for (const CpuPages& cpu : g_bench.cpus) {
            for (size_t i = 0; i < cpu.pages; ++i) {
                WalkPage(kbuf, cpu.fd, cpu.cpu, [&](tep_record&, tep_event* event, kbuffer*) {
                    ++per_event[std::string(event->system) + ":" + event->name];
                });
            }
        }
        kbuffer_free(kbuf);
        for (const auto& entry : per_event) std::printf("  %s: %zu records\n", entry.first.c_str(), entry.second);
    }

    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    g_bench.Teardown();

    const auto& r = reporter.ns_per_record;
    auto value = [&](const char* name) {
        const auto it = r.find(name);
        return it == r.end() ? 0.0 : it->second;
    };
    const double floor = value("BM_Floor"), ours = value("BM_RecordPath"), text = value("BM_TextInfo");
    std::printf("\nns per record: floor %.1f, conversion only %.1f, record path %.1f, record path with a live "
                "subscriber %.1f, text (INFO) %.1f, text (trace-cmd line) %.1f\n",
                floor, value("BM_ConvertOnly"), ours, value("BM_RecordPathLiveSubscriber"), text,
                value("BM_TextTraceCmdLine"));
    if (ours > 0) std::printf("record path: %.0f records/s\n", 1e9 / ours);
    if (floor > 0 && ours > 0) std::printf("ratio ours/floor: %.2f\n", ours / floor);
    if (ours > 0 && text > 0) std::printf("ratio text/ours:  %.2f\n", text / ours);
    benchmark::Shutdown();
    return 0;
}
