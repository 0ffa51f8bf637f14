#pragma once
// Checks that a path the agent is about to open as a file (a module, the log
// file) names a regular file. open() of a FIFO waits for the other end for
// ever, and one of a device acts on the device.

#include <string>

namespace Agent {

class RegularFile {
public:
    // "" when `path` is a regular file (after symbolic links); otherwise why
    // not, as one phrase: "no such file", "not a regular file", or the
    // system's reason in lower case ("permission denied").
    static std::string Problem(const std::string& path);
    // Like Problem, but a missing file is created (empty) and then is one;
    // an existing one must also be writable. Never blocks.
    static std::string ProblemAppending(const std::string& path);
    // The system's text for `error`, in lower case, as Problem reports it.
    static std::string Reason(int error);
};

}  // namespace Agent
