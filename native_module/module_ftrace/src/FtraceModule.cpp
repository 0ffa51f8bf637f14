#include "FtraceModule.h"

#include "FtraceLog.h"
#include "FtraceTask.h"

namespace Engine {

FtraceModule::FtraceModule() : Framework::Module("ftrace_module") {}

FtraceModule::~FtraceModule() = default;

int FtraceModule::Init() {
    FTRACE_LOG(Poco::Message::PRIO_INFORMATION, "Ftrace module init");
    Framework::Module::Init();
    auto* task = new FtraceTask();
    if (task->ftrace().tracefs().IsValid()) {
        RegisterTask(task, false);
        return 0;
    }
    // The instance has already logged why; destroying the task also removes
    // the instance if this task created it.
    delete task;
    return -1;
}

}  // namespace Engine

extern "C" __attribute__((visibility("default"))) Framework::Module* CreateModule() {
    return new Engine::FtraceModule();
}
