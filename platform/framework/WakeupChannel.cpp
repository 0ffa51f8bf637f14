#include "Framework/WakeupChannel.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace Framework {

WakeupChannel::WakeupChannel(int eventfd) : m_fd(eventfd >= 0 ? ::fcntl(eventfd, F_DUPFD_CLOEXEC, 0) : -1) {}

WakeupChannel::~WakeupChannel() {
    if (m_fd >= 0) ::close(m_fd);
}

void WakeupChannel::Signal() const {
    if (m_fd < 0) return;
    const uint64_t one = 1;
    // EAGAIN: the counter is saturated, a wake-up is pending anyway.
    ssize_t rc;
    do {
        rc = ::write(m_fd, &one, sizeof one);
    } while (rc < 0 && errno == EINTR);
}

}  // namespace Framework
