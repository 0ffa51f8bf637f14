#include "PrintingSubscriberModule.h"

#include "PrintingSubscriberTask.h"

namespace Agent {

PrintingSubscriberModule::PrintingSubscriberModule(Framework::Engine& engine, const AgentOptions& options,
                                                   ReceiveStatistics& statistics, Output& output)
    : Framework::Module("ftrace_agent"),
      m_engine(engine),
      m_options(options),
      m_statistics(statistics),
      m_output(output) {}

int PrintingSubscriberModule::Init() {
    Framework::Module::Init();
    // RegisterTask deletes the task itself when it refuses it.
    return RegisterTask(new PrintingSubscriberTask(m_engine, m_options, m_statistics, m_output), false) == 0 ? 0
                                                                                                             : -1;
}

}  // namespace Agent
