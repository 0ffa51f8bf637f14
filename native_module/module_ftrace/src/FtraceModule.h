#pragma once
#include "Framework/Module.h"

namespace Engine {

// Creates the ftrace task and registers it only when its tracing instance is usable.
class FtraceModule : public Framework::Module {
public:
    FtraceModule();
    ~FtraceModule() override;
    int Init() override;
};

}  // namespace Engine

extern "C" Framework::Module* CreateModule();
