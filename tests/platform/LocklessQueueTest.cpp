// The lock-free queue: real concurrency (nothing lost or duplicated, each
// producer's order kept), positions at the end of the ring and across the
// 2^32 counter wrap, partial batches, and who holds references when.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <ostream>
#include <thread>
#include <vector>

#include "SDK/LocklessQueue.h"

namespace {

struct Tag {
    int producer;
    int seq;
};
using Ptr = std::shared_ptr<const Tag>;

// Lets a test start the four counters anywhere, e.g. just below 2^32.
class PositionedQueue : public SDK::LocklessQueue<Ptr> {
public:
    using LocklessQueue::LocklessQueue;
    void StartAt(uint32_t counter) { SetCountersForTesting(counter); }
};

std::vector<Ptr> MakeBatch(int first, int count) {
    std::vector<Ptr> batch;
    for (int i = 0; i < count; ++i) batch.push_back(std::make_shared<Tag>(Tag{0, first + i}));
    return batch;
}

std::vector<int> Seqs(const std::vector<Ptr>& items) {
    std::vector<int> seqs;
    for (const auto& p : items) seqs.push_back(p->seq);
    return seqs;
}

std::vector<int> Range(int first, int count) {
    std::vector<int> r;
    for (int i = 0; i < count; ++i) r.push_back(first + i);
    return r;
}

struct ConcurrencyCase {
    const char* name;
    int producers, consumers;
    bool single_producer, single_consumer;
    int batch;  // 1: Enqueue, else EnqueueBulk
};

void PrintTo(const ConcurrencyCase& c, std::ostream* os) { *os << c.name; }

class QueueConcurrency : public ::testing::TestWithParam<ConcurrencyCase> {};

TEST_P(QueueConcurrency, NothingLostOrDuplicatedAndProducerOrderKept) {
    ConcurrencyCase c = GetParam();
    // Publication is in reservation order with a pure spin: with more spinning
    // producers than CPUs they convoy behind whichever one is preempted (the
    // design accepts that), so a test of correctness stays within the CPUs.
    c.producers = std::min(c.producers, std::max(2, static_cast<int>(std::thread::hardware_concurrency())));
    constexpr int kPerProducer = 20000;
    SDK::LocklessQueue<Ptr> queue(64, 0, c.single_producer, c.single_consumer, true);
    std::atomic<int> producing{c.producers};
    std::vector<std::vector<Ptr>> received(static_cast<size_t>(c.consumers));
    std::vector<std::thread> threads;
    for (int p = 0; p < c.producers; ++p) {
        threads.emplace_back([&, p] {
            std::vector<Ptr> batch;
            for (int seq = 0; seq < kPerProducer;) {
                batch.clear();
                for (int i = 0; i < c.batch && seq + i < kPerProducer; ++i) {
                    batch.push_back(std::make_shared<Tag>(Tag{p, seq + i}));
                }
                while (!batch.empty()) {  // retry the part that did not fit
                    const int n = c.batch == 1 ? queue.Enqueue(batch[0]) : queue.EnqueueBulk(batch, 0);
                    if (n == 0) std::this_thread::yield();
                    batch.erase(batch.begin(), batch.begin() + n);
                    seq += n;
                }
            }
            producing.fetch_sub(1);
        });
    }
    for (int k = 0; k < c.consumers; ++k) {
        threads.emplace_back([&, k] {
            for (;;) {
                const bool done = producing.load() == 0;  // read first: a last empty pass ends it
                if (queue.DequeueBulk(received[static_cast<size_t>(k)], 32) == 0) {
                    if (done) break;
                    std::this_thread::yield();
                }
            }
        });
    }
    for (auto& t : threads) t.join();

    std::vector<std::vector<int>> seen(static_cast<size_t>(c.producers), std::vector<int>(kPerProducer, 0));
    for (const auto& mine : received) {
        std::vector<int> last(static_cast<size_t>(c.producers), -1);
        for (const auto& tag : mine) {
            ASSERT_TRUE(tag);
            EXPECT_GT(tag->seq, last[static_cast<size_t>(tag->producer)]) << "producer order broken";
            last[static_cast<size_t>(tag->producer)] = tag->seq;
            ++seen[static_cast<size_t>(tag->producer)][static_cast<size_t>(tag->seq)];
        }
    }
    for (const auto& per_producer : seen) {
        for (int count : per_producer) ASSERT_EQ(count, 1) << "lost or duplicated";
    }
    EXPECT_EQ(queue.Count(), 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Configurations, QueueConcurrency,
    ::testing::Values(ConcurrencyCase{"TaskQueue", 4, 1, false, true, 1},
                      ConcurrencyCase{"BulkProducers", 3, 1, false, true, 16},
                      ConcurrencyCase{"SingleSingle", 1, 1, true, true, 1},
                      ConcurrencyCase{"ManyToMany", 3, 2, false, false, 8}),
    [](const auto& info) { return std::string(info.param.name); });

struct RingCase {
    const char* name;
    uint32_t start;  // all four counters
    int batch;
};

void PrintTo(const RingCase& c, std::ostream* os) { *os << c.name; }

class QueueRing : public ::testing::TestWithParam<RingCase> {};

TEST_P(QueueRing, BatchesKeepFifoOrderAtAnyPosition) {
    const RingCase c = GetParam();
    PositionedQueue queue(8, 0, false, false, true);
    queue.StartAt(c.start);
    for (int round = 0; round < 3; ++round) {  // later rounds start where the last ended
        const int first = round * 100;
        ASSERT_EQ(queue.EnqueueBulk(MakeBatch(first, c.batch), 0), c.batch);  // count 0 is ignored
        EXPECT_EQ(queue.Count(), static_cast<uint32_t>(c.batch));
        std::vector<Ptr> out;
        EXPECT_EQ(queue.DequeueBulk(out, c.batch / 2), c.batch / 2);
        EXPECT_EQ(queue.DequeueBulk(out, -1), c.batch - c.batch / 2);
        EXPECT_EQ(Seqs(out), Range(first, c.batch));
    }
    EXPECT_TRUE(queue.Empty());
}

INSTANTIATE_TEST_SUITE_P(Positions, QueueRing,
                         ::testing::Values(RingCase{"FitsBeforeEnd", 0, 7}, RingCase{"EndsAtLastSlot", 5, 3},
                                           RingCase{"CrossesEnd", 6, 5}, RingCase{"WholeRing", 0, 8},
                                           RingCase{"WholeRingFromMiddle", 3, 8},
                                           RingCase{"CountersWrap", 0xFFFFFFFDu, 6},
                                           RingCase{"CountersWrapAtRingEnd", 0xFFFFFFF9u, 7}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(LocklessQueue, PartialAndEmptyOperations) {
    SDK::LocklessQueue<Ptr> queue(8);
    EXPECT_EQ(queue.EnqueueBulk({}, 5), 0);
    EXPECT_EQ(queue.EnqueueBulk(MakeBatch(0, 6), 6), 6);
    EXPECT_EQ(queue.EnqueueBulk(MakeBatch(6, 5), 5), 2);  // room for two: the first two
    EXPECT_EQ(queue.Enqueue(MakeBatch(99, 1)[0]), 0);

    std::vector<Ptr> out = MakeBatch(-1, 1);
    EXPECT_EQ(queue.DequeueBulk(out, 0), 0);
    EXPECT_EQ(queue.DequeueBulk(out, -1), 8);  // appended after what was there
    EXPECT_EQ(Seqs(out), Range(-1, 9));

    Ptr untouched = out[0];
    EXPECT_EQ(queue.Dequeue(untouched), 0);
    EXPECT_EQ(untouched, out[0]);

    SDK::LocklessQueue<Ptr> limited(8, 3);  // capacity below the slot count
    EXPECT_EQ(limited.EnqueueBulk(MakeBatch(0, 5), 5), 3);
    EXPECT_EQ(limited.Size(), 8u);
}

TEST(LocklessQueue, ReferencesHeldBySlots) {
    for (bool clear : {true, false}) {
        SCOPED_TRACE(clear ? "clear on dequeue" : "keep until reused");
        auto first = std::make_shared<const Tag>(Tag{0, 1});
        auto other = std::make_shared<const Tag>(Tag{0, 2});
        {
            SDK::LocklessQueue<Ptr> queue(2, 0, true, true, clear);
            ASSERT_EQ(queue.Enqueue(first), 1);
            EXPECT_EQ(first.use_count(), 2);
            Ptr out;
            ASSERT_EQ(queue.Dequeue(out), 1);
            out.reset();
            EXPECT_EQ(first.use_count(), clear ? 1 : 2);
            ASSERT_EQ(queue.Enqueue(other), 1);  // slot 1
            ASSERT_EQ(queue.Enqueue(other), 1);  // slot 0 again: overwrites `first`
            EXPECT_EQ(first.use_count(), 1);
            EXPECT_EQ(other.use_count(), 3);
        }
        EXPECT_EQ(other.use_count(), 1);  // never dequeued, released by the destructor
    }
}

}  // namespace
