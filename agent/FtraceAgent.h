#pragma once
// ftrace-agent: a Framework::Engine that loads libftrace_module.so (and any
// other module of its module directory), subscribes its own printing task to
// the chosen trace events and prints every message until it is stopped.

#include <memory>
#include <string>
#include <vector>

#include "AgentOptions.h"
#include "EventFieldTypes.h"
#include "Framework/Engine.h"
#include "InstanceLock.h"
#include "PidFilter.h"
#include "Output.h"
#include "ReceiveStatistics.h"

class Ftrace;

namespace Poco {
namespace Util {
class OptionSet;
}
}  // namespace Poco

namespace Agent {

class FtraceAgent : public Framework::Engine {
public:
    // Exit status for a run that could not start for a reason the user can fix.
    static constexpr int kExitUserError = 2;
    static constexpr const char* kModuleFileName = "libftrace_module.so";
    static constexpr const char* kInstanceName = "ZEV";
    static constexpr const char* kNoTracingLine =
        "cannot create tracing instance ZEV: run as root on a kernel with tracefs";

    FtraceAgent();
    ~FtraceAgent() override;

    const AgentOptions& Options() const { return m_options; }

protected:
    void defineOptions(Poco::Util::OptionSet& options) override;
    void handleOption(const std::string& name, const std::string& value) override;
    int main(const std::vector<std::string>& args) override;
    void AfterUnInit() override;

private:
    int Fail(const std::string& line) const;
    void PrintHelp();
    bool ConfigureLogging(std::string* error);
    std::string DefaultModuleDir() const;
    // 0, or the exit status to return.
    int CheckEnvironment(std::string* tracing_dir);
    int LoadModules(const std::string& module_dir);
    // The file to load for the module at `module_path`: the one this agent is
    // linked with when module_path is an identical copy of it. `other_copy`
    // gets the linked file's name when module_path is a different build.
    std::string LinkedCopyOf(const std::string& module_path, std::string* other_copy) const;
    // 0, or the exit status to return.
    int RemoveLeftoverInstance(const std::string& tracing_dir) const;
    bool Daemonize(std::string* error);
    int Trace();

    AgentOptions m_options;
    bool m_events_given = false;
    bool m_format_given = false;
    ReceiveStatistics m_statistics;
    InstanceLock m_instance_lock;  // held from the checks until the process ends
    std::unique_ptr<Ftrace> m_instance;  // the module's instance, adopted for set_event_pid
    PidFilter m_pid_filter;
    EventFieldTypes m_field_types;       // of the traced events, for the outputs
    std::unique_ptr<Output> m_output;    // outlives the subscriber task, which writes to it
};

}  // namespace Agent
