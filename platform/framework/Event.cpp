#include "Framework/Event.h"

#include <unistd.h>

namespace Framework {

Event::Event(AbstractEventCallback* callback, void* context, int fd)
    : m_callback(callback), m_context(context), m_fd(fd) {}

Event::Event(Event&& other) noexcept
    : m_callback(other.m_callback), m_context(other.m_context), m_fd(other.m_fd) {
    other.m_callback = nullptr;
    other.m_context = nullptr;
    other.m_fd = -1;
}

Event& Event::operator=(Event&& other) noexcept {
    if (this != &other) {
        Release();
        m_callback = other.m_callback;
        m_context = other.m_context;
        m_fd = other.m_fd;
        other.m_callback = nullptr;
        other.m_context = nullptr;
        other.m_fd = -1;
    }
    return *this;
}

Event::~Event() { Release(); }

int Event::HandleEvent(unsigned int events) {
    if (m_callback == nullptr) return -1;
    return m_callback->invoke(m_fd, events, m_context);
}

void Event::Release() noexcept {
    delete m_callback;
    m_callback = nullptr;
    // Closing the last reference also drops the descriptor from any epoll set.
    if (m_fd >= 0) ::close(m_fd);
    m_fd = -1;
}

}  // namespace Framework
