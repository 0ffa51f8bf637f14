#pragma once
#include <Poco/Util/Application.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace Framework {

class Module;
class Task;

// The agent's application object: loads modules, runs their tasks and shuts
// everything down in order. Reached from module code through
// Poco::Util::Application::instance().
class Engine : public Poco::Util::Application {
public:
    Engine();
    ~Engine() override;

    // dlopen(RTLD_NOW) `path`, CreateModule(), then Module::Init(). 0 on success;
    // -1 on failure with the reason in `error` (dlerror text, missing symbol,
    // Init result). A module whose Init fails is unloaded again.
    int LoadModule(const std::string& path, std::string* error = nullptr);
    // Every "*.so" in `dir`, in name order. Returns the number loaded; reasons in `errors`.
    int LoadModuleDirectory(const std::string& dir, std::vector<std::string>* errors = nullptr);
    // An in-process module (the engine owns it); calls its Init. 0 on success.
    int AddModule(Module* module);

    // Task::Init and a thread for every registered task not started yet. 0 when all started.
    int StartTasks();
    // Cancels every task, waits for its Run to return, calls the tasks' UnInit,
    // the modules' UnInit, then deletes tasks and modules and unloads the
    // shared objects (reverse order of loading). Idempotent.
    void Shutdown();

    // The registered task called `name`, or null. Safe from any thread while
    // tasks start and stop; the pointer is valid until Shutdown deletes the task.
    Task* FindTask(const std::string& name) const;
    std::vector<std::string> TaskNames() const;

    // Blocks until SIGINT or SIGTERM (or RequestStop) and returns the signal (0 for RequestStop).
    int WaitForStopRequest();
    void RequestStop();

    // Order of lifecycle calls, for tests and diagnostics ("task X Init", ...).
    std::vector<std::string> Journal() const;

protected:
    // Poco entry point: StartTasks, WaitForStopRequest, Shutdown.
    int main(const std::vector<std::string>& args) override;

private:
    friend class Module;
    int AdoptTask(Module* owner, Task* task, bool start_now);
    int StartTask(Task* task);
    void Note(const std::string& line);

    struct LoadedModule;
    struct RunningTask;

    mutable std::shared_mutex m_tasks_mutex;  // guards m_tasks and m_by_name
    std::vector<std::unique_ptr<RunningTask>> m_tasks;
    std::unordered_map<std::string, Task*> m_by_name;
    std::vector<std::unique_ptr<LoadedModule>> m_modules;
    std::atomic<bool> m_started{false};
    std::atomic<bool> m_shut_down{false};
    std::atomic<bool> m_stop_requested{false};
    mutable std::mutex m_journal_mutex;
    std::vector<std::string> m_journal;
};

}  // namespace Framework
