#include "SDK/FileUtils.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace SDK {

int FileUtils::ReadFile(const std::string& path, std::string& out, long max_size) {
    out.clear();
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return -1;
    // Pseudo files report size 0, so read until end of file instead of trusting stat.
    char chunk[4096];
    int result = 0;
    for (;;) {
        const ssize_t n = ::read(fd, chunk, sizeof chunk);
        if (n < 0) {
            if (errno == EINTR) continue;
            result = -1;
            break;
        }
        if (n == 0) break;
        if (max_size >= 0 && static_cast<long>(out.size()) + n > max_size) {
            result = -2;
            break;
        }
        out.append(chunk, static_cast<size_t>(n));
    }
    ::close(fd);
    if (result != 0) out.clear();
    return result;
}

}  // namespace SDK
