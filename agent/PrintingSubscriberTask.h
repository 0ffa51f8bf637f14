#pragma once
// The agent's own subscriber: asks the ftrace task for the chosen events and
// hands every trace message it receives to the chosen output.

#include <cstdint>
#include <string>
#include <vector>

#include "AbstructMessage.h"
#include "AgentOptions.h"
#include "Framework/Task.h"
#include "FtraceMessage.h"

namespace Framework {
class Engine;
}

namespace Agent {

class Output;
class ReceiveStatistics;

class PrintingSubscriberTask : public Framework::Task,
                               public Engine::AbstructMessage<Engine::FtraceMessage>::Receiver {
public:
    static const char* const kTaskName;

    PrintingSubscriberTask(Framework::Engine& engine, const AgentOptions& options, ReceiveStatistics& statistics,
                           Output& output);

    int Run() override;
    int InterceptMsg(std::shared_ptr<Framework::Message>& message) override;
    int Receive(Engine::FtraceMessage* message) override;

private:
    void SendWatchRequests(bool remove);
    void Flush();

    Framework::Engine& m_engine;
    std::vector<EventName> m_events;
    uint64_t m_limit;
    ReceiveStatistics& m_statistics;
    Output& m_output;
    bool m_output_broken = false;
    bool m_limit_reached = false;
    // The shared pointer of the message being handled, so that the output can keep it.
    const std::shared_ptr<Framework::Message>* m_current = nullptr;
    int m_nice;  // of this task's thread; FtraceWakeup::kKeepNice leaves it alone
};

}  // namespace Agent
