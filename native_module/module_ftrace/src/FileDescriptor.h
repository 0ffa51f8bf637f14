#pragma once
// Move-only owner of one operating-system file descriptor (-1 when empty).

#include <sys/types.h>

#include <ostream>
#include <string>

class FileDescriptor {
public:
    FileDescriptor() = default;
    explicit FileDescriptor(int fd) : fd(fd) {}
    FileDescriptor(FileDescriptor&& other) noexcept : fd(other.fd) { other.fd = -1; }
    FileDescriptor& operator=(FileDescriptor&& other) noexcept;
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor() { reset(); }

    int get() const { return fd; }
    bool valid() const { return fd >= 0; }
    // Gives the number up without closing it; the handle is left empty.
    int release() noexcept;
    // Closes the held number (if any) and takes `value`.
    void reset(int value = -1) noexcept;

private:
    int fd = -1;
};

// fstat's st_mode / st_size; throw std::system_error ("fstat") on failure.
mode_t mode(const FileDescriptor& fd);
off_t size(const FileDescriptor& fd);
// The path behind the descriptor, read through /proc/self/fd/; "" when unreadable.
std::string filename(const FileDescriptor& fd);
std::ostream& operator<<(std::ostream& os, const FileDescriptor& fd);
