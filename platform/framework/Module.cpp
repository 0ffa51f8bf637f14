#include "Framework/Module.h"

#include <Poco/Exception.h>
#include <Poco/Util/Application.h>

#include "Framework/Engine.h"
#include "Framework/Task.h"

namespace Framework {

Module::Module(const std::string& name) : m_name(name) {}

Module::~Module() = default;

const char* Module::name() const { return m_name.c_str(); }

int Module::Init() { return 0; }

int Module::UnInit() { return 0; }

int Module::RefreshPolicy(const std::string&, const std::string&, const std::string&, Policy*&) { return 0; }

int Module::RegisterTask(Task* task, bool start_now) {
    if (task == nullptr) return -1;
    Engine* engine = m_engine;
    if (engine == nullptr) {
        // A module created outside Engine::LoadModule/AddModule still reaches
        // the process's engine, if there is one.
        try {
            engine = dynamic_cast<Engine*>(&Poco::Util::Application::instance());
        } catch (const Poco::Exception&) {
            engine = nullptr;
        }
    }
    if (engine == nullptr) {
        delete task;  // ownership was handed over; nobody else will free it
        return -1;
    }
    return engine->AdoptTask(this, task, start_now);
}

}  // namespace Framework
