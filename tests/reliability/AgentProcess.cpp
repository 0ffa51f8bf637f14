#include "AgentProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

extern char** environ;

AgentProcess::AgentProcess(std::vector<std::string> argv, LineHandler on_line, std::vector<std::string> environment)
    : m_on_line(std::move(on_line)) {
    int out[2];
    int err[2];
    if (pipe2(out, O_CLOEXEC) != 0) return;
    if (pipe2(err, O_CLOEXEC) != 0) {
        close(out[0]);
        close(out[1]);
        return;
    }
    // Built before fork: the child may only make async-signal-safe calls.
    std::vector<char*> args;
    for (auto& arg : argv) args.push_back(arg.data());
    args.push_back(nullptr);
    std::vector<char*> env;
    for (char** entry = environ; *entry != nullptr; ++entry) env.push_back(*entry);
    for (auto& entry : environment) env.push_back(entry.data());
    env.push_back(nullptr);
    m_pid = fork();
    if (m_pid == 0) {
        dup2(out[1], STDOUT_FILENO);
        dup2(err[1], STDERR_FILENO);
        // The test blocks nothing the agent relies on, but gtest may have.
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        execve(args[0], args.data(), env.data());
        _exit(127);
    }
    close(out[1]);
    close(err[1]);
    if (m_pid < 0) {
        close(out[0]);
        close(err[0]);
        return;
    }
    m_stdout_reader = std::thread(&AgentProcess::ReadOutput, this, out[0], true);
    m_stderr_reader = std::thread(&AgentProcess::ReadOutput, this, err[0], false);
}

AgentProcess::~AgentProcess() {
    if (m_pid > 0 && !m_reaped) {
        // A test that failed half-way: a clean stop first, so that nothing is
        // left enabled in tracefs; SIGKILL only if that does not come.
        kill(m_pid, SIGTERM);
        if (Wait(std::chrono::seconds(10)) < 0) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
    }
    if (m_stdout_reader.joinable()) m_stdout_reader.join();
    if (m_stderr_reader.joinable()) m_stderr_reader.join();
}

void AgentProcess::ReadOutput(int fd, bool is_stdout) {
    std::string pending;
    std::vector<char> buffer(1 << 16);
    for (;;) {
        const ssize_t n = read(fd, buffer.data(), buffer.size());
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        if (!is_stdout) {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_stderr.append(buffer.data(), static_cast<size_t>(n));
            continue;
        }
        pending.append(buffer.data(), static_cast<size_t>(n));
        size_t start = 0;
        for (const char* eol; (eol = static_cast<const char*>(
                                   std::memchr(pending.data() + start, '\n', pending.size() - start))) != nullptr;) {
            const size_t length = static_cast<size_t>(eol - (pending.data() + start));
            if (m_on_line) m_on_line(pending.data() + start, length);
            start += length + 1;
        }
        pending.erase(0, start);
    }
    close(fd);
}

bool AgentProcess::Running() {
    if (m_pid <= 0 || m_reaped) return false;
    int status = 0;
    if (waitpid(m_pid, &status, WNOHANG) == m_pid) {
        m_reaped = true;
        m_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        return false;
    }
    return true;
}

void AgentProcess::Signal(int signal_number) const {
    if (m_pid > 0 && !m_reaped) kill(m_pid, signal_number);
}

int AgentProcess::Wait(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (Running()) {
        if (std::chrono::steady_clock::now() >= deadline) return -1;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (m_stdout_reader.joinable()) m_stdout_reader.join();
    if (m_stderr_reader.joinable()) m_stderr_reader.join();
    return m_status;
}

std::string AgentProcess::Stderr() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_stderr;
}

std::string AgentProcess::AgentPath() { return std::string(FTRACE_BUILD_BIN_DIR) + "/ftrace-agent"; }
std::string AgentProcess::ModuleDir() { return FTRACE_BUILD_LIB_DIR; }
