#pragma once
// Subscribes to sched:sched_process_exec and logs one line per exec on the
// "exec_logger" logger.

#include "AbstructMessage.h"
#include "Framework/Task.h"
#include "FtraceMessage.h"

namespace Poco {
class Logger;
}

namespace ExecLogger {

class ExecLoggerTask : public Framework::Task, public Engine::AbstructMessage<Engine::FtraceMessage>::Receiver {
public:
    ExecLoggerTask();

    int Run() override;
    int Receive(Engine::FtraceMessage* message) override;

private:
    // True once the ftrace task has the request on its queue.
    bool Subscribe();

    Poco::Logger* m_logger;
};

}  // namespace ExecLogger
