#include "ProcessLoad.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

extern char** environ;

namespace {

constexpr const char* kPerf = "/usr/bin/perf";

// Exit status of `pid`, retried over EINTR.
int Reap(pid_t pid) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) return -1;
    }
    return status;
}

}  // namespace

pid_t ProcessLoad::RunTrue() {
    pid_t pid = -1;
    char* argv[] = {const_cast<char*>("/bin/true"), nullptr};
    if (posix_spawn(&pid, "/bin/true", nullptr, nullptr, argv, environ) != 0) return -1;
    return Reap(pid) == 0 ? pid : -1;
}

bool ProcessLoad::HavePerf() { return access(kPerf, X_OK) == 0; }

void ProcessLoad::Start(double spawns_per_second, Storm storm) {
    m_stop = false;
    if (spawns_per_second > 0) m_spawner = std::thread(&ProcessLoad::SpawnLoop, this, spawns_per_second);
    if (storm.loops > 0) m_storm = std::thread(&ProcessLoad::StormLoop, this, storm);
}

void ProcessLoad::Stop() {
    m_stop = true;
    if (const pid_t group = m_perf_group.load()) kill(-group, SIGKILL);
    if (m_spawner.joinable()) m_spawner.join();
    if (m_storm.joinable()) m_storm.join();
}

std::vector<pid_t> ProcessLoad::Spawned() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_spawned;
}

std::vector<std::string> ProcessLoad::Errors() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_errors;
}

void ProcessLoad::Error(const std::string& text) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_errors.size() < 16) m_errors.push_back(text);
}

void ProcessLoad::SpawnLoop(double spawns_per_second) {
    using Clock = std::chrono::steady_clock;
    const auto interval = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(1.0 / spawns_per_second));
    auto next = Clock::now();
    while (!m_stop) {
        const pid_t pid = RunTrue();
        if (pid > 0) {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_spawned.push_back(pid);
        } else {
            Error(std::string("spawning /bin/true failed: ") + std::strerror(errno));
        }
        // A steady rate, not a burst after a stall.
        next = std::max(next + interval, Clock::now() - interval);
        std::this_thread::sleep_until(next);
    }
}

void ProcessLoad::StormLoop(Storm storm) {
    const std::string loops = std::to_string(storm.loops);
    char* argv[] = {const_cast<char*>(kPerf), const_cast<char*>("bench"), const_cast<char*>("sched"),
                    const_cast<char*>("pipe"),  const_cast<char*>("-l"),  const_cast<char*>(loops.c_str()),
                    nullptr};
    while (!m_stop) {
        // fork rather than posix_spawn, which cannot ask for SCHED_IDLE.
        const pid_t pid = fork();
        if (pid < 0) {
            Error(std::string("cannot run perf: ") + std::strerror(errno));
            break;
        }
        if (pid == 0) {
            // A group of its own: Stop kills perf and the partner it forks in one go.
            setpgid(0, 0);
            const sched_param priority{};
            if (storm.idle) sched_setscheduler(0, SCHED_IDLE, &priority);
            const int null_fd = open("/dev/null", O_WRONLY);
            dup2(null_fd, STDOUT_FILENO);
            dup2(null_fd, STDERR_FILENO);
            execve(kPerf, argv, environ);
            _exit(127);
        }
        setpgid(pid, pid);  // also here, so that Stop never races the child's own call
        m_perf_group = pid;
        if (m_stop) kill(-pid, SIGKILL);  // Stop may have looked before the group existed
        const int status = Reap(pid);
        kill(-pid, SIGKILL);  // the partner perf forked, should it outlive perf
        m_perf_group = 0;
        if (m_stop) break;
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) Error("perf bench sched pipe failed");
        ++m_storm_runs;
        if (storm.pause_ms > 0) std::this_thread::sleep_for(std::chrono::milliseconds(storm.pause_ms));
    }
}
