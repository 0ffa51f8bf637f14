#include "Framework/EventWaiter.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

#include "Framework/Event.h"

namespace Framework {

EventWaiter::EventWaiter() : m_epoll_fd(::epoll_create1(EPOLL_CLOEXEC)) {}

EventWaiter::~EventWaiter() {
    if (m_epoll_fd >= 0) ::close(m_epoll_fd);
}

int EventWaiter::AddEvent(Event& event) {
    if (m_epoll_fd < 0 || event.Fd() < 0) return -1;
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.ptr = &event;
    if (::epoll_ctl(m_epoll_fd, EPOLL_CTL_ADD, event.Fd(), &ev) == 0) return 0;
    // Re-adding a descriptor re-points it at this event.
    if (errno == EEXIST && ::epoll_ctl(m_epoll_fd, EPOLL_CTL_MOD, event.Fd(), &ev) == 0) return 0;
    return -1;
}

int EventWaiter::RemoveEvent(Event& event) {
    if (m_epoll_fd < 0 || event.Fd() < 0) return -1;
    return ::epoll_ctl(m_epoll_fd, EPOLL_CTL_DEL, event.Fd(), nullptr) == 0 ? 0 : -1;
}

int EventWaiter::WaitAndHandleEvent(int timeout_ms, int max_events) {
    if (m_epoll_fd < 0 || max_events <= 0) {
        errno = m_epoll_fd < 0 ? EBADF : EINVAL;
        return -1;
    }
    if (m_ready.size() < static_cast<size_t>(max_events)) m_ready.resize(static_cast<size_t>(max_events));
    // The hook runs before any hold-off: the tasks this one enqueued to are
    // woken before it sleeps, not after.
    if (m_before_wait != nullptr && m_before_wait(m_before_wait_context)) timeout_ms = 0;
    if (m_hold_off_until != std::chrono::steady_clock::time_point{}) {
        const auto hold = m_hold_off_until - std::chrono::steady_clock::now();
        m_hold_off_until = {};
        if (timeout_ms != 0 && hold > hold.zero()) {
            const auto ms = std::chrono::ceil<std::chrono::milliseconds>(hold);
            if (timeout_ms > 0 && ms.count() >= timeout_ms) {
                std::this_thread::sleep_for(std::chrono::milliseconds(timeout_ms));
                timeout_ms = 0;
            } else {
                std::this_thread::sleep_for(hold);
                if (timeout_ms > 0) timeout_ms -= static_cast<int>(ms.count());
            }
        }
    }
    const int n = ::epoll_wait(m_epoll_fd, m_ready.data(), max_events, timeout_ms);
    if (n < 0) return errno == EINTR ? 0 : -1;
    for (int i = 0; i < n; ++i) {
        static_cast<Event*>(m_ready[static_cast<size_t>(i)].data.ptr)->HandleEvent(m_ready[static_cast<size_t>(i)].events);
    }
    return n;
}

}  // namespace Framework
