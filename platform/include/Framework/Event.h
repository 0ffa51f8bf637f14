#pragma once
#include "Framework/AbstractEventCallback.h"

namespace Framework {

// A descriptor to wait on, with what to call when it is ready. The event owns
// both its callback (deleted) and its descriptor (closed) when destroyed.
// Ownership moves with the event; it cannot be copied, so a std::vector of
// events grows by moving them (an EventWaiter keeps the event's address, so
// registered events must not move at all).
class Event {
public:
    Event() = default;
    Event(AbstractEventCallback* callback, void* context, int fd);
    Event(Event&& other) noexcept;
    Event& operator=(Event&& other) noexcept;
    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;
    virtual ~Event();

    // Calls the callback with this event's descriptor, `events` and context.
    virtual int HandleEvent(unsigned int events);

    int Fd() const { return m_fd; }
    void* Context() const { return m_context; }

private:
    void Release() noexcept;

    AbstractEventCallback* m_callback = nullptr;
    void* m_context = nullptr;
    int m_fd = -1;
};

}  // namespace Framework
