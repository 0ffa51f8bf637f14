#pragma once
#include <Poco/Util/Application.h>
#include <signal.h>

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

    // dlopen(RTLD_NOW | RTLD_LOCAL) `path`, CreateModule(), then Module::Init().
    // 0 on success; -1 on failure with the reason in `error` (dlerror text,
    // missing symbol, Init result or exception). RTLD_NOW: an unresolved symbol
    // is a load error now, not a crash later. RTLD_LOCAL: modules do not bind to
    // each other's symbols by accident; a module that uses another's classes
    // links to that library. A module whose Init fails is destroyed and
    // unloaded; tasks it registered during that Init were never visible to
    // FindTask nor started, and are deleted before its code is unmapped.
    int LoadModule(const std::string& path, std::string* error = nullptr);
    // Every "*.so" in `dir`, in name order. Returns the number loaded; reasons in `errors`.
    int LoadModuleDirectory(const std::string& dir, std::vector<std::string>* errors = nullptr);
    // An in-process module (the engine owns it, also when its Init fails and
    // it is deleted at once); calls its Init. 0 on success.
    int AddModule(Module* module);

    // Task::Init and a thread for every registered task not started yet. 0 when all started.
    int StartTasks();
    // Cancels every task, waits for its Run to return, calls the tasks' UnInit,
    // the modules' UnInit, AfterUnInit, then deletes tasks and modules and
    // unloads the shared objects (reverse order of loading). Idempotent.
    // Collectors (TASK_TYPE_COLLECTOR) are stopped first; the other tasks are
    // cancelled once every collector's Run has returned, so a task that
    // handles what is queued to it before its Run returns receives everything
    // the collectors sent. Within each group tasks are cancelled in
    // registration order; all are torn down in reverse. A cancelled task's
    // thread is no longer held to the CPU budget. Call it from the main
    // thread, never from a task (a task asks with RequestStop). Objects made
    // by a module's code (messages included) must not outlive it.
    void Shutdown();

    // The registered task called `name`, or null. Safe from any thread while
    // tasks start and stop; the pointer is valid until Shutdown deletes the task.
    Task* FindTask(const std::string& name) const;
    std::vector<std::string> TaskNames() const;

    // Blocks until a stop signal (or RequestStop) and returns the signal (0 for RequestStop).
    // Stop signals: SIGINT, SIGTERM, and SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2,
    // SIGALRM, SIGVTALRM, SIGPROF, SIGXCPU, SIGPWR and SIGIO where their
    // action was the default when the engine was constructed.
    // The constructor blocks them in the constructing thread, and every
    // thread started later inherits that, so a signal stays pending until it is
    // taken here (through a signalfd). Construct the engine on the main thread
    // before any other thread exists. Once RequestStop was called, returns 0 at once.
    int WaitForStopRequest();
    void RequestStop();

    // Order of lifecycle calls, for tests and diagnostics: "module M Init",
    // "task T registered", "task T Init", "task T start", "task T cancel",
    // "task T stopped", "task T UnInit", "module M UnInit", "task T delete",
    // "module M delete", "module M unload" (and "... failed", "task T dropped").
    std::vector<std::string> Journal() const;
    // Appends a line to the journal; modules may add their own steps.
    void Note(const std::string& line);

protected:
    // Poco entry point: StartTasks, WaitForStopRequest, Shutdown.
    int main(const std::vector<std::string>& args) override;
    // Called by Shutdown once every task's Run has returned and every UnInit
    // has run, before anything is deleted: what the tasks and modules still
    // own (a tracing instance, say) can be read one last time.
    virtual void AfterUnInit() {}

private:
    friend class Module;
    struct LoadedModule;
    struct RunningTask;

    int AdoptTask(Module* owner, Task* task, bool start_now);
    int InitModule(std::unique_ptr<LoadedModule> loaded, std::string* error);
    int StartTask(RunningTask& running);
    void WaitForTaskEnd(RunningTask& running);

    using NameIndex = std::unordered_map<std::string, Task*>;
    // After every change of m_by_name (under m_tasks_mutex): a read-only copy
    // for FindTask, which runs once per delivered message and so takes no lock.
    void PublishNameIndex();

    mutable std::shared_mutex m_tasks_mutex;  // guards m_tasks and m_by_name
    std::vector<std::unique_ptr<RunningTask>> m_tasks;
    NameIndex m_by_name;
    std::atomic<const NameIndex*> m_name_index{nullptr};
    // Every copy ever published: a reader may still be looking at an older
    // one. Changes are rare (registration, shutdown), so these stay few.
    std::vector<std::unique_ptr<const NameIndex>> m_name_indexes;
    std::vector<std::unique_ptr<LoadedModule>> m_modules;
    // Serialises loading, starting and shutting down. Recursive because a
    // module's Init, run under it, registers tasks.
    std::recursive_mutex m_lifecycle_mutex;
    // The module whose Init is running, and the tasks it registered so far
    // (guarded by m_tasks_mutex): they join m_tasks only if that Init succeeds.
    Module* m_initialising = nullptr;
    std::vector<std::unique_ptr<RunningTask>> m_pending;
    int m_signal_fd = -1;
    int m_stop_fd = -1;
    sigset_t m_unblock_on_exit;  // the stop signals that were not blocked before
    std::atomic<bool> m_started{false};
    std::atomic<bool> m_shut_down{false};
    std::atomic<bool> m_stop_requested{false};
    mutable std::mutex m_journal_mutex;
    std::vector<std::string> m_journal;
};

}  // namespace Framework
