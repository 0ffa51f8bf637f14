#pragma once
// ftrace-agent (or a wrapper such as valgrind in front of it) as a child
// process. Its standard output is split into lines and handed to a callback
// on a reader thread as it arrives, so that a chatty agent never blocks on a
// full pipe; its standard error is kept whole.

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

    // argv[0] is the program; `environment` entries ("NAME=value") are added
    // to this process's. The handler runs on the reader thread.
    AgentProcess(std::vector<std::string> argv, LineHandler on_line, std::vector<std::string> environment = {});
    ~AgentProcess();  // SIGTERM if still running (SIGKILL after 10 s), then reaped
    AgentProcess(const AgentProcess&) = delete;
    AgentProcess& operator=(const AgentProcess&) = delete;

    pid_t Pid() const { return m_pid; }
    bool Running();
    void Signal(int signal_number) const;
    // Exit status (128 + signal when killed by one), or -1 when it did not end
    // in time; waits for both output pipes to close as well.
    int Wait(std::chrono::milliseconds timeout);
    std::string Stderr();

    // ftrace-agent of this build.
    static std::string AgentPath();
    static std::string ModuleDir();

private:
    void ReadOutput(int fd, bool is_stdout);

    pid_t m_pid = -1;
    int m_status = -1;
    bool m_reaped = false;
    LineHandler m_on_line;
    std::mutex m_mutex;
    std::string m_stderr;
    std::thread m_stdout_reader;
    std::thread m_stderr_reader;
};
