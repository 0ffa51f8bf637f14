#include "ExecLoggerModule.h"

#include "ExecLoggerTask.h"

namespace ExecLogger {

ExecLoggerModule::ExecLoggerModule() : Framework::Module("exec_logger") {}

int ExecLoggerModule::Init() {
    Framework::Module::Init();
    // The engine owns the task from here on (and deletes it if refused).
    return RegisterTask(new ExecLoggerTask(), false) == 0 ? 0 : -1;
}

}  // namespace ExecLogger

extern "C" Framework::Module* CreateModule() { return new ExecLogger::ExecLoggerModule(); }
