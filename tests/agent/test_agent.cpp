// ftrace-agent run as a user runs it: a child process on the real kernel,
// also stopped in the middle of a scheduler storm.

#include <cstdio>
#include <iostream>
#include <regex>

#include "SchedulerStorm.h"
#include "TracefsTest.h"

namespace {

using AgentTest = TracefsTest;

// The text run is killed: SIGKILL leaves the instance behind with its events
// on. The JSON run adopts it and traces; its clean stop (SIGINT) switches the
// events off but leaves the instance, which it did not make.
TEST_F(AgentTest, ExecIsPrintedAsTextAndJsonAndAKilledAgentsInstanceIsAdopted) {
    // The exec line of a pid is (^|\n) before + pid + after, with no line feed in between.
    const struct {
        const char* format;
        const char* before;
        const char* after;
    } cases[] = {
        {"text", "sched:sched_process_exec [^\n]* pid: ", ",[^\n]*filename: /bin/true"},
        {"json", R"(\{"name":"sched:sched_process_exec"[^\n]*"pid":)", R"(,[^\n]*"filename":"/bin/true\\u0000")"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.format);
        const bool adopting = c.format == std::string("json");
        // The default module directory: build/module, as <prefix>/module when installed.
        AgentProcess agent({std::string("--format=") + c.format});
        if (!WaitUntilTracing(agent, "sched_process_exec")) return;
        pid_t pid = -1;
        const auto printed = [&] {
            const std::regex exec_line(std::string("(^|\n)") + c.before + std::to_string(pid) + c.after);
            return std::regex_search(agent.Stdout(), exec_line);
        };
        // Records reach the reader at the buffer watermark or after its bounded
        // 1000 ms wait. Adopted events are on before the agent subscribed: a
        // first child may come too early.
        EXPECT_TRUE(WaitFor([&] { return (pid = SpawnTrue()) > 0 && WaitFor(printed, 3); }, 20))
            << "no exec line for pid " << pid << " in:\n" << agent.Stdout();
        agent.Signal(adopting ? SIGINT : SIGKILL);
        ASSERT_EQ(agent.Wait(std::chrono::seconds(20)), adopting ? 0 : 128 + SIGKILL) << agent.Stderr();
        ASSERT_TRUE(ZevExists());
        for (const char* event : {"sched_process_exec", "sched_process_fork", "sched_process_exit"})
            EXPECT_EQ(Enabled(event), adopting ? "0" : "1") << event;
        if (!adopting) continue;
        EXPECT_NE(agent.Stderr().find("instance ZEV exists already"), std::string::npos) << agent.Stderr();
        EXPECT_NE(agent.Stderr().find("sched:sched_process_exec: "), std::string::npos) << agent.Stderr();
        EXPECT_NE(agent.Stderr().find("dropped events"), std::string::npos) << agent.Stderr();
        EXPECT_TRUE(RemoveZev());
        // Every line must parse with a stock JSON parser and give back the exact bytes.
        FILE* check = popen(("python3 -c 'import json, sys\n"
                             "sys.exit(0 if any([o[\"name\"] == \"sched:sched_process_exec\" and o[\"numbers\"][\"pid\"] == " +
                             std::to_string(pid) +
                             " and o[\"strings\"][\"filename\"].encode(\"latin-1\") == b\"/bin/true\\0\"\n"
                             "    for o in map(json.loads, sys.stdin.buffer.read().decode(\"ascii\").splitlines())]) else 3)'")
                                .c_str(),
                            "w");
        ASSERT_NE(check, nullptr);
        const std::string out = agent.Stdout();
        fwrite(out.data(), 1, out.size(), check);
        EXPECT_EQ(pclose(check), 0) << out;
    }
}

TEST_F(AgentTest, RefusalsExitTwoWithOneLineSayingWhatToDo) {
    // Present but not a shared object: the loader's own reason is shown.
    const std::string broken = "/tmp/ftrace_agent_broken_module_" + std::to_string(getpid());
    mkdir(broken.c_str(), 0755);
    std::ofstream(broken + "/libftrace_module.so") << "This is not a shared object, only text long enough for an ELF header.\n";
    struct Case {
        std::vector<std::string> options;
        std::string stderr_text;
        std::vector<std::string> wrapper = {};
        bool lock_held = false;
    };
    std::vector<Case> cases = {
        {{}, "cannot create tracing instance ZEV: run as root on a kernel with tracefs\n",
         {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"}},
        {{"--module-dir=/nonexistent"},
         "cannot load module /nonexistent/libftrace_module.so: no such file; point --module-dir at the directory "
         "holding libftrace_module.so\n"},
        {{"--module-dir=" + broken},
         "cannot load module " + broken + "/libftrace_module.so: " + broken +
             "/libftrace_module.so: invalid ELF header; reinstall the agent or point --module-dir at a working copy\n"},
        {{}, "instance ZEV is in use by another ftrace-agent (pid 4242): stop that one first\n", {}, true},
    };
    for (const auto& [option, reason] : std::vector<std::pair<std::string, std::string>>{
             {"--events=sched:", "--events: 'sched:' is not of the form system:event"},
             {"--duration=0", "--duration: '0' is not a positive number of seconds"}})
        cases.push_back({{option}, "ftrace-agent: Invalid option argument: " + reason + "; see ftrace-agent --help\n"});
    // Names with "/" or ".." would reach other files through the module,
    // which does not check them: refused before it is loaded.
    for (const std::string name : {"nosuch:event", "sched:../../x", "sched/../sched:sched_switch",
                                   "sched:../sched/sched_switch", "sched:sched_switch/../sched_wakeup", "..:..",
                                   "sched:*", "sched: sched_switch", "sched:sched_switch\n"}) {
        cases.push_back({{"--events=sched:sched_process_exec," + name},
                         "unknown event " + name + ": the kernel does not offer it; choose one listed in " + kTracing +
                             "/available_events\n"});
    }
    for (const auto& c : cases) {
        SCOPED_TRACE(c.stderr_text);
        // Held here as a running agent holds it.
        const int lock = c.lock_held ? open("/run/ftrace-agent.ZEV.lock", O_RDWR | O_CREAT | O_CLOEXEC, 0644) : -1;
        if (c.lock_held) {
            EXPECT_EQ(flock(lock, LOCK_EX | LOCK_NB), 0);
            EXPECT_EQ(ftruncate(lock, 0), 0);
            EXPECT_EQ(pwrite(lock, "4242\n", 5, 0), 5);
        }
        AgentProcess agent(c.options, nullptr, c.wrapper);
        const int status = agent.Wait(std::chrono::seconds(20));
        if (lock >= 0) close(lock);
        if (status >= 126 && !c.wrapper.empty()) continue;  // the unprivileged user cannot reach the build
        EXPECT_EQ(status, 2);
        EXPECT_EQ(agent.Stderr(), c.stderr_text);
        EXPECT_EQ(agent.Stdout(), "");
    }
    unlink((broken + "/libftrace_module.so").c_str());
    rmdir(broken.c_str());
}

TEST_F(AgentTest, CountAndPidFilterLimitWhatIsPrinted) {
    // Only the sleeping child is traced: its exit is the one message, then the agent stops by itself.
    const pid_t sleeper = fork();
    if (sleeper == 0) {
        execl("/bin/sleep", "sleep", "60", static_cast<char*>(nullptr));
        _exit(127);
    }
    AgentProcess agent({"--events=sched:sched_process_exit,sched:sched_process_exec",
                        "--pid=" + std::to_string(sleeper), "--count=1", "--format=json"});
    if (WaitUntilTracing(agent, "sched_process_exit")) {
        EXPECT_EQ(Read(kZev + "/set_event_pid"), std::to_string(sleeper) + "\n");
        for (int i = 0; i < 5; ++i) SpawnTrue();  // not traced
    }
    kill(sleeper, SIGTERM);
    waitpid(sleeper, nullptr, 0);
    if (HasFailure() || IsSkipped()) return;
    EXPECT_EQ(agent.Wait(std::chrono::seconds(25)), 0) << agent.Stderr();
    const std::string out = agent.Stdout();
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 1) << out;
    EXPECT_EQ(out.rfind("{\"name\":\"sched:sched_process_exit\"", 0), 0u) << out;
    EXPECT_NE(out.find("\"pid\":" + std::to_string(sleeper) + ","), std::string::npos) << out;
}

using AgentFaultTest = TracefsTest;

const char* const kEvents[] = {"sched_switch", "sched_process_exec", "sched_process_exit"};
const std::string kEventsOption = "--events=sched:sched_switch,sched:sched_process_exec,sched:sched_process_exit";

// The stop is noticed after at most one 1000 ms wait and one drain of every
// CPU, also while the scheduler floods the buffers. Every event is off
// afterwards; the instance is removed only if this agent made it.
TEST_F(AgentFaultTest, SigtermInSchedulerStormStopsPromptlyAndCleanly) {
    ASSERT_TRUE(SchedulerStorm::HavePerf()) << "perf is needed for the scheduler storm (package linux-perf)";
    for (const bool adopted : {false, true}) {
        SCOPED_TRACE(adopted ? "instance adopted" : "instance made by the agent");
        if (adopted) {
            ASSERT_EQ(mkdir(kZev.c_str(), 0755), 0);
        }
        AgentProcess agent({kEventsOption, "--format=none"});
        if (!WaitUntilTracing(agent, "sched_switch")) return;
        SchedulerStorm storm(1000000000, 0, false);  // more than the agent can read
        std::this_thread::sleep_for(std::chrono::seconds(3));
        ASSERT_TRUE(agent.Running()) << agent.Stderr();
        const auto signalled = std::chrono::steady_clock::now();
        agent.Signal(SIGTERM);
        const int status = agent.Wait(std::chrono::seconds(60));
        const std::chrono::duration<double> stop = std::chrono::steady_clock::now() - signalled;
        EXPECT_TRUE(storm.Stop()) << "perf bench sched pipe failed";
        ASSERT_EQ(status, 0) << agent.Stderr();
        std::cout << "stopped " << stop.count() << " s after SIGTERM\n";
        EXPECT_LT(stop.count(), 5.0) << agent.Stderr();
        EXPECT_NE(agent.Stderr().find("sched:sched_switch: "), std::string::npos) << agent.Stderr();
        EXPECT_EQ(ZevExists(), adopted);
        if (!adopted) continue;
        for (const char* event : kEvents) EXPECT_EQ(Enabled(event), "0") << event;
        EXPECT_EQ(Read(kZev + "/set_event"), "");
        ASSERT_TRUE(RemoveZev());
    }
}

}  // namespace
