// The trace message's entries and text form. The module end
// to end in this process: an engine loads libftrace_module.so by path and
// subscriber tasks ask for sched:sched_process_exec. Spawned children must
// reach every steady subscriber as one shared message, also while a stopped
// subscriber never takes its own and after the event was switched
// off behind the module's back. Also the library's dynamic section, which
// the agent's loader relies on.

#include <array>
#include <iostream>

#include "Framework/Engine.h"
#include "Framework/Module.h"
#include "FtraceBufferSize.h"
#include "FtraceHoldOff.h"
#include "FtraceWakeup.h"
#include "FtraceWatchMessage.h"
#include "TaskTestSupport.h"
#include "TracefsTest.h"

using Engine::FtraceMessage;
using tasktest::Subscriber;
using test_support::Output;

namespace {

const std::string kLibrary = std::string(FTRACE_BUILD_LIB_DIR) + "/libftrace_module.so";
const std::string kExec = "sched_process_exec", kExit = "sched_process_exit";
constexpr unsigned int kVictimSlots = 16;

struct SubscriberModule : Framework::Module {
    SubscriberModule() : Framework::Module("test_subscribers") {}
    int Init() override {
        Framework::Module::Init();
        RegisterTask(new Subscriber("sub_a"), false);
        RegisterTask(new Subscriber("sub_b"), false);
        RegisterTask(new Subscriber("stopped", true, kVictimSlots), false);
        return 0;
    }
};

std::function<bool(const Engine::FtraceMessage&)> Of(const std::string& event, pid_t pid) {
    return [=](const Engine::FtraceMessage& m) {
        return m.name() == "sched:" + event && m.get_number("pid") == static_cast<unsigned long>(pid);
    };
}

}  // namespace

// The text form: numbers before strings, keys sorted, the first value of a key kept.
TEST(FtraceMessageTest, FirstValueWinsAndTextForm) {
    FtraceMessage message("sched:sched_switch");
    for (const unsigned long pid : {7UL, 8UL}) message.add("prev_pid", pid);
    message.add("timestamp", 5UL);
    for (const char* comm : {"bash", "sh"}) message.add("prev_comm", std::string(comm));
    std::ostringstream text;
    text << message;
    EXPECT_EQ(text.str(), "sched:sched_switch prev_pid: 7, timestamp: 5, prev_comm: bash, ");
    EXPECT_EQ(message.get_number("missing") + message.get_string("missing").size(), 0UL);
}

// The hold-off after passes that each read `records`, `ms` after the last one, `times` times.
TEST(FtraceHoldOffTest, WindowStretchesOnlyInASlowStorm) {
    // Passes: {ms, records, times}; the window after the last one, -1 for none.
    struct Row { const char* name; int shortest, longest; std::vector<std::array<int, 3>> passes; long window_ms; };
    const std::vector<Row> rows = {
        {"fixed window", 4, 4, {{4, 180, 10}}, 4},
        {"no hold-off configured", 0, 12, {{4, 180, 10}}, -1},
        {"a pass that read nothing", 4, 12, {{4, 180, 10}, {4, 0, 1}}, -1},
        {"a trickle", 4, 12, {{4, 4, 20}}, 4},
        {"a slow storm", 4, 12, {{4, 180, 5}}, 12},
        {"a storm that fills 1000 records in 6 ms", 4, 12, {{4, 667, 5}}, 6},
        {"a fast storm", 4, 12, {{4, 2800, 5}}, 4},
        {"a fast storm's return", 4, 12, {{12, 540, 5}, {12, 8400, 1}}, 4},
        {"a lull inside a fast storm", 4, 12, {{4, 2800, 10}, {4, 100, 1}}, 4},
        {"a slow storm that ended", 4, 12, {{12, 540, 5}, {12, 10, 30}}, 4},
        {"after an idle second", 4, 12, {{12, 540, 5}, {1000, 1, 1}}, 4},
    };
    using std::chrono::milliseconds;
    for (const Row& row : rows) {
        Engine::FtraceHoldOff hold_off{milliseconds(row.shortest), milliseconds(row.longest)};
        auto now = std::chrono::steady_clock::time_point{} + std::chrono::hours(1), until = now;
        for (const auto& [ms, records, times] : row.passes) {
            for (int i = 0; i < times; ++i) until = hold_off.AfterPass(now += milliseconds(ms), records);
        }
        const long window = until == decltype(until){} ? -1 : std::chrono::round<milliseconds>(until - now).count();
        EXPECT_EQ(window, row.window_ms) << row.name;
    }
}

using FtraceModuleTest = TracefsTest;

TEST_F(FtraceModuleTest, DeliversOneSharedMessageToEverySubscriber) {
    auto engine = std::make_unique<Framework::Engine>();
    // Poco's application points every existing logger at the console: capture afterwards.
    auto log = test_support::CaptureFtraceLog(Poco::Message::PRIO_INFORMATION);
    std::string error;
    // Low-latency wake-up settings, as ftrace-agent stores them: the
    // watermark is written before the readers are polled.
    Engine::FtraceWakeup::LowLatency().Store(engine->config());
    engine->config().setInt(Engine::FtraceBufferSize::kKey, 2040);
    ASSERT_EQ(engine->LoadModule(kLibrary, &error), 0) << error;
    ASSERT_EQ(engine->AddModule(new SubscriberModule()), 0);
    ASSERT_EQ(engine->StartTasks(), 0);
    Framework::Task* ftrace = engine->FindTask("ftrace_task");
    auto* a = dynamic_cast<Subscriber*>(engine->FindTask("sub_a"));
    auto* b = dynamic_cast<Subscriber*>(engine->FindTask("sub_b"));
    auto* stopped = dynamic_cast<Subscriber*>(engine->FindTask("stopped"));
    ASSERT_TRUE(ftrace && a && b && stopped);
    EXPECT_EQ(Read(kZev + "/buffer_percent"), "0\n");
    // The kernel rounds a size up to whole pages of data.
    const unsigned long buffer_kb = std::stoul(Read(kZev + "/per_cpu/cpu0/buffer_size_kb"));
    EXPECT_TRUE(buffer_kb >= 2040 && buffer_kb < 2048) << buffer_kb;
    const auto watch = [&](Framework::Task* watcher, const std::string& system, const std::string& event, bool remove) {
        std::shared_ptr<Framework::Message> message =
            std::make_shared<Engine::FtraceWatchMessage>(watcher, system, event, remove);
        ASSERT_EQ(ftrace->EnqueueMsg(message), 1);
    };
    const auto logged = [&](const std::string& line) {
        return WaitFor([&] {
            const std::vector<std::string> lines = log->lines();
            return std::find(lines.begin(), lines.end(), line) != lines.end();
        }, 10);
    };
    const auto enabled = [&](const std::string& event, const char* state) {
        return WaitFor([&] { return Enabled(event) == state; }, 10);
    };

    tasktest::PlainTask ghost("ghost");  // subscribed, but unknown to the engine
    const std::vector<Framework::Task*> all = {b, &ghost, stopped, a};
    // The event is routed to a alone first: the others must be seen when they
    // join. a's repeated request, refused, comes last and shows they were taken.
    watch(a, "sched", kExec, false);
    ASSERT_TRUE(enabled(kExec, "1"));
    const auto spawned = std::chrono::steady_clock::now();
    const pid_t early = SpawnTrue();
    ASSERT_TRUE(WaitFor([&] { return a->Find(Of(kExec, early)) != nullptr; }, 15));
    // Well within the reader's bounded wait of a second: the wake-up works.
    EXPECT_LT(std::chrono::steady_clock::now() - spawned, std::chrono::milliseconds(200));
    for (Framework::Task* watcher : all) watch(watcher, "sched", kExec, false);
    ASSERT_TRUE(logged("6 Task sub_a already registered to sched:sched_process_exec"));
    EXPECT_EQ(Read(kZev + "/set_event"), "sched:sched_process_exec\n");

    const pid_t child = SpawnTrue();
    ASSERT_TRUE(WaitFor([&] { return a->Find(Of(kExec, child)) && b->Find(Of(kExec, child)); }, 15));
    const auto message = a->Find(Of(kExec, child));
    EXPECT_EQ(message, b->Find(Of(kExec, child)));
    EXPECT_EQ(message->get_string("filename").rfind("/bin/true", 0), 0u) << *message;
    EXPECT_EQ(message->get_number("old_pid"), static_cast<unsigned long>(child));
    EXPECT_NE(message->get_number("timestamp"), 0u);
    EXPECT_TRUE(logged("6 FtraceTask::send_ftrace_message: Task ghost not found"));
    EXPECT_TRUE(logged("6 Ftrace buffer: 2040 KiB per CPU"));
    EXPECT_TRUE(logged("6 Ftrace wake-up: readers wake at buffer_percent 0, next wait held off 4 ms after a pass that "
                       "read records, up to 12 ms in a slow storm, reading thread at nice -10"));

    // The stopped one loses its own messages (its queue fills, then drops);
    // the reader never blocks on it, and a steady one gets every exec.
    const size_t steady_count = a->Count();
    std::vector<pid_t> children;
    for (int i = 0; i < 300; ++i) children.push_back(SpawnTrue());
    const bool complete = WaitFor([&] {
        return std::all_of(children.begin(), children.end(), [&](pid_t pid) { return a->Find(Of(kExec, pid)) != nullptr; });
    }, 30);
    if (const uint64_t lost = ZevLost()) {
        std::cout << "completeness not checked: the kernel lost " << lost << " events\n";
    } else {
        EXPECT_TRUE(complete) << "a steady subscriber missed execs although the kernel lost nothing";
    }
    EXPECT_EQ(stopped->Count(), 0u);
    EXPECT_GE(stopped->DroppedMessages() + kVictimSlots, a->Count() - steady_count);
    for (Framework::Task* watcher : all) watch(watcher, "sched", kExec, true);
    EXPECT_TRUE(enabled(kExec, "0"));

    // Someone writes 0 to the enable file. A repeated subscribe is refused and
    // changes nothing, other events still arrive, and leaving and subscribing
    // again switches the event back on.
    watch(a, "sched", kExec, false);
    ASSERT_TRUE(enabled(kExec, "1"));
    ASSERT_TRUE(std::ofstream(kZev + "/events/sched/" + kExec + "/enable") << "0" << std::flush);
    watch(a, "sched", kExec, false);
    watch(a, "sched", kExit, false);
    ASSERT_TRUE(enabled(kExit, "1"));
    EXPECT_EQ(Enabled(kExec), "0");
    const pid_t while_off = SpawnTrue();
    ASSERT_TRUE(WaitFor([&] { return a->Find(Of(kExit, while_off)) != nullptr; }, 15)) << "delivery stopped";
    EXPECT_FALSE(a->Find(Of(kExec, while_off)));
    watch(a, "sched", kExec, true);
    watch(a, "sched", kExec, false);
    ASSERT_TRUE(enabled(kExec, "1"));
    const pid_t after = SpawnTrue();
    EXPECT_TRUE(WaitFor([&] { return a->Find(Of(kExec, after)) != nullptr; }, 15)) << "not back after resubscribing";
    EXPECT_FALSE(WaitFor([&] { return b->Find(Of(kExec, after)) != nullptr; }, 1)) << "delivered to one that left";
    engine.reset();  // shuts the tasks down: the instance it made is gone (TearDown checks)
}

// As a user without the right to make the instance: the module declines with
// the root logger's warning, and no task is left behind.
TEST(FtraceModuleEntryTest, DeclinesWhenTheInstanceCannotBeCreated) {
    EXPECT_EXIT(
        {
            Framework::Engine engine;
            Poco::AutoPtr<test_support::CapturingChannel> root(new test_support::CapturingChannel);
            Poco::Logger::setChannel("", root);  // every logger, also ones an earlier test made
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
}
