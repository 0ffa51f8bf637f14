// Module for the engine tests. Its task answers every message with a "hello"
// to "probe_task"; what only the module's own code can tell (that its task's
// Run had returned before UnInit, that its objects were destroyed) goes to the
// engine's journal.
#include <Poco/Util/Application.h>

#include <memory>
#include <string>

#include "Framework/Engine.h"
#include "Framework/Module.h"
#include "Framework/Task.h"

namespace {

const std::string kName = LIFECYCLE_NAME;

Framework::Engine& TheEngine() { return dynamic_cast<Framework::Engine&>(Poco::Util::Application::instance()); }

struct HelloMessage : Framework::Message {
    int MessageHandle(void* context) override {
        TheEngine().Note(static_cast<Framework::Task*>(context)->name() + " handled hello");
        return 0;
    }
};

class LifecycleTask : public Framework::Task {
public:
    LifecycleTask() : Task(kName + "_task", "test_feature", Framework::TaskCondition::TASK_TYPE_NORMAL, 64) {}
    ~LifecycleTask() override { TheEngine().Note(name() + ": destroyed"); }

    int UnInit() override {
        TheEngine().Note(name() + (m_run_returned ? ": UnInit after Run" : ": UnInit while Run is active"));
        return Task::UnInit();
    }
    int Run() override {
        while (state() != TASK_CANCELLING) {
            BulkConsumeMsg(1024);
            GetEventWaiter().WaitAndHandleEvent(-1, 128);  // only a wake-up ends the wait
        }
        m_run_returned = true;
        return 0;
    }
    int HandleMsg(const Framework::Message*) override {
        if (Framework::Task* probe = TheEngine().FindTask("probe_task")) {
            std::shared_ptr<Framework::Message> hello = std::make_shared<HelloMessage>();
            probe->EnqueueMsg(hello);
        }
        return 0;
    }

private:
    bool m_run_returned = false;  // written by the task thread, read after it was joined
};

struct LifecycleModule : Framework::Module {
    LifecycleModule() : Module(kName + "_module") {}
    ~LifecycleModule() override { TheEngine().Note(std::string(name()) + ": destroyed"); }

    int Init() override {
        RegisterTask(new LifecycleTask(), false);
        return LIFECYCLE_INIT_RESULT;
    }
};

}  // namespace

extern "C" __attribute__((visibility("default"))) Framework::Module* CreateModule() { return new LifecycleModule(); }
