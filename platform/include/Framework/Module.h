#pragma once
#include <Poco/Util/Subsystem.h>

#include <string>
#include <vector>

namespace Poco {
namespace Util {
class Application;
class OptionSet;
}  // namespace Util
}  // namespace Poco

namespace Framework {

class Engine;
class Policy;
class Task;

// A loadable unit of the agent. A shared-object module exports
//   extern "C" Framework::Module* CreateModule();
// The engine calls Init once; the module creates its tasks there and hands
// them over with RegisterTask.
class Module : public Poco::Util::Subsystem {
public:
    explicit Module(const std::string& name);
    ~Module() override;

    const char* name() const override;
    void initialize(Poco::Util::Application&) override {}
    void uninitialize() override {}

    virtual int Init();
    // Called by the engine after the module's tasks were stopped and uninitialised.
    virtual int UnInit();
    virtual int RefreshPolicy(const std::string& key, const std::string& kind, const std::string& value,
                              Policy*& policy);

    // Hands `task` to the engine, which from then on owns, runs and deletes it.
    // `start_now` starts it at once when the engine is already running.
    // 0 on success, -1 when there is no engine, the task is null or its name is taken
    // (the task is then deleted).
    int RegisterTask(Task* task, bool start_now);

    Engine* GetEngine() const { return m_engine; }

private:
    friend class Engine;
    std::string m_name;
    Engine* m_engine = nullptr;
};

}  // namespace Framework

extern "C" {
typedef Framework::Module* (*CreateModuleFunc)();
}
