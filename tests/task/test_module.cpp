// The module end to end: an engine in this process loads libftrace_module.so
// by path, subscriber tasks ask for sched:sched_process_exec, and a spawned
// /bin/true must reach them. Also the declining path and the library's
// dynamic section, which the agent's loader relies on.
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <sstream>

#include "Framework/Engine.h"
#include "Framework/Module.h"
#include "FtraceWatchMessage.h"
#include "TaskTestSupport.h"

using tasktest::Subscriber;

extern char** environ;

namespace {

const std::string kLibrary = std::string(FTRACE_BUILD_LIB_DIR) + "/libftrace_module.so";
const std::string kSys = "sched";
const std::string kEvent = "sched_process_exec";

class NamedTask : public Framework::Task {
public:
    explicit NamedTask(const std::string& name)
        : Framework::Task(name, "test_feature", Framework::TaskCondition::TASK_TYPE_NORMAL, 16) {}
    int Run() override { return 0; }
};

class SubscriberModule : public Framework::Module {
public:
    SubscriberModule() : Framework::Module("test_subscribers") {}
    int Init() override {
        Framework::Module::Init();
        RegisterTask(new Subscriber("sub_a"), false);
        RegisterTask(new Subscriber("sub_b"), false);
        return 0;
    }
};

bool Contains(const std::vector<std::string>& lines, const std::string& line) {
    return std::find(lines.begin(), lines.end(), line) != lines.end();
}

class FtraceModuleTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_existed = tasktest::Exists(tasktest::kInstanceDir);
        // Poco's application points every existing logger at the console: capture afterwards.
        m_engine = std::make_unique<Framework::Engine>();
        m_log = tasktest::CaptureFtraceLog(Poco::Message::PRIO_INFORMATION);
        std::string error;
        ASSERT_EQ(m_engine->LoadModule(kLibrary, &error), 0) << error;
        ASSERT_EQ(m_engine->AddModule(new SubscriberModule()), 0);
        ASSERT_EQ(m_engine->StartTasks(), 0);
        m_ftrace = m_engine->FindTask("ftrace_task");
        m_a = dynamic_cast<Subscriber*>(m_engine->FindTask("sub_a"));
        m_b = dynamic_cast<Subscriber*>(m_engine->FindTask("sub_b"));
        ASSERT_TRUE(m_ftrace && m_a && m_b);
    }
    void TearDown() override {
        if (m_engine) m_engine->Shutdown();
        m_engine.reset();
        EXPECT_EQ(tasktest::Exists(tasktest::kInstanceDir), m_existed);
        EXPECT_EQ(tasktest::ReadText("/sys/kernel/tracing/set_event"), "");
    }
    void Send(Framework::Task* to, Framework::Task* watcher, const std::string& system, const std::string& event,
              bool remove) {
        std::shared_ptr<Framework::Message> message =
            std::make_shared<Engine::FtraceWatchMessage>(watcher, system, event, remove);
        ASSERT_EQ(to->EnqueueMsg(message), 1);
    }
    bool WaitForLine(const std::string& line) {
        return tasktest::WaitFor([&] { return Contains(m_log->lines(), line); });
    }

    bool m_existed = false;
    Poco::AutoPtr<tasktest::CapturingChannel> m_log;
    std::unique_ptr<Framework::Engine> m_engine;
    Framework::Task* m_ftrace = nullptr;
    Subscriber* m_a = nullptr;
    Subscriber* m_b = nullptr;
};

}  // namespace

TEST_F(FtraceModuleTest, DeliversOneSharedMessageToEverySubscriber) {
    NamedTask ghost("ghost");  // subscribed, but unknown to the engine
    for (Framework::Task* watcher : std::vector<Framework::Task*>{m_a, m_b, &ghost})
        Send(m_ftrace, watcher, kSys, kEvent, false);
    ASSERT_TRUE(tasktest::WaitFor([] { return tasktest::EnableState(kSys, kEvent) == "1"; }));

    pid_t child = 0;
    char* argv[] = {const_cast<char*>("/bin/true"), nullptr};
    ASSERT_EQ(posix_spawn(&child, "/bin/true", nullptr, nullptr, argv, environ), 0);
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
    const auto exec_of_child = [child](const Engine::FtraceMessage& m) {
        return m.name() == "sched:sched_process_exec" && m.get_number("pid") == static_cast<unsigned long>(child);
    };
    ASSERT_TRUE(tasktest::WaitFor([&] { return m_a->Find(exec_of_child) && m_b->Find(exec_of_child); }));
    const auto message = m_a->Find(exec_of_child);
    EXPECT_EQ(message, m_b->Find(exec_of_child));
    EXPECT_EQ(message->get_string("filename").rfind("/bin/true", 0), 0u) << *message;
    EXPECT_EQ(message->get_number("old_pid"), static_cast<unsigned long>(child));
    EXPECT_NE(message->get_number("timestamp"), 0u);
    EXPECT_TRUE(WaitForLine("6 FtraceTask::send_ftrace_message: Task ghost not found"));
    for (const char* line : {"6 Ftrace module init", "6 Ftrace task init", "6 Ftrace task Run"})
        EXPECT_TRUE(Contains(m_log->lines(), line)) << line;

    for (Framework::Task* watcher : std::vector<Framework::Task*>{m_a, &ghost, m_b})
        Send(m_ftrace, watcher, kSys, kEvent, true);
    EXPECT_TRUE(tasktest::WaitFor([] { return tasktest::EnableState(kSys, kEvent) == "0"; }));
}

TEST_F(FtraceModuleTest, BadRequestsChangeNothingAndTheLoopGoesOn) {
    Send(m_ftrace, nullptr, kSys, kEvent, false);
    Send(m_ftrace, m_a, "", kEvent, false);
    Send(m_ftrace, m_a, kSys, "", false);
    Send(m_ftrace, m_a, "../../x", "y", false);
    Send(m_ftrace, m_a, kSys, "../../x", false);
    Send(m_b, m_a, kSys, kEvent, false);  // consumed by a task that is not the ftrace task
    for (const char* line : {"3 m_watcher is null", "3 m_system is empty", "3 m_event_name is empty",
                             "3 Invalid event: ../../x:y", "3 Invalid event: sched:../../x", "3 Task is not FtraceTask"})
        EXPECT_TRUE(WaitForLine(line)) << line;
    EXPECT_EQ(tasktest::ReadText(tasktest::kInstanceDir + "/set_event"), "");

    Send(m_ftrace, m_a, kSys, kEvent, false);
    EXPECT_TRUE(tasktest::WaitFor([] { return tasktest::EnableState(kSys, kEvent) == "1"; }));
    EXPECT_EQ(tasktest::ReadText(tasktest::kInstanceDir + "/set_event"), "sched:sched_process_exec\n");
}

TEST(FtraceModuleEntryTest, DeclinesWhenTheInstanceCannotBeCreated) {
    int report_pipe[2];
    ASSERT_EQ(pipe(report_pipe), 0);
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        close(report_pipe[0]);
        Framework::Engine engine;
        Poco::AutoPtr<tasktest::CapturingChannel> root(new tasktest::CapturingChannel(Poco::Message::PRIO_TRACE));
        Poco::Logger::root().setChannel(root);
        std::string report = "setuid failed";
        if (setuid(65534) == 0) {
            const int result = engine.LoadModule(kLibrary);
            report = std::to_string(result) + " tasks=" + std::to_string(engine.TaskNames().size());
            for (const std::string& line : root->lines())
                if (line.find("FtraceFS") != std::string::npos) report += "\n" + line;
        }
        const ssize_t written = write(report_pipe[1], report.data(), report.size());
        _exit(written == static_cast<ssize_t>(report.size()) ? 0 : 1);
    }
    close(report_pipe[1]);
    std::string report;
    char buffer[256];
    for (ssize_t n; (n = read(report_pipe[0], buffer, sizeof buffer)) > 0;) report.append(buffer, n);
    close(report_pipe[0]);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(report, "-1 tasks=0\n4 Failed to init FtraceFS(-1), perhaps not support");
}

namespace {

std::vector<std::string> CommandLines(const std::string& command) {
    std::vector<std::string> lines;
    FILE* out = popen(command.c_str(), "r");
    if (out == nullptr) return lines;
    char buffer[1024];
    while (fgets(buffer, sizeof buffer, out) != nullptr) lines.emplace_back(buffer);
    pclose(out);
    return lines;
}

std::string Bracketed(const std::string& line) {
    const size_t open = line.find('[');
    const size_t close = line.rfind(']');
    return open == std::string::npos || close == std::string::npos ? "" : line.substr(open + 1, close - open - 1);
}

}  // namespace

TEST(FtraceModuleEntryTest, DynamicSectionAsTheLoaderExpects) {
    std::vector<std::string> needed;
    std::vector<std::string> runpaths;
    for (const std::string& line : CommandLines("readelf -d -W " + kLibrary)) {
        const std::string value = Bracketed(line);
        if (line.find("(NEEDED)") != std::string::npos) {
            // Sanitizer runtimes put themselves first; they are not the module's choice.
            if (value.rfind("libasan", 0) != 0 && value.rfind("libubsan", 0) != 0 && value.rfind("libtsan", 0) != 0)
                needed.push_back(value);
        } else if (line.find("(RUNPATH)") != std::string::npos || line.find("(RPATH)") != std::string::npos) {
            runpaths.push_back(value);
        }
    }
    const std::vector<std::string> first = {"libsdk.so", "libframework.so", "libpthread.so.0", "libtraceevent.so.1",
                                            "libtracefs.so.1"};
    ASSERT_GE(needed.size(), first.size());
    EXPECT_EQ(std::vector<std::string>(needed.begin(), needed.begin() + first.size()), first);
    for (const std::string& library : needed) EXPECT_EQ(library.find("Poco"), std::string::npos) << library;
    EXPECT_EQ(runpaths, std::vector<std::string>{"$ORIGIN/:/usr/local/quarnelix/lib/:/usr/local/quarnelix/module/"});

    bool exported = false;
    for (const std::string& line : CommandLines("readelf --dyn-syms -W " + kLibrary)) {
        std::istringstream fields(line);
        std::vector<std::string> f{std::istream_iterator<std::string>(fields), {}};
        if (f.size() == 8 && f[7] == "CreateModule")
            exported = f[3] == "FUNC" && f[4] == "GLOBAL" && f[5] == "DEFAULT" && f[6] != "UND";
    }
    EXPECT_TRUE(exported);
}
