#include "PrintingSubscriberTask.h"

#include <Poco/Logger.h>

#include <cstring>
#include <memory>

#include "Framework/Engine.h"
#include "FtraceWakeup.h"
#include "FtraceWatchMessage.h"
#include "Output.h"
#include "ReceiveStatistics.h"
#include "SDK/LoggerUtils.h"

namespace Agent {
namespace {

constexpr const char* kFtraceTaskName = "ftrace_task";
constexpr unsigned int kQueueSlots = 65536;  // absorbs bursts (fork storms) while output blocks
constexpr int kBatch = 1024;
constexpr int kWaitMs = 250;           // bounds how late a stop request is noticed

void Log(int priority, const std::string& text, int line) {
    SDK::LoggerUtils::Log(SDK::LoggerUtils::GetInstance()->GetModuleLogger("ftrace-agent", false), priority, text,
                          __FILE__, line);
}

}  // namespace

const char* const PrintingSubscriberTask::kTaskName = "ftrace_agent_printer";

PrintingSubscriberTask::PrintingSubscriberTask(Framework::Engine& engine, const AgentOptions& options,
                                               ReceiveStatistics& statistics, Output& output)
    : Framework::Task(kTaskName, "ftrace_agent_output", Framework::TaskCondition::TASK_TYPE_REPORTER, kQueueSlots),
      m_engine(engine),
      m_events(options.events),
      m_limit(options.count),
      m_statistics(statistics),
      m_output(output),
      // Every message passes through this thread after the ftrace task's: with
      // low latency both run at the same nice, or a storm would hold the
      // messages up here instead.
      m_nice(options.latency == Latency::Low ? ::Engine::FtraceWakeup::LowLatency().reader_nice
                                             : ::Engine::FtraceWakeup::kKeepNice) {}

void PrintingSubscriberTask::SendWatchRequests(bool remove) {
    Framework::Task* ftrace_task = m_engine.FindTask(kFtraceTaskName);
    if (ftrace_task == nullptr) {
        Log(Poco::Message::PRIO_ERROR, std::string("no task \"") + kFtraceTaskName + "\" to subscribe to", __LINE__);
        return;
    }
    for (const auto& event : m_events) {
        std::shared_ptr<Framework::Message> request =
            std::make_shared<Engine::FtraceWatchMessage>(this, event.system, event.event, remove);
        if (ftrace_task->EnqueueMsg(request) == 0) {
            Log(Poco::Message::PRIO_ERROR, "the ftrace task's queue is full; not watching " + event.FullName(),
                __LINE__);
        }
    }
}

int PrintingSubscriberTask::Run() {
    if (m_nice != ::Engine::FtraceWakeup::kKeepNice) {
        if (const int error = ::Engine::FtraceWakeup::SetCallingThreadNice(m_nice)) {
            Log(Poco::Message::PRIO_WARNING,
                "the printing thread keeps its priority: nice " + std::to_string(m_nice) + " refused (" +
                    std::strerror(error) + ")",
                __LINE__);
        }
    }
    m_output.Start();
    SendWatchRequests(false);
    while (state() != Poco::Task::TASK_CANCELLING) {
        if (MessageEmpty()) GetEventWaiter().WaitAndHandleEvent(kWaitMs, 16);
        BulkConsumeMsg(kBatch);
        Flush();
    }
    // What was already delivered is still printed.
    while (!MessageEmpty() && BulkConsumeMsg(kBatch) > 0) {
    }
    m_output.Finish();
    m_statistics.SetQueueDrops(DroppedMessages());
    return 0;
}

int PrintingSubscriberTask::InterceptMsg(std::shared_ptr<Framework::Message>& message) {
    m_current = &message;  // handled next, by Receive
    return 0;
}

int PrintingSubscriberTask::Receive(Engine::FtraceMessage* message) {
    if (message == nullptr || m_limit_reached) return 0;
    const uint64_t total = m_statistics.Count(message->name());
    if (m_current != nullptr && m_current->get() == static_cast<Framework::Message*>(message)) {
        m_output.Take(std::static_pointer_cast<const Engine::FtraceMessage>(*m_current));
    } else {
        m_output.Write(*message);
    }
    m_current = nullptr;
    if (m_limit != 0 && total >= m_limit) {
        m_limit_reached = true;
        Flush();
        m_engine.RequestStop();
    }
    return 0;
}

void PrintingSubscriberTask::Flush() {
    if (m_output_broken || m_output.Flush()) return;
    // The reader went away or the disk is full: stop cleanly so that the
    // events are switched off again.
    m_output_broken = true;
    m_engine.RequestStop();
}

}  // namespace Agent
