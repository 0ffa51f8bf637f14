#include "ExecLoggerTask.h"

#include <Poco/Logger.h>
#include <Poco/Util/Application.h>

#include <memory>
#include <string>

#include "Framework/Engine.h"
#include "FtraceWatchMessage.h"
#include "SDK/LoggerUtils.h"

namespace ExecLogger {
namespace {

// Kernel strings arrive with their stored NUL terminator.
std::string UpToNul(const std::string& bytes) { return bytes.substr(0, bytes.find('\0')); }

}  // namespace

ExecLoggerTask::ExecLoggerTask()
    : Framework::Task("exec_logger_task", "exec_logger", Framework::TaskCondition::TASK_TYPE_AUDITOR, 1024),
      // Created as a child of the agent's root logger: same channel and level.
      m_logger(SDK::LoggerUtils::GetInstance()->GetModuleLogger("exec_logger", true)) {}

bool ExecLoggerTask::Subscribe() {
    auto* engine = dynamic_cast<Framework::Engine*>(&Poco::Util::Application::instance());
    Framework::Task* ftrace_task = engine != nullptr ? engine->FindTask("ftrace_task") : nullptr;
    if (ftrace_task == nullptr) return false;
    std::shared_ptr<Framework::Message> request =
        std::make_shared<Engine::FtraceWatchMessage>(this, "sched", "sched_process_exec", false);
    return ftrace_task->EnqueueMsg(request) == 1;
}

int ExecLoggerTask::Run() {
    bool subscribed = false;
    while (state() != Poco::Task::TASK_CANCELLING) {
        // The ftrace module may be loaded after this one: keep asking.
        if (!subscribed) subscribed = Subscribe();
        if (MessageEmpty()) GetEventWaiter().WaitAndHandleEvent(500, 16);
        BulkConsumeMsg(256);
    }
    // The ftrace task stopped before this one: what it sent last is still queued.
    while (BulkConsumeMsg(256) > 0) {
    }
    return 0;
}

int ExecLoggerTask::Receive(Engine::FtraceMessage* message) {
    if (message->name() != "sched:sched_process_exec") return 0;
    SDK::LoggerUtils::Log(m_logger, Poco::Message::PRIO_INFORMATION,
                          "exec pid " + std::to_string(message->get_number("pid")) + " " +
                              UpToNul(message->get_string("filename")),
                          __FILE__, __LINE__);
    return 0;
}

}  // namespace ExecLogger
