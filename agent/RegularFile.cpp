#include "RegularFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>

namespace Agent {

std::string RegularFile::Reason(int error) {
    if (error == ENOENT) return "no such file";
    std::string text = std::strerror(error);
    if (!text.empty()) text[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(text[0])));
    return text;
}

std::string RegularFile::Problem(const std::string& path) {
    struct stat st {};
    if (stat(path.c_str(), &st) != 0) return Reason(errno);
    return S_ISREG(st.st_mode) ? std::string() : "not a regular file";
}

std::string RegularFile::ProblemAppending(const std::string& path) {
    std::string problem = Problem(path);
    if (!problem.empty() && problem != Reason(ENOENT)) return problem;
    // Non-blocking, and checked again on the descriptor: the path may have
    // changed since stat.
    const int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NONBLOCK | O_CLOEXEC | O_NOCTTY, 0644);
    if (fd < 0) return errno == ENXIO ? "not a regular file" : Reason(errno);
    struct stat st {};
    problem = fstat(fd, &st) != 0 ? Reason(errno) : S_ISREG(st.st_mode) ? "" : "not a regular file";
    close(fd);
    return problem;
}

}  // namespace Agent
