// ftrace-agent run as a user runs it: a child process on the real kernel.

#include <sys/socket.h>

#include <cstdio>
#include <regex>

#include "TracefsTest.h"

namespace {

using AgentTest = TracefsTest;

TEST_F(AgentTest, EventsArePrintedInEachFormatAndAStopSignalCleansUp) {
    // A copy of the module besides the one the agent links: both in one
    // process. jemalloc overwrites freed memory, so that a use after free crashes.
    setenv("MALLOC_CONF", "junk:true", 1);
    const std::string copy = "/tmp/ftrace_agent_module_copy_" + std::to_string(getpid());
    mkdir(copy.c_str(), 0755);
    std::filesystem::copy_file(FTRACE_BUILD_LIB_DIR "/libftrace_module.so", copy + "/libftrace_module.so",
                               std::filesystem::copy_options::overwrite_existing);
    // The line of a pid is (^|\n) before + pid + after: the exec of a spawned
    // /bin/true, or this process's openat of a missing file, whose ret
    // (an int, -ENOENT) must print signed.
    const struct {
        const char* format;
        const char* event;  // also traced, besides the process-life events
        const char* before;
        const char* after;
        int stop_signal;
        std::vector<std::string> options;
        int nice = -10;  // of the reading and the printing thread
    } cases[] = {
        // The default module directory: build/module, as <prefix>/module when installed.
        {"text", nullptr, R"([0-9]+\.[0-9]{6} )", " sched:sched_process_exec filename=/bin/true pid=[0-9]+ old_pid=[0-9]+\n", SIGINT, {}},
        // The kernel's watermark: a lone exec is read by the drain after the bounded wait.
        {"raw", nullptr, "sched:sched_process_exec [^\n]* pid: ", ",[^\n]*filename: /bin/true\\0", SIGINT,
         {"--latency=batch"}, 0},
        // A closed terminal; a duration longer than a clock can hold means until stopped.
        {"json", nullptr, R"(\{"name":"sched:sched_process_exec"[^\n]*"pid":)", R"(,[^\n]*"filename":"/bin/true\\u0000")",
         SIGHUP, {"--module-dir=" + copy, "--duration=1e308"}},
        {"text", "syscalls:sys_exit_openat", R"([0-9]+\.[0-9]{6} )", " syscalls:sys_exit_openat __syscall_nr=[0-9]+ ret=-2\n", SIGINT, {}},
        {"json", "syscalls:sys_exit_openat", R"(\{"name":"syscalls:sys_exit_openat"[^\n]*"common_pid":)",
         R"(,[^\n]*"ret":-2,"timestamp":[0-9]+\})", SIGINT, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.format) + (c.event ? " " + std::string(c.event) : ""));
        std::vector<std::string> options = c.options;
        options.push_back(std::string("--format=") + c.format);
        if (c.event) options.push_back("--events=sched:sched_process_exec," + std::string(c.event));
        AgentProcess agent(options);
        if (!WaitUntilTracing(agent, "sched_process_exec")) return;
        const std::string nice = " " + std::to_string(c.nice) + "\n";
        EXPECT_EQ(test_support::Output("ps -L -o comm=,nice= -p " + std::to_string(agent.Pid()) +
                                       " | awk '/^ftrace_/ {print $1, $2}' | sort"),
                  "ftrace_agent_pr" + nice + "ftrace_task" + nice);
        const pid_t pid = c.event ? getpid() : SpawnTrue();
        // Records reach the reader at the buffer watermark or after its bounded 1000 ms wait.
        const std::regex line(std::string("(^|\n)") + c.before + std::to_string(pid) + c.after);
        EXPECT_TRUE(WaitFor([&] {
            // Again each time: the openat event may be switched on after the exec event.
            if (c.event) close(open("/nonexistent/ftrace-agent-test", O_RDONLY));
            return std::regex_search(agent.Stdout(), line);
        }, 15)) << "no line for pid " << pid << " in:\n" << agent.Stdout().substr(0, 4000);
        agent.Signal(c.stop_signal);
        EXPECT_EQ(agent.Wait(std::chrono::seconds(20)), 0) << agent.Stderr();
        EXPECT_NE(agent.Stderr().find(c.event ? c.event : "sched:sched_process_exec"), std::string::npos) << agent.Stderr();
        EXPECT_NE(agent.Stderr().find("dropped events"), std::string::npos) << agent.Stderr();
    }
    std::filesystem::remove_all(copy);
    unsetenv("MALLOC_CONF");
}

TEST_F(AgentTest, RefusalsExitTwoWithOneLineSayingWhatToDo) {
    // Present but not a shared object: the loader's own reason is shown.
    const std::string broken = "/tmp/ftrace_agent_broken_module_" + std::to_string(getpid());
    mkdir(broken.c_str(), 0755);
    std::ofstream(broken + "/libftrace_module.so") << "This is not a shared object, only text long enough for an ELF header.\n";
    // FIFOs, whose open() would wait for a writer for ever, beside a good module.
    const std::string fifos = broken + "_fifos", unreadable = broken + "_unreadable";
    mkdir(fifos.c_str(), 0755);
    mkdir(unreadable.c_str(), 0);
    symlink(FTRACE_BUILD_LIB_DIR "/libftrace_module.so", (fifos + "/libftrace_module.so").c_str());
    mkfifo((fifos + "/log").c_str(), 0644);
    mkfifo((fifos + "/other.so").c_str(), 0644);
    const std::string see_help = "; see ftrace-agent --help\n";
    const std::string options_only = "': the agent takes options only, each as --name=value" + see_help;
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
        {{"--module-dir=" + fifos},
         "cannot load module " + fifos + "/other.so: not a regular file; fix it or remove it from the module "
         "directory\n"},
        {{"--log-file=" + fifos + "/log"},
         "cannot open log file " + fifos + "/log: not a regular file; give --log-file the path of a writable "
         "regular file\n"},
        {{"--module-dir=" + unreadable},
         "cannot load module " + unreadable + "/libftrace_module.so: permission denied; point --module-dir at the "
         "directory holding libftrace_module.so\n",
         {"/usr/bin/setpriv", "--bounding-set=-dac_override,-dac_read_search"}},
        {{"stray"}, "ftrace-agent: unexpected argument 'stray" + options_only},
        {{"--", "--events=x"}, "ftrace-agent: unexpected argument '--events=x" + options_only},
        {{"--module-dir="}, "ftrace-agent: Invalid option argument: --module-dir: empty; leave the option out for the "
                            "default" + see_help},
        {{"--log-file="}, "ftrace-agent: Invalid option argument: --log-file: empty; leave the option out for standard "
                          "error" + see_help},
        // Control bytes are spelt out: one line, and no escape sequence reaches the terminal.
        {{"--events=sched:x\n\x1b[2J"}, "unknown event sched:x\\n\\x1b[2J: the kernel does not offer it; choose one "
                                        "listed in " + kTracing + "/available_events\n"},
    };
    // Names with "/" or ".." would reach other files through the module,
    // which does not check them: refused before it is loaded.
    for (const std::string name : {"nosuch:event", "sched:../../x", "sched/../sched:sched_switch",
                                   "sched:../sched/sched_switch", "sched:sched_switch/../sched_wakeup", "..:..",
                                   "sched:*", "sched: sched_switch"}) {
        cases.push_back({{"--events=sched:sched_process_exec," + name},
                         "unknown event " + name + ": the kernel does not offer it; choose one listed in " + kTracing +
                             "/available_events\n"});
    }
    for (const auto& c : cases) {
        SCOPED_TRACE(c.stderr_text);
        // Held here as a running agent holds it.
        const int lock = c.lock_held ? open("/run/ftrace-agent.ZEV.lock", O_RDWR | O_CREAT | O_CLOEXEC, 0644) : -1;
        EXPECT_TRUE(lock < 0 ||
                    (!flock(lock, LOCK_EX | LOCK_NB) && !ftruncate(lock, 0) && pwrite(lock, "4242\n", 5, 0) == 5));
        AgentProcess agent(c.options, nullptr, c.wrapper);
        const int status = agent.Wait(std::chrono::seconds(20));
        if (lock >= 0) close(lock);
        if (status >= 126 && !c.wrapper.empty()) continue;  // the unprivileged user cannot reach the build
        EXPECT_EQ(status, 2);
        EXPECT_EQ(agent.Stderr(), c.stderr_text);
        EXPECT_EQ(agent.Stdout(), "");
    }
    for (const auto& dir : {broken, fifos, unreadable}) std::filesystem::remove_all(dir);
}

TEST_F(AgentTest, CountAndPidFilterLimitWhatIsPrinted) {
    // Traced: one process, with the thread it has at start and the child that
    // thread starts later. That child's exec is the one message, then the
    // agent stops by itself.
    int sockets[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets), 0);
    const pid_t traced = fork();
    if (traced == 0) {
        std::thread([&] {
            pid_t child = 0;  // sent first to say that the thread exists
            if (write(sockets[1], &child, sizeof child) != sizeof child || read(sockets[1], &child, 1) != 1) return;
            child = SpawnTrue();
            if (write(sockets[1], &child, sizeof child) != sizeof child) return;
        }).join();
        _exit(0);
    }
    pid_t child = 0;
    EXPECT_EQ(read(sockets[0], &child, sizeof child), static_cast<ssize_t>(sizeof child));
    AgentProcess agent({"--events=sched:sched_process_exec", "--pid=" + std::to_string(traced), "--count=1",
                        "--format=json"});
    const bool tracing = WaitUntilTracing(agent, "sched_process_exec");
    for (int i = 0; tracing && i < 5; ++i) SpawnTrue();  // not traced
    EXPECT_EQ(write(sockets[0], "g", 1), 1);
    EXPECT_EQ(read(sockets[0], &child, sizeof child), static_cast<ssize_t>(sizeof child));
    waitpid(traced, nullptr, 0);
    for (const int fd : sockets) close(fd);
    if (HasFailure()) return;
    EXPECT_EQ(agent.Wait(std::chrono::seconds(25)), 0) << agent.Stderr();
    const std::regex only_the_child(R"(\{"name":"sched:sched_process_exec"[^\n]*"pid":)" + std::to_string(child) +
                                    ",[^\n]*\n");
    EXPECT_TRUE(std::regex_match(agent.Stdout(), only_the_child)) << agent.Stdout();
}

}  // namespace
