#pragma once
#include "Framework/Module.h"

namespace ExecLogger {

// Loaded by the agent from its module directory; owns one ExecLoggerTask.
class ExecLoggerModule : public Framework::Module {
public:
    ExecLoggerModule();
    int Init() override;
};

}  // namespace ExecLogger

extern "C" Framework::Module* CreateModule();
