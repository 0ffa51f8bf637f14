// The lock-free queue: real concurrency (nothing lost or duplicated, each
// producer's order kept), batches at the end of the ring and across the 2^32
// counter wrap and partial batches. That its slots let go of what they held
// is checked through a task's queue (FrameworkTest).
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <numeric>
#include <thread>
#include <vector>

#include "SDK/LocklessQueue.h"

namespace {

struct Tag {
    int producer, seq;
};
using Ptr = std::shared_ptr<const Tag>;

// Starts the four counters anywhere, e.g. just below 2^32.
struct PositionedQueue : SDK::LocklessQueue<int> {
    PositionedQueue(uint32_t capacity, uint32_t start) : LocklessQueue(8, capacity) { SetCountersForTesting(start); }
};

std::vector<int> Batch(int first, int count) {
    std::vector<int> batch(static_cast<size_t>(count));
    std::iota(batch.begin(), batch.end(), first);
    return batch;
}

TEST(LocklessQueue, NothingLostOrDuplicatedAndProducerOrderKept) {
    const struct {
        int producers, consumers;
        bool single_producer, single_consumer;
        int batch;  // 1: Enqueue, else EnqueueBulk
    } cases[] = {{4, 1, false, true, 1}, {3, 1, false, true, 16}, {1, 1, true, true, 1}, {3, 2, false, false, 8}};
    constexpr int kPerProducer = 20000;
    for (const auto& c : cases) {
        // Publication is in reservation order with a pure spin: with more spinning
        // producers than CPUs they convoy behind whichever one is preempted (the
        // design accepts that), so a test of correctness stays within the CPUs.
        const int cpus = std::max(2, static_cast<int>(std::thread::hardware_concurrency()));
        const int producers = std::min(c.producers, cpus);
        SCOPED_TRACE(testing::Message() << producers << " producers, " << c.consumers << " consumers, batch "
                                        << c.batch);
        SDK::LocklessQueue<Ptr> queue(64, 0, c.single_producer, c.single_consumer, true);
        std::atomic<int> producing{producers};
        std::vector<std::vector<Ptr>> received(static_cast<size_t>(c.consumers));
        std::vector<std::thread> threads;
        for (int p = 0; p < producers; ++p) {
            threads.emplace_back([&, p] {
                std::vector<Ptr> batch;
                for (int seq = 0; seq < kPerProducer;) {
                    for (int i = 0; i < c.batch && seq + i < kPerProducer; ++i)
                        batch.push_back(std::make_shared<Tag>(Tag{p, seq + i}));
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
        for (auto& mine : received) {
            threads.emplace_back([&] {
                // producing is read first: an empty pass after the last producer ended ends it.
                for (bool done = false; !done; std::this_thread::yield()) {
                    done = producing.load() == 0;
                    while (queue.DequeueBulk(mine, 32) != 0) done = false;
                }
            });
        }
        for (auto& t : threads) t.join();

        std::vector<std::vector<int>> seen(static_cast<size_t>(producers), std::vector<int>(kPerProducer, 0));
        for (const auto& mine : received) {
            std::vector<int> last(static_cast<size_t>(producers), -1);
            for (const auto& tag : mine) {
                EXPECT_GT(tag->seq, last[tag->producer]) << "producer order broken";
                last[tag->producer] = tag->seq;
                ++seen[tag->producer][tag->seq];
            }
        }
        for (const auto& per_producer : seen)
            ASSERT_EQ(std::count(per_producer.begin(), per_producer.end(), 1), kPerProducer) << "lost or duplicated";
    }
}

TEST(LocklessQueue, BatchesKeepFifoOrderAtAnyPositionAndStopWhenFull) {
    // Where all four counters start, batch size.
    const std::pair<uint32_t, int> cases[] = {{0, 7}, {5, 3}, {6, 5}, {3, 8}, {0xFFFFFFFDu, 6}, {0xFFFFFFF9u, 7}};
    for (const auto& [start, batch] : cases) {
        SCOPED_TRACE(testing::Message() << "start " << start << " batch " << batch);
        PositionedQueue queue(0, start);
        for (int round = 0; round < 3; ++round) {  // later rounds start where the last ended
            ASSERT_EQ(queue.EnqueueBulk(Batch(round * 100, batch), 0), batch);  // the count is ignored
            std::vector<int> out;
            EXPECT_EQ(queue.DequeueBulk(out, batch / 2), batch / 2);
            EXPECT_EQ(queue.DequeueBulk(out, -1), batch - batch / 2);
            EXPECT_EQ(out, Batch(round * 100, batch));
        }
        EXPECT_TRUE(queue.Empty());
    }
    PositionedQueue limited(3, 0xFFFFFFFEu);  // capacity below the slot count
    EXPECT_EQ(limited.EnqueueBulk(Batch(0, 5), 5), 3);  // room for three: the first three
    EXPECT_EQ(limited.Enqueue(9), 0);
    std::vector<int> out = {-1};
    EXPECT_EQ(limited.DequeueBulk(out, -1), 3);  // appended after what was there
    EXPECT_EQ(out, Batch(-1, 4));
}

// Its copy into a slot waits at the gate when it carries 1, so that a
// producer can be held half-way through filling its reservation.
struct Gated {
    static inline std::atomic<bool> waiting{false}, open{false};
    int value;
    explicit Gated(int v = 0) : value(v) {}
    Gated(const Gated&) = default;
    Gated& operator=(const Gated& other) {
        if (other.value == 1) {
            waiting = true;
            while (!open) std::this_thread::yield();
        }
        value = other.value;
        return *this;
    }
};

// A later reservation is published only after every earlier one: while the
// first producer still fills its slot, the consumer must see nothing.
TEST(LocklessQueue, APublicationWaitsForEveryEarlierReservation) {
    SDK::LocklessQueue<Gated> queue(8, 0, false, true, true);
    std::thread first([&] { queue.Enqueue(Gated{1}); });
    while (!Gated::waiting) std::this_thread::yield();
    std::thread second([&] { queue.Enqueue(Gated{2}); });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // the second has filled its slot
    std::vector<Gated> out;
    const int early = queue.DequeueBulk(out, 8);
    Gated::open = true;
    first.join();
    second.join();
    ASSERT_EQ(early, 0) << "a slot still being filled was published";
    EXPECT_EQ(queue.DequeueBulk(out, -1), 2);
    EXPECT_TRUE(out.size() == 2 && out[0].value == 1 && out[1].value == 2);
}

}  // namespace
