#pragma once
// The request by which a task subscribes to (or unsubscribes from) one trace
// event of the ftrace task "ftrace_task".

#include <array>
#include <string>
#include <string_view>

#include "Framework/Message.h"
#include "Framework/Task.h"

namespace Engine {

// Constant data with nothing to construct or destroy: a second copy of the
// module in one process (a --module-dir copy besides the linked one) binds
// these names to the first copy, and would otherwise build and free the
// first copy's objects twice.
extern const std::string_view kFileNotifyName;                // "filenotify"
extern const std::string_view kFileWatchName;                 // "filewatch"
extern const std::array<std::string_view, 6> kNamespaceKinds;  // ipc mnt net pid user uts, sorted

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
