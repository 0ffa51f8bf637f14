// Throughput of a task's inbound queue: several producers, one consumer, the
// element a shared message pointer. SDK::LocklessQueue in the configuration a
// task uses (several producers, one consumer, clear on dequeue, bulk dequeue
// as BulkConsumeMsg does), fed through its own single-element Enqueue and
// through the allocation-free path of Framework::Task::EnqueueMsg, against a
// std::mutex + std::deque queue and moodycamel::ConcurrentQueue (bounded alike
// where they can be). Prints the ratios after the table. A run that stalls is
// stopped after kRunLimit and counts what got through.
#include <benchmark/benchmark.h>
#include <concurrentqueue/concurrentqueue.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "SDK/LocklessQueue.h"

namespace {

using Ptr = std::shared_ptr<const int>;
constexpr int kMessagesPerRun = 400000;
constexpr int kQueueSlots = 8192;  // the ftrace task's queue size
constexpr int kBatch = 1024;       // the ftrace task's consume batch
constexpr int kPoolSize = 4 * kQueueSlots;  // messages per producer, reused round-robin
constexpr std::chrono::seconds kRunLimit{5};

class LocklessAdapter {
public:
    bool Push(const Ptr& p) { return m_queue.Enqueue(p) == 1; }
    size_t PopBatch(std::vector<Ptr>& out) { return static_cast<size_t>(m_queue.DequeueBulk(out, kBatch)); }

private:
    SDK::LocklessQueue<Ptr> m_queue{kQueueSlots, 0, false, true, true};
};

// The path Framework::Task::EnqueueMsg takes: EnqueueOne, no vector at all.
class LocklessTaskPathAdapter {
public:
    bool Push(const Ptr& p) { return m_queue.EnqueueOne(p) == 1; }
    size_t PopBatch(std::vector<Ptr>& out) { return static_cast<size_t>(m_queue.DequeueBulk(out, kBatch)); }

private:
    SDK::LocklessQueue<Ptr> m_queue{kQueueSlots, 0, false, true, true};
};

class MutexDequeAdapter {
public:
    bool Push(const Ptr& p) {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_items.size() >= kQueueSlots) return false;
        m_items.push_back(p);
        return true;
    }
    size_t PopBatch(std::vector<Ptr>& out) {
        std::lock_guard<std::mutex> lock(m_mutex);
        const size_t n = std::min(m_items.size(), static_cast<size_t>(kBatch));
        for (size_t i = 0; i < n; ++i) {
            out.push_back(std::move(m_items.front()));
            m_items.pop_front();
        }
        return n;
    }

private:
    std::mutex m_mutex;
    std::deque<Ptr> m_items;
};

class MoodycamelAdapter {
public:
    bool Push(const Ptr& p) { return m_queue.enqueue(p); }  // no producer token: callers are arbitrary threads
    size_t PopBatch(std::vector<Ptr>& out) {
        const size_t before = out.size();
        out.resize(before + kBatch);
        const size_t n = m_queue.try_dequeue_bulk(out.begin() + static_cast<long>(before), kBatch);
        out.resize(before + n);
        return n;
    }

private:
    moodycamel::ConcurrentQueue<Ptr> m_queue{kQueueSlots};
};

template <typename Queue>
void BM_Queue(benchmark::State& state) {
    const int producers = static_cast<int>(state.range(0));
    const int per_producer = kMessagesPerRun / producers;
    const int total = per_producer * producers;
    int64_t delivered = 0;
    int stalled = 0;
    for (auto _ : state) {
        Queue queue;
        std::atomic<int> ready{0};
        std::atomic<bool> go{false};
        std::atomic<bool> stop{false};
        std::vector<std::thread> threads;
        for (int p = 0; p < producers; ++p) {
            threads.emplace_back([&, p] {
                // Distinct messages, as records are: one shared object for all
                // would measure contention on its reference count instead.
                std::vector<Ptr> pool;
                for (int i = 0; i < kPoolSize; ++i) pool.push_back(std::make_shared<const int>(p));
                ready.fetch_add(1);
                while (!go.load(std::memory_order_acquire)) std::this_thread::yield();
                for (int i = 0; i < per_producer && !stop.load(std::memory_order_relaxed); ++i) {
                    while (!queue.Push(pool[static_cast<size_t>(i % kPoolSize)])) {
                        if (stop.load(std::memory_order_relaxed)) break;
                        std::this_thread::yield();
                    }
                }
            });
        }
        while (ready.load() != producers) std::this_thread::yield();
        std::vector<Ptr> batch;
        batch.reserve(kBatch);
        const auto start = std::chrono::steady_clock::now();
        const auto give_up = start + kRunLimit;
        go.store(true, std::memory_order_release);
        int received = 0;
        for (unsigned polls = 0; received < total; ++polls) {
            batch.clear();
            const size_t n = queue.PopBatch(batch);
            if (n == 0) std::this_thread::yield();
            received += static_cast<int>(n);
            // More producers than CPUs can convoy behind a preempted producer
            // (publication is in reservation order); measure what got through.
            if (polls % 256 == 0 && std::chrono::steady_clock::now() > give_up) {
                ++stalled;
                break;
            }
        }
        const auto stop_time = std::chrono::steady_clock::now();
        stop = true;
        for (auto& t : threads) t.join();
        delivered += received;
        state.SetIterationTime(std::chrono::duration<double>(stop_time - start).count());
    }
    state.SetItemsProcessed(delivered);
    state.counters["stalled_runs"] = stalled;
}

#define QUEUE_BENCH(Adapter, label)                                                   \
    BENCHMARK_TEMPLATE(BM_Queue, Adapter)                                               \
        ->Name(label)                                                                   \
        ->ArgName("producers")                                                          \
        ->Arg(1)                                                                        \
        ->Arg(2)                                                                        \
        ->Arg(4)                                                                        \
        ->UseManualTime()                                                               \
        ->Unit(benchmark::kMillisecond)

QUEUE_BENCH(LocklessAdapter, "lockless");
QUEUE_BENCH(LocklessTaskPathAdapter, "lockless_task_path");
QUEUE_BENCH(MutexDequeAdapter, "mutex_deque");

QUEUE_BENCH(MoodycamelAdapter, "moodycamel");

// Console output plus a record of messages/s per (queue, producers) for the summary.
class SummaryReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const auto& run : runs) {
            if (run.run_type != Run::RT_Iteration && run.aggregate_name != "median") continue;
            auto it = run.counters.find("items_per_second");
            if (it == run.counters.end()) continue;
            const std::string name = run.run_name.function_name;  // "lockless", ...
            const std::string args = run.run_name.args;           // "producers:4"
            m_rates[args][name] = it->second.value;
            auto stalled = run.counters.find("stalled_runs");
            if (stalled != run.counters.end()) m_stalled[args][name] = stalled->second.value;
        }
    }
    void PrintSummary() const {
        std::printf("\nmessages/s, one consumer; ratios of the lockless queue on the task path to the others\n");
        std::printf("%-12s %12s %12s %12s %12s %9s %9s\n", "producers", "lockless", "task_path", "mutex_deque",
                    "moodycamel", "vs mutex", "vs moody");
        for (const auto& [args, rates] : m_rates) {
            auto get = [&](const char* q) {
                auto it = rates.find(q);
                return it == rates.end() ? 0.0 : it->second;
            };
            const double l = get("lockless"), t = get("lockless_task_path"), m = get("mutex_deque"),
                         c = get("moodycamel");
            std::printf("%-12s %12.0f %12.0f %12.0f %12.0f %9.2f %9.2f\n", args.c_str(), l, t, m, c,
                        m > 0 ? t / m : 0.0, c > 0 ? t / c : 0.0);
            for (const auto& [queue, count] : m_stalled.count(args) ? m_stalled.at(args) : decltype(m_stalled)::mapped_type{}) {
                if (count > 0) {
                    std::printf("%-12s %s: runs stopped after %lld s (convoy behind a preempted producer)\n", "",
                                queue.c_str(), static_cast<long long>(kRunLimit.count()));
                }
            }
        }
    }

private:
    std::map<std::string, std::map<std::string, double>> m_rates;
    std::map<std::string, std::map<std::string, double>> m_stalled;
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    SummaryReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.PrintSummary();
    benchmark::Shutdown();
    return 0;
}
