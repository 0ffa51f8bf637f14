#include "FtraceWatchMessage.h"

#include <utility>

#include "FtraceLog.h"
#include "FtraceTask.h"

namespace Engine {

constexpr std::string_view kFileNotifyName = "filenotify";
constexpr std::string_view kFileWatchName = "filewatch";
constexpr std::array<std::string_view, 6> kNamespaceKinds = {"ipc", "mnt", "net", "pid", "user", "uts"};

FtraceWatchMessage::FtraceWatchMessage(Framework::Task* watcher, std::string system, std::string event_name,
                                       bool remove)
    : m_watcher(watcher), m_system(std::move(system)), m_event_name(std::move(event_name)), m_remove(remove) {
    FTRACE_LOG(Poco::Message::PRIO_DEBUG, "FtraceWatchMessage::FtraceWatchMessage: Enter");
}

FtraceWatchMessage::~FtraceWatchMessage() = default;

bool FtraceWatchMessage::valid() const {
    if (m_watcher == nullptr) {
        FTRACE_LOG(Poco::Message::PRIO_ERROR, "m_watcher is null");
        return false;
    }
    if (m_system.empty()) {
        FTRACE_LOG(Poco::Message::PRIO_ERROR, "m_system is empty");
        return false;
    }
    if (m_event_name.empty()) {
        FTRACE_LOG(Poco::Message::PRIO_ERROR, "m_event_name is empty");
        return false;
    }
    FTRACE_LOG(Poco::Message::PRIO_DEBUG, "Message is valid");
    return true;
}

int FtraceWatchMessage::MessageHandle(void* context) {
    FTRACE_LOG(Poco::Message::PRIO_DEBUG, "FtraceWatchMessage::MessageHandle: Enter");
    if (!valid()) return 1;
    FTRACE_LOG(Poco::Message::PRIO_DEBUG, "FtraceWatchMessage::MessageHandle: About to cast 1");
    auto* task = static_cast<Framework::Task*>(context);
    // The consumer's name is logged before the consumer is checked; a null
    // consumer is logged with an empty name rather than dereferenced, and is
    // refused just below.
    static const std::string no_name;
    FTRACE_LOG(Poco::Message::PRIO_DEBUG, "FtraceWatchMessage::MessageHandle: About to cast 2: %s",
               task != nullptr ? task->name() : no_name);
    auto* ftrace_task = dynamic_cast<FtraceTask*>(task);
    if (ftrace_task == nullptr) {
        FTRACE_LOG(Poco::Message::PRIO_ERROR, "Task is not FtraceTask");
        return 1;
    }
    if (m_remove) {
        FTRACE_LOG(Poco::Message::PRIO_DEBUG, "FtraceWatchMessage::MessageHandle: About to call RemoveWatch");
        return ftrace_task->RemoveWatch(m_watcher, m_system, m_event_name);
    }
    FTRACE_LOG(Poco::Message::PRIO_DEBUG, "FtraceWatchMessage::MessageHandle: About to call AddWatch");
    return ftrace_task->AddWatch(m_watcher, m_system, m_event_name);
}

}  // namespace Engine
