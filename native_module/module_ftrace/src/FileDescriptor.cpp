#include "FileDescriptor.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <system_error>

FileDescriptor& FileDescriptor::operator=(FileDescriptor&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
}

int FileDescriptor::release() noexcept {
    const int value = fd;
    fd = -1;
    return value;
}

void FileDescriptor::reset(int value) noexcept {
    if (fd >= 0) ::close(fd);  // nothing useful can be done about a failed close
    fd = value;
}

namespace {

struct stat StatOrThrow(const FileDescriptor& fd) {
    struct stat st {};
    if (::fstat(fd.get(), &st) == -1) throw std::system_error(errno, std::system_category(), "fstat");
    return st;
}

}  // namespace

mode_t mode(const FileDescriptor& fd) { return StatOrThrow(fd).st_mode; }

off_t size(const FileDescriptor& fd) { return StatOrThrow(fd).st_size; }

std::string filename(const FileDescriptor& fd) {
    char link[32];
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd.get());
    char target[4096] = {};
    const ssize_t length = ::readlink(link, target, sizeof target);
    if (length < 0) return "";
    // readlink does not terminate; a target filling the whole buffer is cut at its end.
    std::string::size_type end = 0;
    while (end < sizeof target && target[end] != '\0') ++end;
    return std::string(target, end);
}

std::ostream& operator<<(std::ostream& os, const FileDescriptor& fd) { return os << fd.get(); }
