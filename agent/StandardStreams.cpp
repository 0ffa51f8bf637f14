#include "StandardStreams.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace Agent {

bool StandardStreams::OpenClosedOnDevNull() {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (fcntl(fd, F_GETFD) != -1 || errno != EBADF) continue;
        // The lowest free number: this one, as the lower ones are open by now.
        const int null_fd = open("/dev/null", fd == STDIN_FILENO ? O_RDONLY : O_WRONLY);
        if (null_fd < 0) return false;
        if (null_fd != fd) {
            dup2(null_fd, fd);
            close(null_fd);
        }
    }
    return true;
}

}  // namespace Agent
