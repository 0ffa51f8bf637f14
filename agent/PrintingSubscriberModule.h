#pragma once
// In-process module of the agent that owns the printing subscriber task.

#include "AgentOptions.h"
#include "Framework/Module.h"

namespace Framework {
class Engine;
}

namespace Agent {

class Output;
class ReceiveStatistics;

class PrintingSubscriberModule : public Framework::Module {
public:
    PrintingSubscriberModule(Framework::Engine& engine, const AgentOptions& options, ReceiveStatistics& statistics,
                             Output& output);
    int Init() override;

private:
    Framework::Engine& m_engine;
    const AgentOptions& m_options;
    ReceiveStatistics& m_statistics;
    Output& m_output;
};

}  // namespace Agent
