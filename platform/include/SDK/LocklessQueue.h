#pragma once
// Bounded lock-free FIFO on which every framework task receives its messages.
//
// A ring of power-of-two size indexed by four free-running 32-bit counters.
// Producers reserve a run of slots by moving m_prod_head (CAS when several
// producers may run), fill the slots, then publish them by moving m_prod_tail
// once every earlier reservation is published. Consumers mirror that on the
// m_cons_* pair. All counter arithmetic is modulo 2^32.

#include <atomic>
#include <cstdint>
#include <utility>
#include <vector>

#if defined(__SANITIZE_THREAD__)
#define SDK_LOCKLESS_QUEUE_UNDER_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define SDK_LOCKLESS_QUEUE_UNDER_TSAN 1
#endif
#endif

#if defined(SDK_LOCKLESS_QUEUE_UNDER_TSAN)
// ThreadSanitizer serialises atomic accesses to one address behind its own
// lock; threads spinning on a tail can then starve the one thread that would
// publish it. Instrumented builds give the CPU away instead of pausing.
#include <sched.h>
#define SDK_LOCKLESS_QUEUE_PAUSE() sched_yield()
#elif defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define SDK_LOCKLESS_QUEUE_PAUSE() _mm_pause()
#elif defined(__aarch64__)
#define SDK_LOCKLESS_QUEUE_PAUSE() asm volatile("yield" ::: "memory")
#else
#define SDK_LOCKLESS_QUEUE_PAUSE() std::atomic_signal_fence(std::memory_order_seq_cst)
#endif

namespace SDK {

template <typename T>
class LocklessQueue {
public:
    // `size` is rounded up to a power of two (at least 2); `capacity` 0 means
    // "as many as there are slots", anything larger is cut to the slot count.
    explicit LocklessQueue(uint32_t size, uint32_t capacity = 0, bool single_producer = false,
                           bool single_consumer = false, bool clear_on_dequeue = true)
        : m_single_producer(single_producer), m_single_consumer(single_consumer),
          m_clear_on_dequeue(clear_on_dequeue) {
        uint32_t slots = 2;
        while (slots < size && slots < (1u << 31)) slots <<= 1;
        m_size = slots;
        m_mask = slots - 1;
        m_capacity = (capacity == 0 || capacity > slots) ? slots : capacity;
        m_buffer = new T[m_size];
    }

    LocklessQueue(const LocklessQueue&) = delete;
    LocklessQueue& operator=(const LocklessQueue&) = delete;

    virtual ~LocklessQueue() {
        if (m_buffer != nullptr) {
            delete[] m_buffer;  // destroys every slot, last to first
            m_buffer = nullptr;
        }
    }

    virtual int Enqueue(const T& item) {
        if (m_buffer == nullptr) return 0;
        std::vector<T> one{item};
        return EnqueueBulk(one, 1);
    }

    // The count argument is ignored on purpose: the whole vector is attempted.
    virtual int EnqueueBulk(const std::vector<T>& items, int /*count*/) {
        if (m_buffer == nullptr) return 0;
        return Publish(static_cast<uint32_t>(items.size()),
                       [&](uint32_t head, uint32_t n) { _EnqueueElements(head, items, n); });
    }

    // What Enqueue does, without the one-element vector: the same reservation
    // and publication, one copy of `item` into its slot. Not virtual: for
    // owners that know the queue's exact type (a task's inbound queue).
    int EnqueueOne(const T& item) {
        if (m_buffer == nullptr) return 0;
        return Publish(1, [&](uint32_t head, uint32_t) { m_buffer[head & m_mask] = item; });
    }

    virtual int Dequeue(T& out) {
        if (m_buffer == nullptr) return 0;
        std::vector<T> one;
        if (DequeueBulk(one, 1) == 1) {
            out = one.front();
            return 1;
        }
        return 0;
    }

    // Appends up to `max` elements (compared unsigned: negative means no limit).
    virtual int DequeueBulk(std::vector<T>& out, int max) {
        if (m_buffer == nullptr) return 0;
        const uint32_t limit = static_cast<uint32_t>(max);
        return Transfer(
            m_cons_head, m_cons_tail, m_single_consumer, limit,
            [this](uint32_t head) { return m_prod_tail.load(std::memory_order_acquire) - head; },
            [&](uint32_t head, uint32_t n) { _DequeueElements(head, out, n); });
    }

    // Read-only views for owners and tests. Approximate while other threads run.
    uint32_t Size() const { return m_size; }
    uint32_t Capacity() const { return m_capacity; }
    uint32_t Count() const {
        return m_prod_tail.load(std::memory_order_acquire) - m_cons_head.load(std::memory_order_acquire);
    }
    bool Empty() const { return Count() == 0; }

protected:
    // Reserves up to `wanted` slots, lets `fill(head, n)` write them and
    // publishes them in reservation order. Returns n (0: no room).
    template <typename Fill>
    int Publish(uint32_t wanted, Fill&& fill) {
        return Transfer(
            m_prod_head, m_prod_tail, m_single_producer, wanted,
            [this](uint32_t head) { return m_capacity + m_cons_tail.load(std::memory_order_acquire) - head; },
            fill);
    }

    // One side's move, producers' or consumers': reserve up to `wanted` of the
    // `room(head)` slots by advancing `head` (compare-and-swap unless this side
    // has a single thread), let `work(head, n)` fill or empty them, then wait
    // for every earlier reservation of this side to finish and advance `tail`.
    template <typename Room, typename Work>
    static int Transfer(std::atomic<uint32_t>& head_counter, std::atomic<uint32_t>& tail_counter, bool single,
                        uint32_t wanted, Room&& room, Work&& work) {
        uint32_t head = head_counter.load(std::memory_order_relaxed);
        uint32_t next, n;
        if (!single) {
            do {
                const uint32_t available = room(head);
                n = wanted < available ? wanted : available;
                if (n == 0) return 0;
                next = head + n;
            } while (!head_counter.compare_exchange_weak(head, next, std::memory_order_relaxed,
                                                         std::memory_order_relaxed));
        } else {
            const uint32_t available = room(head);
            n = wanted < available ? wanted : available;
            if (n == 0) return 0;
            next = head + n;
            head_counter.store(next, std::memory_order_relaxed);
        }
        work(head, n);
        if (!single) {
            while (tail_counter.load(std::memory_order_acquire) != head) SDK_LOCKLESS_QUEUE_PAUSE();
        }
        tail_counter.store(next, std::memory_order_release);
        return static_cast<int>(n);
    }

    // Lets tests start the counters just below the 2^32 wrap. Only on an unused queue.
    void SetCountersForTesting(uint32_t value) {
        m_prod_head = m_prod_tail = m_cons_head = m_cons_tail = value;
    }

    void _EnqueueElements(unsigned int head, const std::vector<T>& items, unsigned int n) {
        const uint32_t index = head & m_mask;
        if (index + n < m_size) {
            unsigned int i = 0;
            for (; i + 4 <= n; i += 4) {
                m_buffer[index + i] = items[i];
                m_buffer[index + i + 1] = items[i + 1];
                m_buffer[index + i + 2] = items[i + 2];
                m_buffer[index + i + 3] = items[i + 3];
            }
            for (; i < n; ++i) m_buffer[index + i] = items[i];
        } else {
            unsigned int i = 0;
            for (uint32_t slot = index; slot < m_size; ++slot, ++i) m_buffer[slot] = items[i];
            for (uint32_t slot = 0; i < n; ++slot, ++i) m_buffer[slot] = items[i];
        }
    }

    void _DequeueElements(unsigned int head, std::vector<T>& out, unsigned int n) {
        uint32_t slot = head & m_mask;
        for (unsigned int i = 0; i < n; ++i) {
            if (m_clear_on_dequeue) {
                // Same end state as copying then clearing, without touching a
                // shared element's reference count twice.
                out.push_back(std::move(m_buffer[slot]));
                m_buffer[slot] = T();
            } else {
                out.push_back(m_buffer[slot]);
            }
            slot = (slot + 1) & m_mask;
        }
    }

    // Producer group and consumer group each on a cache line of their own.
    alignas(64) std::atomic<uint32_t> m_prod_head{0};
    std::atomic<uint32_t> m_prod_tail{0};
    uint32_t m_prod_reserved{0};
    alignas(64) std::atomic<uint32_t> m_cons_head{0};
    std::atomic<uint32_t> m_cons_tail{0};
    uint32_t m_cons_reserved{0};
    alignas(64) bool m_single_producer;
    bool m_single_consumer;
    uint32_t m_size{0};
    uint32_t m_mask{0};
    uint32_t m_capacity{0};
    bool m_clear_on_dequeue;
    T* m_buffer{nullptr};
};

}  // namespace SDK
