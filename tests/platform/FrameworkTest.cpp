// Events, tasks and the engine with real module objects: ownership of event
// callbacks and descriptors, message consumption with failing handlers,
// module loading, tasks that wake each other by name, the order of shutdown
// and failed modules. Stop requests by signal are left to
// the agent's tests, which stop a real agent with SIGINT and SIGTERM.
#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <stdexcept>

#include "Framework/Engine.h"
#include "Framework/Event.h"
#include "Framework/EventCallback.h"
#include "Framework/EventWaiter.h"
#include "Framework/Module.h"
#include "Framework/Task.h"
#include "TestSupport.h"

namespace {

using ::testing::ElementsAre;

bool IsOpen(int fd) { return ::fcntl(fd, F_GETFD) != -1; }

bool IsLoaded(const char* path) {
    void* handle = ::dlopen(path, RTLD_NOW | RTLD_NOLOAD);
    return handle != nullptr && ::dlclose(handle) == 0;
}

bool JournalHas(const Framework::Engine& engine, const std::string& line, long times = 1) {
    return test_support::WaitFor([&] {
        const auto journal = engine.Journal();
        return std::count(journal.begin(), journal.end(), line) >= times;
    });
}

// Counts its own calls and destructions, to prove each event deletes its callback once.
struct CountedCallback : Framework::AbstractEventCallback {
    CountedCallback(int* destroyed, int* invoked) : destroyed(destroyed), invoked(invoked) {}
    ~CountedCallback() override { ++*destroyed; }
    int invoke(int fd, unsigned int, void*) const override {
        uint64_t count = 0;
        ++*invoked;
        return static_cast<int>(::read(fd, &count, sizeof count));
    }
    int *const destroyed, *const invoked;
};

TEST(Event, OwnsCallbackAndDescriptorAcrossMovesAndTheWaiterHandlesEachReadyOne) {
    int destroyed = 0, invoked = 0, fds[3];
    {
        std::vector<Framework::Event> events;
        events.reserve(1);  // the next emplace_back grows the vector: events are moved
        for (int& fd : fds) {
            fd = ::eventfd(0, EFD_CLOEXEC);
            events.emplace_back(new CountedCallback(&destroyed, &invoked), nullptr, fd);
        }
        Framework::Event moved(std::move(events[0]));
        events.erase(events.begin());  // destroys the moved-from shell and shifts the others
        EXPECT_TRUE(IsOpen(fds[0]));
        EXPECT_EQ(destroyed, 0);
        Framework::EventWaiter waiter;
        for (Framework::Event* event : {&moved, &events[0], &events[1]}) {
            ASSERT_EQ(waiter.AddEvent(*event), 0);
            const uint64_t one = 1;
            ASSERT_EQ(::write(event->Fd(), &one, sizeof one), 8);
        }
        EXPECT_EQ(waiter.WaitAndHandleEvent(0, 8), 3);
        EXPECT_EQ(invoked, 3);
        EXPECT_EQ(waiter.WaitAndHandleEvent(0, 8), 0);  // each was read by its handler
    }
    EXPECT_EQ(destroyed, 3);
    for (int fd : fds) EXPECT_FALSE(IsOpen(fd));
}

enum class Behaviour { Ok, Fails, ThrowsStd, ThrowsOther, Intercepted, Echo };

struct ScriptedMessage : Framework::Message {
    ScriptedMessage(Behaviour b, int id, std::vector<int>* handled) : behaviour(b), id(id), handled(handled) {}
    int MessageHandle(void* task) override {
        std::shared_ptr<Framework::Message> echo = std::make_shared<ScriptedMessage>(Behaviour::Ok, id, handled);
        switch (behaviour) {
            case Behaviour::Echo: return static_cast<Framework::Task*>(task)->EnqueueMsg(echo) == 1 ? 0 : -1;
            case Behaviour::Fails: return -1;
            case Behaviour::ThrowsStd: throw std::runtime_error("handler failed");
            case Behaviour::ThrowsOther: throw 42;
            default: if (handled != nullptr) handled->push_back(id); return 0;
        }
    }
    const Behaviour behaviour;
    const int id;
    std::vector<int>* const handled;
};

// Serves its queue as the agent's tasks do: sleep while it is empty, else consume.
struct LoopTask : Framework::Task {
    // A collector: the engine stops it before the other tasks.
    explicit LoopTask(const std::string& name, unsigned int queue_size = 64)
        : Task(name, "test_feature", Framework::TaskCondition::TASK_TYPE_COLLECTOR, queue_size) {}
    int Run() override {
        while (state() != TASK_CANCELLING) {
            BulkConsumeMsg(1024);
            // No time-out: only a wake-up (a message, or the engine's stop)
            // ends the wait, once the waiter has looked at the queue again.
            GetEventWaiter().WaitAndHandleEvent(-1, 128);
        }
        if (throw_at_end) throw std::runtime_error("Run failed");
        return 0;
    }
    int InterceptMsg(std::shared_ptr<Framework::Message>& m) override {
        auto* scripted = dynamic_cast<ScriptedMessage*>(m.get());
        return scripted != nullptr && scripted->behaviour == Behaviour::Intercepted ? 1 : 0;
    }
    int HandleMsg(const Framework::Message*) override { return ++after_handle; }

    std::atomic<int> after_handle{0};
    bool throw_at_end = false;
};

TEST(Task, FailingOrThrowingHandlersDoNotStopTheConsumerAndAFullQueueRefuses) {
    const Behaviour script[] = {Behaviour::Ok,          Behaviour::Fails,       Behaviour::ThrowsStd,
                                Behaviour::Intercepted, Behaviour::ThrowsOther, Behaviour::Ok};
    std::vector<int> handled;
    std::vector<std::shared_ptr<Framework::Message>> sent;
    {
        LoopTask task("loop_task", 8);
        for (int i = 0; i < 9; ++i) {
            sent.push_back(std::make_shared<ScriptedMessage>(i < 6 ? script[i] : Behaviour::Ok, i, &handled));
            EXPECT_EQ(task.EnqueueMsg(sent.back()), i < 8 ? 1 : 0);
        }
        std::shared_ptr<Framework::Message> null_message;
        EXPECT_EQ(task.EnqueueMsg(null_message), 0);
        EXPECT_EQ(task.DroppedMessages(), 1u);

        EXPECT_EQ(task.BulkConsumeMsg(7), 7);
        EXPECT_EQ(task.BulkConsumeMsg(-1), 1);
        EXPECT_EQ(handled, (std::vector<int>{0, 5, 6, 7}));
        EXPECT_EQ(task.after_handle, 5);  // after the Ok and failing handlers; not after throws or interception
        sent.push_back(std::make_shared<ScriptedMessage>(Behaviour::Ok, 9, &handled));
        EXPECT_EQ(task.EnqueueMsg(sent.back()), 1);  // still queued when the task goes
    }
    for (const auto& m : sent) EXPECT_EQ(m.use_count(), 1);  // the queue let go of every message, consumed or not
}

// A message a handler sends to its own task finds the wake-up still pending,
// so nothing wakes the task: the waiter's last look at the queue must find it.
TEST(Task, AMessageSentToItselfIsNotLeftWaiting) {
    LoopTask task("loop_task");
    std::thread thread([&] { task.runTask(); });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));  // asleep, its wake-up armed
    std::shared_ptr<Framework::Message> echo = std::make_shared<ScriptedMessage>(Behaviour::Echo, 0, nullptr);
    EXPECT_EQ(task.EnqueueMsg(echo), 1);
    EXPECT_TRUE(test_support::WaitFor([&] { return task.after_handle == 2; }));
    task.cancel();
    task.Wakeup();
    thread.join();
}

struct ProbeModule : Framework::Module {
    ProbeModule() : Module("probe_module") {}
    int Init() override {
        auto* task = new LoopTask("probe_task");
        task->throw_at_end = true;  // runTask must not let it out of the thread
        return RegisterTask(task, true);
    }
};

// lifecycle_task answers a message with a "hello" to probe_task. Both wait
// without a time-out: the hello arrives only if the lifecycle task's thread
// wakes the task it enqueued to. probe_task, a collector, stops first.
TEST(Engine, RunsModuleTasksThatTalkByNameAndShutsDownInOrder) {
    {
        Framework::Engine engine;
        std::string error;
        ASSERT_EQ(engine.LoadModule(LIFECYCLE_MODULE_PATH, &error), 0) << error;
        ASSERT_EQ(engine.StartTasks(), 0);
        ASSERT_EQ(engine.AddModule(new ProbeModule), 0);  // start_now while running: starts at once
        // Each round both tasks are asleep again: the ping from this thread
        // wakes the one at once, the hello is owed until its sender waits.
        for (int round = 1; round <= 3; ++round) {
            std::shared_ptr<Framework::Message> ping = std::make_shared<ScriptedMessage>(Behaviour::Ok, 0, nullptr);
            ASSERT_EQ(engine.FindTask("lifecycle_task")->EnqueueMsg(ping), 1);
            ASSERT_TRUE(JournalHas(engine, "probe_task handled hello", round));
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        engine.Shutdown();
        EXPECT_EQ(engine.FindTask("lifecycle_task"), nullptr);
        EXPECT_THAT(engine.Journal(),
                    ElementsAre("module lifecycle_module Init", "task lifecycle_task registered",
                                "task lifecycle_task Init", "task lifecycle_task start", "module probe_module Init",
                                "task probe_task registered", "task probe_task Init", "task probe_task start",
                                "probe_task handled hello", "probe_task handled hello", "probe_task handled hello",
                                "task probe_task cancel", "task probe_task stopped",
                                "task lifecycle_task cancel", "task lifecycle_task stopped", "task probe_task UnInit",
                                "task lifecycle_task UnInit", "lifecycle_task: UnInit after Run",
                                "module probe_module UnInit", "module lifecycle_module UnInit",
                                "task probe_task delete", "task lifecycle_task delete", "lifecycle_task: destroyed",
                                "module probe_module delete", "module lifecycle_module delete",
                                "lifecycle_module: destroyed", "module lifecycle_module unload"));
    }
    EXPECT_FALSE(IsLoaded(LIFECYCLE_MODULE_PATH));
}

TEST(Engine, ModulesThatCannotStartAreUnloadedWithTheReason) {
    // Module path, reason.
    const std::pair<const char*, const char*> cases[] = {
        {"/nonexistent/libnothing.so", "/nonexistent/libnothing.so: cannot open shared object file"},
        {SDK_LIBRARY_PATH, "undefined symbol: CreateModule"},
        {FAILING_MODULE_PATH, "Init returned -1"},
    };
    Framework::Engine engine;
    for (const auto& [path, reason] : cases) {
        std::string error;
        EXPECT_EQ(engine.LoadModule(path, &error), -1) << path;
        EXPECT_THAT(error, testing::HasSubstr(reason));
    }
    EXPECT_TRUE(engine.TaskNames().empty());
    EXPECT_FALSE(IsLoaded(FAILING_MODULE_PATH));
    // The task registered by the failed Init is freed before the module's code is unmapped.
    EXPECT_THAT(engine.Journal(),
                ElementsAre("module failing_module Init", "task failing_task registered",
                            "module failing_module Init failed", "task failing_task dropped",
                            "failing_task: destroyed", "module failing_module delete", "failing_module: destroyed",
                            "module failing_module unload"));
}

// Shutdown right after start: the cancel often lands before Poco's run() has
// set TASK_RUNNING; the engine must still stop the task.
TEST(Engine, ShutdownStopsTasksCancelledBeforeTheyRan) {
    for (int round = 0; round < 5; ++round) {
        Framework::Engine engine;
        ASSERT_EQ(engine.AddModule(new ProbeModule), 0);
        ASSERT_EQ(engine.StartTasks(), 0);
        engine.Shutdown();
        EXPECT_TRUE(JournalHas(engine, "task probe_task stopped"));
        EXPECT_EQ(engine.AddModule(new ProbeModule), -1);  // refused once shut down
    }
}

}  // namespace
