#pragma once
// The request by which a task subscribes to (or unsubscribes from) one trace
// event of the ftrace task "ftrace_task".

#include <set>
#include <string>

#include "Framework/Message.h"
#include "Framework/Task.h"

namespace Engine {

extern const std::string kFileNotifyName;   // "filenotify"
extern const std::string kFileWatchName;    // "filewatch"
extern const std::set<std::string> kNamespaceKinds;  // ipc mnt net pid user uts

class FtraceWatchMessage : public Framework::Message {
public:
    FtraceWatchMessage(Framework::Task* watcher, std::string system, std::string event_name, bool remove);
    ~FtraceWatchMessage() override;

    // 1 when refused (invalid request, or the consumer is not the ftrace task),
    // otherwise the result of AddWatch / RemoveWatch.
    int MessageHandle(void* context) override;
    bool valid() const;

    Framework::Task* m_watcher;
    std::string m_system;
    std::string m_event_name;
    bool m_remove;
};

}  // namespace Engine
