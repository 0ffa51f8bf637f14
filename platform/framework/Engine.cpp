#include "Framework/Engine.h"

#include <Poco/Format.h>
#include <Poco/Message.h>
#include <dirent.h>
#include <dlfcn.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <exception>
#include <thread>

#include "Framework/Module.h"
#include "Framework/Task.h"
#include "SDK/InnerCpuCtrlUtils.h"
#include "SDK/LoggerUtils.h"

namespace Framework {
namespace {

void LogRoot(int priority, const std::string& text, int line) {
    SDK::LoggerUtils::Log(SDK::LoggerUtils::GetInstance()->GetRootLogger(), priority, text, __FILE__, line);
}

std::string DlError() {
    const char* text = ::dlerror();
    return text != nullptr ? text : "unknown dynamic loader error";
}

}  // namespace

struct Engine::LoadedModule {
    Module* module = nullptr;
    void* handle = nullptr;  // null for in-process modules
    std::string name;
};

struct Engine::RunningTask {
    Task* task = nullptr;
    Module* owner = nullptr;
    std::string name;
    bool start_now = false;
    bool init_called = false;
    std::thread thread;
    std::mutex end_mutex;
    std::condition_variable end_cv;
    bool ended = false;
};

Engine::Engine() {
    // Every signal whose default would end the process unannounced and that a
    // person or the system sends to end a program (a closed terminal, a CPU
    // time limit, Ctrl-\) stops the engine through Shutdown instead, so that
    // modules undo what they set up. Apart from SIGINT and SIGTERM, only one
    // whose action is still the default is taken: one ignored at start
    // (nohup, a shell's background job) stays ignored, and one that a library
    // handles (a profiler's SIGPROF) stays with it.
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGINT);
    sigaddset(&stop_signals, SIGTERM);
    for (int sig : {SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2, SIGALRM, SIGVTALRM, SIGPROF, SIGXCPU, SIGPWR, SIGIO}) {
        struct sigaction current {};
        if (sigaction(sig, nullptr, &current) == 0 && (current.sa_flags & SA_SIGINFO) == 0 &&
            current.sa_handler == SIG_DFL) {
            sigaddset(&stop_signals, sig);
        }
    }
    sigset_t before;
    pthread_sigmask(SIG_BLOCK, &stop_signals, &before);
    sigemptyset(&m_unblock_on_exit);
    for (int sig = 1; sig < NSIG; ++sig) {
        if (sigismember(&stop_signals, sig) == 1 && sigismember(&before, sig) == 0) sigaddset(&m_unblock_on_exit, sig);
    }
    m_signal_fd = ::signalfd(-1, &stop_signals, SFD_CLOEXEC | SFD_NONBLOCK);
    m_stop_fd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
}

Engine::~Engine() {
    Shutdown();
    if (m_signal_fd >= 0) ::close(m_signal_fd);
    if (m_stop_fd >= 0) ::close(m_stop_fd);
    // A stop signal nobody took is delivered now, with its default effect.
    pthread_sigmask(SIG_UNBLOCK, &m_unblock_on_exit, nullptr);
}

void Engine::Note(const std::string& line) {
    std::lock_guard<std::mutex> lock(m_journal_mutex);
    m_journal.push_back(line);
}

std::vector<std::string> Engine::Journal() const {
    std::lock_guard<std::mutex> lock(m_journal_mutex);
    return m_journal;
}

int Engine::LoadModule(const std::string& path, std::string* error) {
    std::string reason;
    ::dlerror();
    void* handle = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        reason = "cannot load module " + path + ": " + DlError();
    } else {
        auto create = reinterpret_cast<CreateModuleFunc>(::dlsym(handle, "CreateModule"));
        Module* module = nullptr;
        if (create == nullptr) {
            reason = "no CreateModule in " + path + ": " + DlError();
        } else {
            try {
                module = create();
                if (module == nullptr) reason = "CreateModule of " + path + " returned no module";
            } catch (const std::exception& e) {
                reason = "CreateModule of " + path + " threw: " + e.what();
            }
        }
        if (module != nullptr) {
            auto loaded = std::make_unique<LoadedModule>();
            loaded->module = module;
            loaded->handle = handle;
            loaded->name = module->name();
            return InitModule(std::move(loaded), error);
        }
        ::dlclose(handle);
    }
    LogRoot(Poco::Message::PRIO_ERROR, reason, __LINE__);
    if (error != nullptr) *error = reason;
    return -1;
}

int Engine::LoadModuleDirectory(const std::string& dir, std::vector<std::string>* errors) {
    std::vector<std::string> names;
    if (DIR* d = ::opendir(dir.c_str())) {
        while (const dirent* entry = ::readdir(d)) {
            const std::string name = entry->d_name;
            if (name.size() > 3 && name.compare(name.size() - 3, 3, ".so") == 0) names.push_back(name);
        }
        ::closedir(d);
    } else if (errors != nullptr) {
        errors->push_back("cannot open module directory " + dir);
    }
    std::sort(names.begin(), names.end());
    int loaded = 0;
    for (const auto& name : names) {
        std::string error;
        if (LoadModule(dir + "/" + name, &error) == 0) {
            ++loaded;
        } else if (errors != nullptr) {
            errors->push_back(error);
        }
    }
    return loaded;
}

int Engine::AddModule(Module* module) {
    if (module == nullptr) return -1;
    auto loaded = std::make_unique<LoadedModule>();
    loaded->module = module;
    loaded->name = module->name();
    return InitModule(std::move(loaded), nullptr);
}

int Engine::InitModule(std::unique_ptr<LoadedModule> loaded, std::string* error) {
    std::lock_guard<std::recursive_mutex> life(m_lifecycle_mutex);
    Module* module = loaded->module;
    module->m_engine = this;
    std::string reason;
    if (m_shut_down) {
        reason = "engine is shut down";
    } else {
        {
            std::unique_lock<std::shared_mutex> lock(m_tasks_mutex);
            m_initialising = module;
        }
        Note("module " + loaded->name + " Init");
        int rc = -1;
        try {
            rc = module->Init();
            if (rc != 0) reason = Poco::format("Init returned %d", rc);
        } catch (const std::exception& e) {
            reason = std::string("Init threw: ") + e.what();
        }
        std::vector<std::unique_ptr<RunningTask>> pending;
        {
            std::unique_lock<std::shared_mutex> lock(m_tasks_mutex);
            m_initialising = nullptr;
            pending.swap(m_pending);
            if (rc == 0) {
                for (auto& running : pending) {
                    m_by_name[running->name] = running->task;
                    m_tasks.push_back(std::move(running));
                }
                if (!pending.empty()) PublishNameIndex();
            }
        }
        if (rc == 0) {
            m_modules.push_back(std::move(loaded));
            // Registration with start_now from inside Init takes effect once Init succeeded.
            std::vector<RunningTask*> to_start;
            {
                std::shared_lock<std::shared_mutex> lock(m_tasks_mutex);
                for (auto& running : m_tasks) {
                    if (running->owner == module && running->start_now && !running->init_called) {
                        to_start.push_back(running.get());
                    }
                }
            }
            if (m_started) {
                for (RunningTask* running : to_start) StartTask(*running);
            }
            return 0;
        }
        Note("module " + loaded->name + " Init failed");
        // The tasks' code may live in the module's object: free them before unmapping it.
        for (auto it = pending.rbegin(); it != pending.rend(); ++it) {
            Note("task " + (*it)->name + " dropped");
            delete (*it)->task;
        }
    }
    const std::string what = "module " + loaded->name + " not started: " + reason;
    LogRoot(Poco::Message::PRIO_ERROR, what, __LINE__);
    if (error != nullptr) *error = what;
    Note("module " + loaded->name + " delete");
    delete module;
    if (loaded->handle != nullptr) {
        ::dlclose(loaded->handle);
        Note("module " + loaded->name + " unload");
    }
    return -1;
}

int Engine::AdoptTask(Module* owner, Task* task, bool start_now) {
    std::lock_guard<std::recursive_mutex> life(m_lifecycle_mutex);
    auto running = std::make_unique<RunningTask>();
    running->task = task;
    running->owner = owner;
    running->name = task->name();
    running->start_now = start_now;
    RunningTask* adopted = running.get();
    std::string refusal;
    bool pending = false;
    {
        std::unique_lock<std::shared_mutex> lock(m_tasks_mutex);
        const bool taken = m_by_name.count(running->name) != 0 ||
                           std::any_of(m_pending.begin(), m_pending.end(),
                                       [&](const auto& p) { return p->name == running->name; });
        if (m_shut_down) {
            refusal = "engine is shut down";
        } else if (taken) {
            refusal = "a task of that name exists";
        } else if (owner != nullptr && owner == m_initialising) {
            m_pending.push_back(std::move(running));
            pending = true;
        } else {
            m_by_name[running->name] = task;
            PublishNameIndex();
            m_tasks.push_back(std::move(running));
        }
    }
    if (!refusal.empty()) {
        LogRoot(Poco::Message::PRIO_ERROR, "task " + task->name() + " refused: " + refusal, __LINE__);
        delete task;
        return -1;
    }
    Note("task " + adopted->name + " registered");
    if (!pending && start_now && m_started) return StartTask(*adopted);
    return 0;
}

int Engine::StartTasks() {
    std::lock_guard<std::recursive_mutex> life(m_lifecycle_mutex);
    if (m_shut_down) return -1;
    m_started = true;
    std::vector<RunningTask*> tasks;
    {
        std::shared_lock<std::shared_mutex> lock(m_tasks_mutex);
        for (auto& running : m_tasks) tasks.push_back(running.get());
    }
    int result = 0;
    for (RunningTask* running : tasks) {
        if (!running->init_called && StartTask(*running) != 0) result = -1;
    }
    return result;
}

int Engine::StartTask(RunningTask& running) {
    running.init_called = true;
    Note("task " + running.name + " Init");
    int rc = -1;
    try {
        rc = running.task->Init();
    } catch (const std::exception& e) {
        LogRoot(Poco::Message::PRIO_ERROR, "task " + running.name + " Init threw: " + e.what(), __LINE__);
    }
    if (rc != 0) {
        Note("task " + running.name + " Init failed");
        LogRoot(Poco::Message::PRIO_ERROR, Poco::format("task %s Init returned %d", running.name, rc), __LINE__);
        return -1;
    }
    // Noted before the thread exists, so it precedes everything the task does.
    Note("task " + running.name + " start");
    try {
        running.thread = std::thread([&running] {
            pthread_setname_np(pthread_self(), running.name.substr(0, 15).c_str());
            running.task->run();
            std::lock_guard<std::mutex> lock(running.end_mutex);
            running.ended = true;
            running.end_cv.notify_all();
        });
    } catch (const std::system_error& e) {
        Note("task " + running.name + " start failed");
        LogRoot(Poco::Message::PRIO_ERROR, "task " + running.name + ": no thread: " + e.what(), __LINE__);
        return -1;
    }
    return 0;
}

void Engine::WaitForTaskEnd(RunningTask& running) {
    using namespace std::chrono_literals;
    std::unique_lock<std::mutex> lock(running.end_mutex);
    int rounds = 0;
    while (!running.end_cv.wait_for(lock, 20ms, [&] { return running.ended; })) {
        // Poco::Task::run() sets TASK_RUNNING before runTask(): a cancel that
        // landed before the thread got there was overwritten. Cancel again.
        running.task->cancel();
        running.task->Wakeup();
        if (++rounds % 250 == 0) {
            LogRoot(Poco::Message::PRIO_WARNING,
                    Poco::format("task %s has not stopped after %d s", running.name, rounds / 50), __LINE__);
        }
    }
    lock.unlock();
    const std::thread::id id = running.thread.get_id();
    running.thread.join();
    SDK::InnerCpuCtrlUtils::RestoreThread(id);
}

void Engine::Shutdown() {
    std::vector<RunningTask*> tasks;
    {
        std::lock_guard<std::recursive_mutex> life(m_lifecycle_mutex);
        std::unique_lock<std::shared_mutex> lock(m_tasks_mutex);
        if (m_shut_down.exchange(true)) return;
        for (auto& running : m_tasks) tasks.push_back(running.get());
    }
    // Without the lifecycle lock: a task thread that registers a task now is
    // refused instead of waiting for a lock held by the thread joining it.
    // Collectors feed the other tasks, so they stop first: the others are
    // cancelled only once every collector's Run has returned, and what a
    // collector delivers in its last pass finds its receivers still running.
    for (const bool collectors : {true, false}) {
        std::vector<RunningTask*> stage;
        for (RunningTask* running : tasks) {
            const bool collector = running->task->Type() == TaskCondition::TASK_TYPE_COLLECTOR;
            if (running->thread.joinable() && collector == collectors) stage.push_back(running);
        }
        for (RunningTask* running : stage) {
            Note("task " + running->name + " cancel");
            running->task->cancel();
            running->task->Wakeup();
            // A throttled task would stretch its last pass by its CPU budget.
            SDK::InnerCpuCtrlUtils::ReleaseThread(running->thread.get_id());
        }
        for (RunningTask* running : stage) {
            WaitForTaskEnd(*running);
            Note("task " + running->name + " stopped");
        }
    }

    std::lock_guard<std::recursive_mutex> life(m_lifecycle_mutex);
    for (auto it = tasks.rbegin(); it != tasks.rend(); ++it) {
        if (!(*it)->init_called) continue;
        Note("task " + (*it)->name + " UnInit");
        try {
            (*it)->task->UnInit();
        } catch (const std::exception& e) {
            LogRoot(Poco::Message::PRIO_ERROR, "task " + (*it)->name + " UnInit threw: " + e.what(), __LINE__);
        }
    }
    for (auto it = m_modules.rbegin(); it != m_modules.rend(); ++it) {
        Note("module " + (*it)->name + " UnInit");
        try {
            (*it)->module->UnInit();
        } catch (const std::exception& e) {
            LogRoot(Poco::Message::PRIO_ERROR, "module " + (*it)->name + " UnInit threw: " + e.what(), __LINE__);
        }
    }
    AfterUnInit();
    std::vector<std::unique_ptr<RunningTask>> doomed;
    {
        std::unique_lock<std::shared_mutex> lock(m_tasks_mutex);
        m_by_name.clear();
        PublishNameIndex();
        doomed.swap(m_tasks);
    }
    for (auto it = doomed.rbegin(); it != doomed.rend(); ++it) {
        Note("task " + (*it)->name + " delete");
        delete (*it)->task;
    }
    for (auto it = m_modules.rbegin(); it != m_modules.rend(); ++it) {
        Note("module " + (*it)->name + " delete");
        delete (*it)->module;
    }
    // Every object made by a module's code is gone before its code is unmapped.
    for (auto it = m_modules.rbegin(); it != m_modules.rend(); ++it) {
        if ((*it)->handle == nullptr) continue;
        ::dlclose((*it)->handle);
        Note("module " + (*it)->name + " unload");
    }
    m_modules.clear();
}

void Engine::PublishNameIndex() {
    m_name_indexes.push_back(std::make_unique<const NameIndex>(m_by_name));
    m_name_index.store(m_name_indexes.back().get(), std::memory_order_release);
}

Task* Engine::FindTask(const std::string& name) const {
    const NameIndex* index = m_name_index.load(std::memory_order_acquire);
    if (index == nullptr) return nullptr;
    const auto it = index->find(name);
    return it == index->end() ? nullptr : it->second;
}

std::vector<std::string> Engine::TaskNames() const {
    std::shared_lock<std::shared_mutex> lock(m_tasks_mutex);
    std::vector<std::string> names;
    for (const auto& running : m_tasks) names.push_back(running->name);
    return names;
}

void Engine::RequestStop() {
    m_stop_requested = true;
    if (m_stop_fd >= 0) {
        const uint64_t one = 1;
        [[maybe_unused]] ssize_t rc = ::write(m_stop_fd, &one, sizeof one);
    }
}

int Engine::WaitForStopRequest() {
    if (m_signal_fd < 0 && m_stop_fd < 0) return -1;  // nothing could ever wake us
    for (;;) {
        if (m_stop_requested) return 0;
        if (m_signal_fd >= 0) {
            signalfd_siginfo info{};
            if (::read(m_signal_fd, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
                return static_cast<int>(info.ssi_signo);
            }
        }
        // The stop eventfd is never read: once set, every later call returns at once.
        pollfd fds[2] = {{m_signal_fd, POLLIN, 0}, {m_stop_fd, POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0 && errno != EINTR) return -1;
    }
}

int Engine::main(const std::vector<std::string>&) {
    if (StartTasks() != 0) LogRoot(Poco::Message::PRIO_WARNING, "some tasks did not start", __LINE__);
    const int sig = WaitForStopRequest();
    LogRoot(Poco::Message::PRIO_NOTICE, Poco::format("stopping (signal %d)", sig), __LINE__);
    Shutdown();
    return EXIT_OK;
}

}  // namespace Framework
