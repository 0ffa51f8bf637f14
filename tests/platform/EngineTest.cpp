// The engine with real module objects: loading, task threads, messages
// between tasks found by name, the order of shutdown, failed modules, and
// stop requests by signal.
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "Framework/Engine.h"
#include "Framework/Module.h"
#include "Framework/Task.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

bool IsLoaded(const char* path) {
    void* handle = ::dlopen(path, RTLD_NOW | RTLD_NOLOAD);
    if (handle != nullptr) ::dlclose(handle);
    return handle != nullptr;
}

bool JournalHas(const Framework::Engine& engine, const std::string& line) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (std::chrono::steady_clock::now() < deadline) {
        for (const auto& l : engine.Journal()) {
            if (l == line) return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return false;
}

class PingMessage : public Framework::Message {
public:
    explicit PingMessage(Framework::Engine& engine) : m_engine(engine) {}
    int MessageHandle(void* context) override {
        m_engine.Note(static_cast<Framework::Task*>(context)->name() + " handled ping");
        return 0;
    }

private:
    Framework::Engine& m_engine;
};

// In-process task: pings "lifecycle_task" once, then serves its queue.
class ProbeTask : public Framework::Task {
public:
    explicit ProbeTask(Framework::Engine& engine)
        : Task("probe_task", "test_feature", Framework::TaskCondition::TASK_TYPE_NORMAL, 64), m_engine(engine) {}
    int Run() override {
        if (Framework::Task* target = m_engine.FindTask("lifecycle_task")) {
            std::shared_ptr<Framework::Message> ping = std::make_shared<PingMessage>(m_engine);
            target->EnqueueMsg(ping);
        }
        while (state() != TASK_CANCELLING) {
            if (MessageEmpty()) {
                GetEventWaiter().WaitAndHandleEvent(1000, 128);
            } else {
                BulkConsumeMsg(1024);
            }
        }
        return 0;
    }

private:
    Framework::Engine& m_engine;
};

class ProbeModule : public Framework::Module {
public:
    explicit ProbeModule(Framework::Engine& engine) : Module("probe_module"), m_engine(engine) {}
    int Init() override {
        Module::Init();
        return RegisterTask(new ProbeTask(m_engine), true);
    }

private:
    Framework::Engine& m_engine;
};

TEST(Engine, RunsModuleTasksThatTalkByNameAndShutsDownInOrder) {
    {
        Framework::Engine engine;
        std::string error;
        ASSERT_EQ(engine.LoadModule(LIFECYCLE_MODULE_PATH, &error), 0) << error;
        ASSERT_EQ(engine.StartTasks(), 0);
        // Registered with start_now while the engine runs: starts at once.
        ASSERT_EQ(engine.AddModule(new ProbeModule(engine)), 0);
        ASSERT_TRUE(JournalHas(engine, "probe_task handled hello"));
        engine.Shutdown();
        EXPECT_EQ(engine.FindTask("lifecycle_task"), nullptr);
        EXPECT_THAT(engine.Journal(),
                    ElementsAre("module lifecycle_module Init", "lifecycle_module: Init",
                                "task lifecycle_task registered", "task lifecycle_task Init", "lifecycle_task: Init",
                                "task lifecycle_task start", "module probe_module Init", "task probe_task registered",
                                "task probe_task Init", "task probe_task start", "lifecycle_task handled ping",
                                "probe_task handled hello", "task lifecycle_task cancel", "task probe_task cancel",
                                "task lifecycle_task stopped", "task probe_task stopped", "task probe_task UnInit",
                                "task lifecycle_task UnInit", "lifecycle_task: UnInit after Run",
                                "module probe_module UnInit", "module lifecycle_module UnInit",
                                "lifecycle_module: UnInit", "task probe_task delete", "task lifecycle_task delete",
                                "lifecycle_task: destroyed", "module probe_module delete",
                                "module lifecycle_module delete", "lifecycle_module: destroyed",
                                "module lifecycle_module unload"));
    }
    EXPECT_FALSE(IsLoaded(LIFECYCLE_MODULE_PATH));
}

TEST(Engine, ModuleWhoseInitFailsIsUnloadedAndLeavesNoTask) {
    Framework::Engine engine;
    std::string error;
    EXPECT_EQ(engine.LoadModule(FAILING_MODULE_PATH, &error), -1);
    EXPECT_THAT(error, HasSubstr("Init returned -1"));
    EXPECT_EQ(engine.FindTask("failing_task"), nullptr);
    EXPECT_TRUE(engine.TaskNames().empty());
    EXPECT_FALSE(IsLoaded(FAILING_MODULE_PATH));
    EXPECT_THAT(engine.Journal(),
                ElementsAre("module failing_module Init", "failing_module: Init", "task failing_task registered",
                            "module failing_module Init failed", "task failing_task dropped",
                            "failing_task: destroyed", "module failing_module delete", "failing_module: destroyed",
                            "module failing_module unload"));
}

TEST(Engine, LoadErrorsCarryTheLoaderText) {
    const struct {
        const char* path;
        const char* expected;
    } cases[] = {
        {"/nonexistent/libnothing.so", "/nonexistent/libnothing.so: cannot open shared object file"},
        {SDK_LIBRARY_PATH, "undefined symbol: CreateModule"},
    };
    Framework::Engine engine;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        std::string error;
        EXPECT_EQ(engine.LoadModule(c.path, &error), -1);
        EXPECT_THAT(error, HasSubstr(c.expected));
    }
    EXPECT_TRUE(engine.Journal().empty());
}

// Shutdown right after start: the cancel often lands before Poco's run() has
// set TASK_RUNNING; the engine must still stop the task.
TEST(Engine, ShutdownStopsTasksCancelledBeforeTheyRan) {
    for (int round = 0; round < 5; ++round) {
        Framework::Engine engine;
        ASSERT_EQ(engine.AddModule(new ProbeModule(engine)), 0);
        ASSERT_EQ(engine.StartTasks(), 0);
        engine.Shutdown();
        EXPECT_TRUE(JournalHas(engine, "task probe_task stopped"));
    }
}

TEST(Engine, WaitForStopRequestReturnsOnSignalOrRequest) {
    const struct {
        const char* name;
        int signal;  // 0: RequestStop
    } cases[] = {{"SIGTERM", SIGTERM}, {"SIGINT", SIGINT}, {"RequestStop", 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Framework::Engine engine;
        // Started after the engine, so the stop signals are blocked here too and
        // stay pending for the engine's signalfd.
        std::thread stopper([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            if (c.signal != 0) {
                ::kill(::getpid(), c.signal);
            } else {
                engine.RequestStop();
            }
        });
        EXPECT_EQ(engine.WaitForStopRequest(), c.signal);
        stopper.join();
    }
}

}  // namespace
