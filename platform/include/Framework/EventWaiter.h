#pragma once
#include <chrono>
#include <vector>

struct epoll_event;

namespace Framework {

class Event;

// epoll-based multiplexer owned by a task and used only on that task's thread.
class EventWaiter {
public:
    EventWaiter();
    ~EventWaiter();
    EventWaiter(const EventWaiter&) = delete;
    EventWaiter& operator=(const EventWaiter&) = delete;

    // Watches the event's descriptor for input. The event must stay at the same
    // address until removed or until the waiter is destroyed. 0 on success, -1
    // on failure (for example a descriptor of -1).
    int AddEvent(Event& event);
    int RemoveEvent(Event& event);

    // Waits up to `timeout_ms` (negative: no limit) for registered descriptors
    // to become ready and calls HandleEvent on at most `max_events` of them,
    // on the calling thread. Returns how many were handled (0 on time-out, -1 on error).
    int WaitAndHandleEvent(int timeout_ms, int max_events);

    bool IsValid() const { return m_epoll_fd >= 0; }

    // The next WaitAndHandleEvent runs its before-wait hook, then sleeps until
    // `when` (no longer than its time-out, which the sleep counts against)
    // before it looks at the descriptors: a task that wants its descriptors to
    // fill up before it reads them again. Nothing is held off when the hook
    // asks for a poll. Applies to one wait only.
    void HoldOffUntil(std::chrono::steady_clock::time_point when) { m_hold_off_until = when; }

    // Called right before every wait; when it returns true the wait only
    // polls (time-out 0). A task uses it to arm its wake-up only when it is
    // about to sleep, and to wake those it enqueued to meanwhile.
    using BeforeWait = bool (*)(void* context);
    void SetBeforeWait(BeforeWait hook, void* context) {
        m_before_wait = hook;
        m_before_wait_context = context;
    }

private:
    int m_epoll_fd = -1;
    std::vector<epoll_event> m_ready;
    BeforeWait m_before_wait = nullptr;
    void* m_before_wait_context = nullptr;
    std::chrono::steady_clock::time_point m_hold_off_until{};
};

}  // namespace Framework
