// The module end to end: an engine in this process loads libftrace_module.so
// by path, subscriber tasks ask for sched:sched_process_exec, and a spawned
// /bin/true must reach them. Also the declining path and the library's
// dynamic section, which the agent's loader relies on.
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <iostream>

#include "Framework/Engine.h"
#include "Framework/Module.h"
#include "FtraceWakeup.h"
#include "FtraceWatchMessage.h"
#include "TaskTestSupport.h"

using tasktest::EnableState;
using tasktest::Subscriber;

extern char** environ;

namespace {

const std::string kLibrary = std::string(FTRACE_BUILD_LIB_DIR) + "/libftrace_module.so";

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

std::string Output(const std::string& command) {
    std::string out;
    if (FILE* pipe = popen(command.c_str(), "r")) {
        char buffer[1024];
        for (size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) out.append(buffer, n);
        pclose(pipe);
    }
    return out;
}

// The host's wake-up settings. Without them a new instance keeps the kernel's
// watermark (50 %) and a record may wait for the reader's bounded wait of a
// second; with a watermark of 0 written before the readers are polled, the
// exec arrives well within it. Malformed values change nothing.
struct WakeupCase {
    std::vector<std::pair<std::string, std::string>> config;
    std::string buffer_percent;
    std::chrono::milliseconds bound;  // spawn to receipt, 0: none
    std::vector<std::string> lines;
};

void DeliverExecToSubscribers(const WakeupCase& c) {
    const bool existed = std::filesystem::exists(tasktest::kInstanceDir);
    auto engine = std::make_unique<Framework::Engine>();
    for (const auto& setting : c.config) engine->config().setString(setting.first, setting.second);
    // Poco's application points every existing logger at the console: capture afterwards.
    auto log = tasktest::CaptureFtraceLog(Poco::Message::PRIO_INFORMATION);
    std::string error;
    ASSERT_EQ(engine->LoadModule(kLibrary, &error), 0) << error;
    ASSERT_EQ(engine->AddModule(new SubscriberModule()), 0);
    ASSERT_EQ(engine->StartTasks(), 0);
    Framework::Task* ftrace = engine->FindTask("ftrace_task");
    auto* a = dynamic_cast<Subscriber*>(engine->FindTask("sub_a"));
    auto* b = dynamic_cast<Subscriber*>(engine->FindTask("sub_b"));
    ASSERT_TRUE(ftrace && a && b);
    EXPECT_EQ(tasktest::ReadText(tasktest::kInstanceDir + "/buffer_percent"), c.buffer_percent);
    const auto send = [&](Framework::Task* watcher, const std::string& system, const std::string& event, bool remove) {
        std::shared_ptr<Framework::Message> message =
            std::make_shared<Engine::FtraceWatchMessage>(watcher, system, event, remove);
        ASSERT_EQ(ftrace->EnqueueMsg(message), 1);
    };
    const auto logged = [&](const std::string& line) {
        return tasktest::WaitFor([&] {
            const std::vector<std::string> lines = log->lines();
            return std::find(lines.begin(), lines.end(), line) != lines.end();
        });
    };

    // Names that lead out of the events directory are refused, and the loop goes on.
    send(a, "../../x", "y", false);
    send(a, "sched", "../../x", false);
    tasktest::PlainTask ghost("ghost");  // subscribed, but unknown to the engine
    for (Framework::Task* watcher : std::vector<Framework::Task*>{a, b, &ghost})
        send(watcher, "sched", "sched_process_exec", false);
    ASSERT_TRUE(tasktest::WaitFor([] { return EnableState("sched", "sched_process_exec") == "1"; }));
    // All three subscriptions are in before the spawn: a drain between them would give the exec to a alone.
    ASSERT_TRUE(tasktest::WaitFor([&] {
        const std::vector<std::string> lines = log->lines();
        return std::count(lines.begin(), lines.end(), "6 Setting event: sched:sched_process_exec") == 3;
    }));
    EXPECT_TRUE(logged("3 Invalid event: ../../x:y") && logged("3 Invalid event: sched:../../x"));
    EXPECT_EQ(tasktest::ReadText(tasktest::kInstanceDir + "/set_event"), "sched:sched_process_exec\n");

    pid_t child = 0;
    char* argv[] = {const_cast<char*>("/bin/true"), nullptr};
    const auto spawned = std::chrono::steady_clock::now();
    ASSERT_EQ(posix_spawn(&child, "/bin/true", nullptr, nullptr, argv, environ), 0);
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
    const auto exec_of_child = [child](const Engine::FtraceMessage& m) {
        return m.name() == "sched:sched_process_exec" && m.get_number("pid") == static_cast<unsigned long>(child);
    };
    ASSERT_TRUE(tasktest::WaitFor([&] { return a->Find(exec_of_child) && b->Find(exec_of_child); }));
    if (c.bound.count() > 0) {
        EXPECT_LT(std::chrono::steady_clock::now() - spawned, c.bound);
    }
    const auto message = a->Find(exec_of_child);
    EXPECT_EQ(message, b->Find(exec_of_child));
    EXPECT_EQ(message->get_string("filename").rfind("/bin/true", 0), 0u) << *message;
    EXPECT_EQ(message->get_number("old_pid"), static_cast<unsigned long>(child));
    EXPECT_NE(message->get_number("timestamp"), 0u);
    EXPECT_TRUE(logged("6 FtraceTask::send_ftrace_message: Task ghost not found"));
    for (const char* line : {"6 Ftrace module init", "6 Ftrace task init", "6 Ftrace task Run"})
        EXPECT_TRUE(logged(line)) << line;
    for (const std::string& line : c.lines) EXPECT_TRUE(logged(line)) << line;

    for (Framework::Task* watcher : std::vector<Framework::Task*>{a, &ghost, b})
        send(watcher, "sched", "sched_process_exec", true);
    EXPECT_TRUE(tasktest::WaitFor([] { return EnableState("sched", "sched_process_exec") == "0"; }));
    engine.reset();  // shuts the tasks down
    EXPECT_EQ(std::filesystem::exists(tasktest::kInstanceDir), existed);
    EXPECT_EQ(tasktest::ReadText("/sys/kernel/tracing/set_event"), "");
}

}  // namespace

TEST(FtraceModuleTest, DeliversOneSharedMessageToEverySubscriber) {
    using Engine::FtraceWakeup;
    const WakeupCase cases[] = {
        {{}, "50\n", std::chrono::milliseconds(0), {}},
        {{{FtraceWakeup::kBufferPercentKey, "0"}, {FtraceWakeup::kCoalesceMsKey, "4"}},
         "0\n",
         std::chrono::milliseconds(200),
         {"6 Ftrace wake-up: readers wake at buffer_percent 0, next wait held off 4 ms after a pass that read records"}},
        {{{FtraceWakeup::kBufferPercentKey, "fast"}, {FtraceWakeup::kCoalesceMsKey, "-1"}},
         "50\n",
         std::chrono::milliseconds(0),
         {"3 Ignoring ftrace.wakeup.buffer_percent=fast: not a whole number from 0 to 100",
          "3 Ignoring ftrace.wakeup.coalesce_ms=-1: not a whole number from 0 to 1000"}},
    };
    for (const WakeupCase& c : cases) {
        SCOPED_TRACE(c.config.empty() ? "unconfigured" : c.config[0].second);
        DeliverExecToSubscribers(c);
    }
}

TEST(FtraceModuleEntryTest, DeclinesWhenTheInstanceCannotBeCreated) {
    EXPECT_EXIT(
        {
            Framework::Engine engine;
            Poco::AutoPtr<tasktest::CapturingChannel> root(new tasktest::CapturingChannel);
            Poco::Logger::root().setChannel(root);
            if (setuid(65534) != 0) _exit(2);
            std::cerr << "result " << engine.LoadModule(kLibrary) << ", tasks " << engine.TaskNames().size();
            for (const std::string& line : root->lines())
                if (line.find("FtraceFS") != std::string::npos) std::cerr << "\n" << line;
            _exit(0);
        },
        testing::ExitedWithCode(0), "result -1, tasks 0\n4 Failed to init FtraceFS\\(-1\\), perhaps not support$");
}

TEST(FtraceModuleEntryTest, DynamicSectionAsTheLoaderExpects) {
    const std::string readelf = "readelf -W -d " + kLibrary + " | sed -n -E ";
    // Sanitizer runtimes put themselves first; they are not the module's choice.
    const std::string needed = Output(readelf + "'s/.*\\(NEEDED\\).*\\[(.*)\\]/\\1/p' | grep -v -E '^lib(a|ub|t)san'");
    EXPECT_EQ(needed.rfind("libsdk.so\nlibframework.so\nlibpthread.so.0\nlibtraceevent.so.1\nlibtracefs.so.1\n", 0),
              0u) << needed;
    EXPECT_EQ(needed.find("Poco"), std::string::npos) << needed;
    EXPECT_EQ(Output(readelf + "'s/.*\\((RUNPATH|RPATH)\\).*\\[(.*)\\]/\\2/p'"),
              "$ORIGIN/:/usr/local/quarnelix/lib/:/usr/local/quarnelix/module/\n");
    const std::string exported = "awk '$8 == \"CreateModule\" && $7 != \"UND\" {print $4, $5, $6}'";
    EXPECT_EQ(Output("readelf -W --dyn-syms " + kLibrary + " | " + exported), "FUNC GLOBAL DEFAULT\n");
}
