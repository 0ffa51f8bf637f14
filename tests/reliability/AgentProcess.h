#pragma once
// ftrace-agent of this build as a child process. Its standard output goes,
// line by line as it arrives, to a handler on a reader thread (so that a
// chatty agent never blocks on a full pipe), or without one is kept whole;
// its standard error is kept whole.

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

class AgentProcess {
public:
    using LineHandler = std::function<void(const char* line, size_t length)>;

    // Runs `wrapper` (valgrind, setpriv, env and their arguments) in front of
    // the agent when given. The agent loads the build's module directory.
    explicit AgentProcess(const std::vector<std::string>& options, LineHandler on_line = nullptr,
                          std::vector<std::string> wrapper = {});
    ~AgentProcess();  // SIGTERM if still running (SIGKILL after 10 s), then reaped
    AgentProcess(const AgentProcess&) = delete;
    AgentProcess& operator=(const AgentProcess&) = delete;

    pid_t Pid() const { return m_pid; }
    void Signal(int signal_number) const;
    // Exit status (128 + signal when killed by one), or -1 while it still
    // runs after `timeout`; once it ended, its output is read to the end.
    int Wait(std::chrono::milliseconds timeout);
    bool Running() { return Wait(std::chrono::milliseconds(0)) < 0; }
    std::string Stdout();
    std::string Stderr() const;

private:
    void ReadStdout(int fd);

    pid_t m_pid = -1;
    int m_status = -1;
    bool m_reaped = false;
    int m_stderr = -1;  // a memory file
    LineHandler m_on_line;
    std::mutex m_mutex;
    std::string m_stdout;
    std::thread m_reader;
};
