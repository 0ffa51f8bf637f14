#pragma once
// ftrace-agent of this build as a child process. Its standard output goes,
// line by line as it arrives, to a handler on a reader thread (so that a
// chatty agent never blocks on a full pipe), or without one is kept whole;
// its standard error is kept whole.

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "TestSupport.h"  // and the standard headers it brings

class AgentProcess {
public:
    using LineHandler = std::function<void(const char* line, size_t length)>;

    // Runs `wrapper` (valgrind, setpriv, env and their arguments) in front of
    // the agent when given. The agent loads the build's module directory.
    explicit AgentProcess(const std::vector<std::string>& options, LineHandler on_line = nullptr,
                          std::vector<std::string> wrapper = {})
        : m_stderr(memfd_create("ftrace-agent-stderr", MFD_CLOEXEC)), m_on_line(std::move(on_line)) {
        int out[2];
        if (m_stderr < 0 || pipe2(out, O_CLOEXEC) != 0) return;
        // Built before fork: the child may only make async-signal-safe calls.
        wrapper.push_back(FTRACE_BUILD_BIN_DIR "/ftrace-agent");
        wrapper.insert(wrapper.end(), options.begin(), options.end());
        std::vector<char*> argv;
        for (auto& arg : wrapper) argv.push_back(arg.data());
        argv.push_back(nullptr);
        m_pid = fork();
        if (m_pid == 0) {
            dup2(out[1], STDOUT_FILENO);
            dup2(m_stderr, STDERR_FILENO);
            // gtest may block signals the agent waits for; a test killed on
            // time-out still lets the agent clean tracefs up.
            sigset_t none;
            sigemptyset(&none);
            sigprocmask(SIG_SETMASK, &none, nullptr);
            prctl(PR_SET_PDEATHSIG, SIGTERM);
            execv(argv[0], argv.data());
            _exit(127);
        }
        close(out[1]);  // without a child the reader sees the end at once
        m_reader = std::thread(&AgentProcess::ReadStdout, this, out[0]);
    }
    // A test that failed half-way: a clean stop first, so that nothing is left
    // enabled in tracefs (SIGKILL after 10 s), then reaped.
    ~AgentProcess() {
        Signal(SIGTERM);
        if (Wait(std::chrono::seconds(10)) < 0) Signal(SIGKILL);
        Wait(std::chrono::hours(1));
        if (m_stderr >= 0) close(m_stderr);
    }

    pid_t Pid() const { return m_pid; }
    void Signal(int signal_number) const {
        if (m_pid > 0 && m_status < 0) kill(m_pid, signal_number);
    }
    // Exit status (128 + signal when killed by one), or -1 while it still
    // runs after `timeout`; once it ended, its output is read to the end.
    int Wait(std::chrono::seconds timeout) {
        int status = 0;
        if (m_pid > 0 && m_status < 0) {
            const auto reaped = [&] { return waitpid(m_pid, &status, WNOHANG) == m_pid; };
            if (!test_support::WaitFor(reaped, static_cast<int>(timeout.count()))) return -1;
            m_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        }
        if (m_reader.joinable()) m_reader.join();
        return m_status;
    }
    bool Running() { return Wait(std::chrono::seconds(0)) < 0; }
    std::string Stdout() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_stdout;
    }
    std::string Stderr() const { return test_support::ReadAll("/proc/self/fd/" + std::to_string(m_stderr)); }

private:
    void ReadStdout(int fd) {
        std::string pending;
        char buffer[1 << 16];
        // (No signal handler in the test process interrupts the read.)
        for (ssize_t n; (n = read(fd, buffer, sizeof buffer)) > 0;) {
            std::lock_guard<std::mutex> lock(m_mutex);
            (m_on_line ? pending : m_stdout).append(buffer, static_cast<size_t>(n));
            size_t start = 0;
            for (size_t eol; m_on_line && (eol = pending.find('\n', start)) != std::string::npos; start = eol + 1)
                m_on_line(pending.data() + start, eol - start);
            pending.erase(0, start);
        }
        close(fd);
    }

    pid_t m_pid = -1;
    int m_status = -1;  // until reaped
    int m_stderr = -1;  // a memory file
    LineHandler m_on_line;
    std::mutex m_mutex;
    std::string m_stdout;
    std::thread m_reader;
};
