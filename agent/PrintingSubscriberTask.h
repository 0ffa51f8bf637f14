#pragma once
// The agent's own subscriber: asks the ftrace task for the chosen events and
// writes every trace message it receives to standard output.

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

class ReceiveStatistics;

class PrintingSubscriberTask : public Framework::Task,
                               public Engine::AbstructMessage<Engine::FtraceMessage>::Receiver {
public:
    static const char* const kTaskName;

    PrintingSubscriberTask(Framework::Engine& engine, const AgentOptions& options, ReceiveStatistics& statistics,
                           int output_fd);

    int Run() override;
    int Receive(Engine::FtraceMessage* message) override;

private:
    void SendWatchRequests(bool remove);
    void Flush();

    Framework::Engine& m_engine;
    std::vector<EventName> m_events;
    OutputFormat m_format;
    uint64_t m_limit;
    ReceiveStatistics& m_statistics;
    int m_output_fd;
    bool m_output_broken = false;
    bool m_limit_reached = false;
    std::string m_pending;  // formatted lines not yet written
};

}  // namespace Agent
