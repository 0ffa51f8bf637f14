// ftrace-agent run as a user runs it: a child process on the real kernel.

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <functional>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

const std::string kAgent = std::string(FTRACE_BUILD_BIN_DIR) + "/ftrace-agent";
const std::string kTracing = "/sys/kernel/tracing";
const std::string kZev = kTracing + "/instances/ZEV";
constexpr const char* kAgentLock = "/run/ftrace-agent.ZEV.lock";
constexpr const char* kNoTracingLine = "cannot create tracing instance ZEV: run as root on a kernel with tracefs";
// Records reach the reader at the buffer watermark or after its bounded 1000 ms wait.
constexpr auto kDeliveryTimeout = std::chrono::seconds(15);

std::set<std::string> Instances() {
    std::set<std::string> names;
    if (DIR* d = opendir((kTracing + "/instances").c_str())) {
        while (dirent* e = readdir(d)) {
            if (e->d_name[0] != '.') names.insert(e->d_name);
        }
        closedir(d);
    }
    return names;
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(path);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// The agent as a child process with its standard output and error on pipes.
class AgentProcess {
public:
    explicit AgentProcess(std::vector<std::string> args, uid_t run_as = 0) {
        int out[2];
        int err[2];
        if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) return;
        m_pid = fork();
        if (m_pid == 0) {
            dup2(out[1], STDOUT_FILENO);
            dup2(err[1], STDERR_FILENO);
            if (run_as != 0 && (setgroups_none() != 0 || setgid(run_as) != 0 || setuid(run_as) != 0)) _exit(126);
            // A test that dies (time-out) still stops the agent the clean way.
            prctl(PR_SET_PDEATHSIG, SIGTERM);
            std::vector<char*> argv{const_cast<char*>(kAgent.c_str())};
            for (auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
            argv.push_back(nullptr);
            execv(kAgent.c_str(), argv.data());
            _exit(127);
        }
        close(out[1]);
        close(err[1]);
        m_out = out[0];
        m_err = err[0];
    }
    ~AgentProcess() {
        if (m_pid > 0 && !m_reaped) {
            // A failed test still lets the agent switch its events off and remove its instance.
            kill(m_pid, SIGTERM);
            Wait(std::chrono::seconds(15));
        }
        if (m_out >= 0) close(m_out);
        if (m_err >= 0) close(m_err);
    }

    bool Started() const { return m_pid > 0; }
    void Signal(int sig) { kill(m_pid, sig); }

    // Reads output until `done` holds for a complete stdout line or the time is up.
    bool WaitForLine(const std::function<bool(const std::string&)>& done, Clock::duration timeout) {
        const auto deadline = Clock::now() + timeout;
        size_t checked = 0;
        while (true) {
            for (size_t eol; (eol = m_stdout.find('\n', checked)) != std::string::npos; checked = eol + 1) {
                if (done(m_stdout.substr(checked, eol - checked))) return true;
            }
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
            if (left.count() <= 0 || !Pump(static_cast<int>(left.count()))) return false;
        }
    }

    // Exit status, or -1 when it had to be stopped after `timeout` (SIGTERM,
    // so that it still cleans up; SIGKILL only if that fails too).
    int Wait(Clock::duration timeout) {
        int status = 0;
        if (Reap(timeout, &status)) return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        kill(m_pid, SIGTERM);
        if (!Reap(std::chrono::seconds(15), &status)) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, &status, 0);
            m_reaped = true;
        }
        return -1;
    }

    const std::string& Out() const { return m_stdout; }
    const std::string& Err() const { return m_stderr; }

private:
    static int setgroups_none() { return setgroups(0, nullptr); }

    // Collects output until the child has exited and been reaped, or the time is up.
    bool Reap(Clock::duration timeout, int* status) {
        const auto deadline = Clock::now() + timeout;
        while (Clock::now() < deadline && Pump(100)) {
        }
        for (;;) {
            if (waitpid(m_pid, status, WNOHANG) == m_pid) {
                m_reaped = true;
                return true;
            }
            if (Clock::now() >= deadline) return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    }

    // One poll round; false once both pipes are closed.
    bool Pump(int timeout_ms) {
        pollfd fds[2] = {{m_out, POLLIN, 0}, {m_err, POLLIN, 0}};
        if (m_out < 0 && m_err < 0) return false;
        if (poll(fds, 2, timeout_ms) <= 0) return true;
        char buffer[65536];
        for (int i = 0; i < 2; ++i) {
            if (fds[i].revents == 0) continue;
            const ssize_t n = read(fds[i].fd, buffer, sizeof buffer);
            int& fd = i == 0 ? m_out : m_err;
            if (n > 0) {
                (i == 0 ? m_stdout : m_stderr).append(buffer, static_cast<size_t>(n));
            } else {
                close(fd);
                fd = -1;
            }
        }
        return true;
    }

    pid_t m_pid = -1;
    bool m_reaped = false;
    int m_out = -1;
    int m_err = -1;
    std::string m_stdout;
    std::string m_stderr;
};

bool WaitForFile(const std::string& path, const std::string& content, Clock::duration timeout) {
    const auto deadline = Clock::now() + timeout;
    while (Clock::now() < deadline) {
        if (ReadFile(path) == content) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
}

// True when a running agent holds the single-agent lock.
bool AgentRunning() {
    const int fd = open(kAgentLock, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    const bool held = flock(fd, LOCK_EX | LOCK_NB) != 0;
    close(fd);
    return held;
}

pid_t RunTrue() {
    const pid_t pid = fork();
    if (pid == 0) {
        execl("/bin/true", "true", static_cast<char*>(nullptr));
        _exit(127);
    }
    waitpid(pid, nullptr, 0);
    return pid;
}

class AgentTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0 || access(kTracing.c_str(), W_OK) != 0) GTEST_SKIP() << "needs root and tracefs";
        if (AgentRunning()) GTEST_SKIP() << "an ftrace-agent is running on this host and owns ZEV";
        m_instances_before = Instances();
    }
    void TearDown() override {
        if (IsSkipped()) return;
        // The agent switches its events off and removes the instance it made.
        const std::string enable = ReadFile(kZev + "/events/sched/sched_process_exec/enable");
        EXPECT_TRUE(enable.empty() || enable == "0\n") << enable;
        EXPECT_EQ(Instances(), m_instances_before);
        EXPECT_EQ(ReadFile(kTracing + "/events/sched/sched_process_exec/enable"), "0\n");
    }
    std::set<std::string> m_instances_before;
};

struct OutputCase {
    const char* format;
    // Does this stdout line report the exec of `pid` of /bin/true?
    bool (*is_exec_of)(const std::string& line, pid_t pid);
};

void PrintTo(const OutputCase& c, std::ostream* os) { *os << c.format; }

class AgentOutputTest : public AgentTest, public ::testing::WithParamInterface<OutputCase> {};

TEST_P(AgentOutputTest, ExecOfSpawnedProcessIsPrintedAndSigintCleansUp) {
    // The default module directory: build/module, as <prefix>/module when installed.
    AgentProcess agent({std::string("--format=") + GetParam().format});
    ASSERT_TRUE(agent.Started());
    if (!WaitForFile(kZev + "/events/sched/sched_process_exec/enable", "1\n", std::chrono::seconds(10))) {
        agent.Wait(std::chrono::seconds(1));
        if (agent.Err().find("in use by another ftrace-agent") != std::string::npos) GTEST_SKIP() << agent.Err();
        FAIL() << "the event was not enabled:\n" << agent.Err();
    }
    const pid_t pid = RunTrue();
    EXPECT_TRUE(agent.WaitForLine([&](const std::string& line) { return GetParam().is_exec_of(line, pid); },
                                  kDeliveryTimeout))
        << "no exec line for pid " << pid << " in:\n"
        << agent.Out();
    agent.Signal(SIGINT);
    EXPECT_EQ(agent.Wait(std::chrono::seconds(20)), 0) << agent.Err();
    EXPECT_NE(agent.Err().find("sched:sched_process_exec: "), std::string::npos) << agent.Err();
    EXPECT_NE(agent.Err().find("dropped events"), std::string::npos) << agent.Err();

    if (std::string(GetParam().format) == "json") {
        // Every line must parse with a stock JSON parser and give back the exact bytes.
        char path[] = "/tmp/ftrace_agent_json_XXXXXX";
        const int fd = mkstemp(path);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(write(fd, agent.Out().data(), agent.Out().size()), static_cast<ssize_t>(agent.Out().size()));
        close(fd);
        const std::string check =
            "python3 -c 'import json,sys\n"
            "found = False\n"
            "for line in open(sys.argv[1], encoding=\"ascii\"):\n"
            "    o = json.loads(line)\n"
            "    found |= (o[\"name\"] == \"sched:sched_process_exec\" and o[\"numbers\"][\"pid\"] == int(sys.argv[2])\n"
            "              and o[\"strings\"][\"filename\"].encode(\"latin-1\") == b\"/bin/true\\0\")\n"
            "sys.exit(0 if found else 3)' " +
            std::string(path) + " " + std::to_string(pid);
        const int rc = std::system(check.c_str());
        unlink(path);
        EXPECT_EQ(rc, 0) << agent.Out();
    }
}

INSTANTIATE_TEST_SUITE_P(
    Formats, AgentOutputTest,
    ::testing::Values(OutputCase{"text",
                                 [](const std::string& line, pid_t pid) {
                                     return line.rfind("sched:sched_process_exec ", 0) == 0 &&
                                            line.find(" pid: " + std::to_string(pid) + ",") != std::string::npos &&
                                            line.find("filename: /bin/true") != std::string::npos;
                                 }},
                      OutputCase{"json",
                                 [](const std::string& line, pid_t pid) {
                                     return line.find("\"sched:sched_process_exec\"") != std::string::npos &&
                                            line.find("\"pid\":" + std::to_string(pid) + ",") != std::string::npos &&
                                            line.find("\"filename\":\"/bin/true\\u0000\"") != std::string::npos;
                                 }}),
    [](const auto& info) { return std::string(info.param.format); });

// A module directory whose libftrace_module.so is not an ELF file, there while the tests run.
const std::string& BrokenModuleDir() {
    static const std::string dir = "/tmp/ftrace_agent_broken_module_" + std::to_string(getpid());
    return dir;
}

class BrokenModuleEnvironment : public ::testing::Environment {
public:
    void SetUp() override {
        mkdir(BrokenModuleDir().c_str(), 0755);
        std::ofstream(BrokenModuleDir() + "/libftrace_module.so")
            << "This is not a shared object, only text that is long enough to hold an ELF header.\n";
    }
    void TearDown() override {
        unlink((BrokenModuleDir() + "/libftrace_module.so").c_str());
        rmdir(BrokenModuleDir().c_str());
    }
};
[[maybe_unused]] ::testing::Environment* const kBrokenModule =
    ::testing::AddGlobalTestEnvironment(new BrokenModuleEnvironment);

struct RefusalCase {
    const char* name;
    std::vector<std::string> args;
    uid_t run_as;
    std::string line;  // printed alone on standard error
};

void PrintTo(const RefusalCase& c, std::ostream* os) { *os << c.name; }

class AgentRefusalTest : public AgentTest, public ::testing::WithParamInterface<RefusalCase> {};

TEST_P(AgentRefusalTest, ExitsTwoWithOneLineSayingWhatToDo) {
    AgentProcess agent(GetParam().args, GetParam().run_as);
    ASSERT_TRUE(agent.Started());
    const int rc = agent.Wait(std::chrono::seconds(20));
    if (rc == 127 && GetParam().run_as != 0) GTEST_SKIP() << "uid " << GetParam().run_as << " cannot run " << kAgent;
    EXPECT_EQ(rc, 2) << agent.Err();
    EXPECT_NE(agent.Err().find(GetParam().line + "\n"), std::string::npos) << agent.Err();
    EXPECT_EQ(agent.Out(), "");
}

INSTANTIATE_TEST_SUITE_P(
    Refusals, AgentRefusalTest,
    ::testing::Values(
        RefusalCase{"UnknownEvent",
                    {"--events=sched:sched_process_exec,nosuch:event"},
                    0,
                    "unknown event nosuch:event: the kernel does not offer it; choose one listed in " + kTracing +
                        "/available_events"},
        RefusalCase{"PathLikeEvent",
                    {"--events=sched:../../x"},
                    0,
                    "unknown event sched:../../x: the kernel does not offer it; choose one listed in " + kTracing +
                        "/available_events"},
        RefusalCase{"Unprivileged", {}, 65534, kNoTracingLine},
        RefusalCase{"ModuleMissing",
                    {"--module-dir=/nonexistent"},
                    0,
                    "cannot load module /nonexistent/libftrace_module.so: no such file; point --module-dir at the "
                    "directory holding libftrace_module.so"},
        RefusalCase{"ModuleNotLoadable",
                    // Present but not a shared object: the loader's own reason is shown.
                    {"--module-dir=" + BrokenModuleDir()},
                    0,
                    "cannot load module " + BrokenModuleDir() + "/libftrace_module.so: " + BrokenModuleDir() +
                        "/libftrace_module.so: invalid ELF header; reinstall the agent or point --module-dir at a "
                        "working copy"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(AgentTest, SecondAgentOnTheInstanceIsRefused) {
    // Held here as a running agent holds it.
    const int lock = open(kAgentLock, O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    ASSERT_GE(lock, 0);
    if (flock(lock, LOCK_EX | LOCK_NB) != 0) {
        close(lock);
        GTEST_SKIP() << "an ftrace-agent is running on this host";
    }
    ASSERT_EQ(ftruncate(lock, 0), 0);
    ASSERT_EQ(pwrite(lock, "4242\n", 5, 0), 5);
    AgentProcess agent({});
    const int rc = agent.Wait(std::chrono::seconds(20));
    close(lock);
    EXPECT_EQ(rc, 2);
    EXPECT_EQ(agent.Err(), "instance ZEV is in use by another ftrace-agent (pid 4242): stop that one first\n");
}

TEST_F(AgentTest, CountAndPidFilterLimitWhatIsPrinted) {
    // Only the sleeping child is traced: its exit is the one message, then the agent stops by itself.
    const pid_t sleeper = fork();
    if (sleeper == 0) {
        execl("/bin/sleep", "sleep", "60", static_cast<char*>(nullptr));
        _exit(127);
    }
    struct Reaper {
        pid_t pid;
        ~Reaper() {
            if (pid > 0 && kill(pid, SIGKILL) == 0) waitpid(pid, nullptr, 0);
        }
    } reaper{sleeper};
    AgentProcess agent({"--events=sched:sched_process_exit,sched:sched_process_exec", "--pid=" + std::to_string(sleeper),
                        "--count=1", "--format=json"});
    ASSERT_TRUE(agent.Started());
    if (!WaitForFile(kZev + "/events/sched/sched_process_exit/enable", "1\n", std::chrono::seconds(10))) {
        agent.Wait(std::chrono::seconds(1));
        if (agent.Err().find("in use by another ftrace-agent") != std::string::npos) GTEST_SKIP() << agent.Err();
        FAIL() << "the event was not enabled:\n" << agent.Err();
    }
    EXPECT_EQ(ReadFile(kZev + "/set_event_pid"), std::to_string(sleeper) + "\n");
    for (int i = 0; i < 5; ++i) RunTrue();  // not traced
    kill(sleeper, SIGTERM);
    waitpid(sleeper, nullptr, 0);
    reaper.pid = -1;
    EXPECT_EQ(agent.Wait(kDeliveryTimeout + std::chrono::seconds(10)), 0) << agent.Err();
    EXPECT_EQ(agent.Out().find("sched:sched_process_exit"), agent.Out().rfind("sched:sched_process_exit"));
    EXPECT_NE(agent.Out().find("\"pid\":" + std::to_string(sleeper) + ","), std::string::npos) << agent.Out();
    EXPECT_EQ(std::count(agent.Out().begin(), agent.Out().end(), '\n'), 1) << agent.Out();
}

}  // namespace
