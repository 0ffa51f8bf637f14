#include "InstanceLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace Agent {

InstanceLock::InstanceLock(const std::string& instance_name) {
    // /run is writable by root only: nobody else can plant or hold the lock.
    struct stat st {};
    const std::string dir = stat("/run", &st) == 0 && S_ISDIR(st.st_mode) ? "/run" : "/tmp";
    m_path = dir + "/ftrace-agent." + instance_name + ".lock";
}

InstanceLock::~InstanceLock() {
    if (m_fd >= 0) close(m_fd);  // releases the lock; the file stays for the next run
}

bool InstanceLock::TryAcquire(std::string* holder, std::string* error) {
    m_fd = open(m_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644);
    if (m_fd < 0) {
        *error = m_path + ": " + std::strerror(errno);
        return false;
    }
    struct stat st {};
    if (fstat(m_fd, &st) != 0 || st.st_uid != geteuid() || !S_ISREG(st.st_mode)) {
        *error = m_path + ": not a regular file of this user; remove it";
        close(m_fd);
        m_fd = -1;
        return false;
    }
    if (flock(m_fd, LOCK_EX | LOCK_NB) != 0) {
        const int saved = errno;
        if (saved == EWOULDBLOCK) {
            char text[32] = {};
            const ssize_t n = pread(m_fd, text, sizeof text - 1, 0);
            *holder = n > 0 ? std::string(text, static_cast<size_t>(n)) : std::string();
            while (!holder->empty() && (holder->back() == '\n' || holder->back() == ' ')) holder->pop_back();
        } else {
            *error = m_path + ": " + std::strerror(saved);
        }
        close(m_fd);
        m_fd = -1;
        return false;
    }
    Refresh();
    return true;
}

void InstanceLock::Refresh() {
    if (m_fd < 0) return;
    const std::string pid = std::to_string(getpid()) + "\n";
    if (ftruncate(m_fd, 0) == 0) {
        [[maybe_unused]] const ssize_t n = pwrite(m_fd, pid.data(), pid.size(), 0);
    }
}

}  // namespace Agent
