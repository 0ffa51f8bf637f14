#pragma once
// The module's one framework task: owns the tracing instance, one reader per
// CPU and the watch registry; its Run loop serves watch requests and delivers
// every decoded record to the subscribed tasks.

#include <map>
#include <memory>
#include <set>
#include <string>
#include <typeinfo>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Framework/Event.h"
#include "Framework/Task.h"
#include "FtraceEventLayout.h"
#include "FtracePerCPUReader.h"
#include "FtraceWakeup.h"
#include "ftrace.h"

namespace Poco {
class Logger;
namespace Util {
class AbstractConfiguration;
class Application;
}
}  // namespace Poco

namespace Framework {
class Engine;
}

namespace Engine {

class FtraceMessage;

class FtraceTask : public Framework::Task {
public:
    FtraceTask();
    ~FtraceTask() override;

    int Init() override;
    int UnInit() override;
    int Run() override;

    virtual void send_ftrace_message(FtraceRecord& record);

    std::vector<FtracePerCPUReader*> CreateReaders(Ftrace& ftrace);
    void clear();
    int read_ftrace_event(int fd, unsigned int events, void* context);
    static void handle_ftrace_record(FtraceRecord& record, void* context);

    // Watch registry: (system, event name) -> subscriber task names.
    int AddWatch(const Framework::Task* watcher, const std::string& system, const std::string& event);
    int RemoveWatch(const Framework::Task* watcher, const std::string& system, const std::string& event);
    bool set_event(const std::string& system, const std::string& event);
    bool unset_event(const std::string& system, const std::string& event);

    std::unique_ptr<FtraceMessage> create_ftrace_message(const FtraceRecord& record);

    Ftrace& ftrace() { return m_ftrace; }
    const Ftrace& ftrace() const { return m_ftrace; }
    const std::map<std::pair<std::string, std::string>, std::set<std::string>>& watches() const { return m_watches; }
    const std::vector<FtracePerCPUReader*>& readers() const { return m_readers; }

private:
    // Per event format (keyed by the parser's event object, which lives as
    // long as m_ftrace): its message layout and the names of its subscribers
    // as of registry generation `generation`.
    struct EventRoute {
        explicit EventRoute(const FtraceEvent& event) : layout(event) {}
        FtraceEventLayout layout;
        std::unique_ptr<const std::vector<std::string>> subscribers;
        uint64_t generation = 0;
    };
    // Marks a delivery in progress on this thread, so that subscriber lists
    // replaced meanwhile are kept until the outermost delivery is done.
    class DeliveryScope {
    public:
        explicit DeliveryScope(FtraceTask& task);
        ~DeliveryScope();
        DeliveryScope(const DeliveryScope&) = delete;
        DeliveryScope& operator=(const DeliveryScope&) = delete;

    private:
        FtraceTask& m_task;
    };
    // Reads the host's wake-up settings (none without a configuration) and
    // writes the instance's watermark.
    void ApplyWakeupSettings(const Poco::Util::AbstractConfiguration* config);
    EventRoute& route(const FtraceEvent& event);
    void watches_changed() { ++m_watch_generation; }

    std::vector<Framework::Event> m_events;
    Ftrace m_ftrace;
    std::vector<FtracePerCPUReader*> m_readers;
    Poco::Logger* m_logger;
    std::map<std::pair<std::string, std::string>, std::set<std::string>> m_watches;

    std::unordered_map<const tep_event*, EventRoute> m_routes;
    const tep_event* m_last_event = nullptr;
    EventRoute* m_last_route = nullptr;  // nodes of m_routes do not move
    uint64_t m_watch_generation = 1;     // bumped on every change of m_watches
    int m_delivering = 0;                // nesting depth of send_ftrace_message
    std::vector<std::unique_ptr<const std::vector<std::string>>> m_retired_subscribers;
    FtraceWakeup m_wakeup;        // as configured when Init ran
    uint64_t m_records_read = 0;  // every record handed to send_ftrace_message
    // The application last cast to the engine, its dynamic type, and the result.
    const Poco::Util::Application* m_application = nullptr;
    const std::type_info* m_application_type = nullptr;
    Framework::Engine* m_engine = nullptr;
    int m_pages_per_drain = 0;  // set by Init from the instance's buffer size
};

}  // namespace Engine
