#include "PrintingSubscriberModule.h"

#include "PrintingSubscriberTask.h"

namespace Agent {

PrintingSubscriberModule::PrintingSubscriberModule(Framework::Engine& engine, const AgentOptions& options,
                                                   ReceiveStatistics& statistics, int output_fd)
    : Framework::Module("ftrace_agent"),
      m_engine(engine),
      m_options(options),
      m_statistics(statistics),
      m_output_fd(output_fd) {}

int PrintingSubscriberModule::Init() {
    Framework::Module::Init();
    // RegisterTask deletes the task itself when it refuses it.
    return RegisterTask(new PrintingSubscriberTask(m_engine, m_options, m_statistics, m_output_fd), false) == 0 ? 0
                                                                                                             : -1;
}

}  // namespace Agent
