#include "FtraceTask.h"

#include <dirent.h>
#include <unistd.h>

#include <Poco/Util/Application.h>

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <typeinfo>

#include "CPUTopology.h"
#include "Framework/Engine.h"
#include "Framework/EventCallback.h"
#include "FtraceBufferSize.h"
#include "FtraceHoldOff.h"
#include "FtraceLog.h"
#include "FtraceMessage.h"
#include "SDK/FileUtils.h"

namespace Engine {

namespace {

constexpr int kMessagesPerBatch = 1024;
constexpr int kWaitTimeoutMs = 1000;
constexpr int kEventsPerWait = 128;
// A drain reads a CPU until it has nothing left, but at most as many pages as
// the CPU's ring buffer holds (PagesPerDrain): by then it has read everything
// the buffer held when the drain began, and only events written meanwhile
// are left. While events arrive faster than they are decoded a CPU is never
// empty, and an unbounded drain would keep the loop from its stop check and
// its watch requests for as long as that lasts.
constexpr unsigned long kDefaultBufferKb = 1408;       // the kernel's default, if the instance does not say
constexpr unsigned long kLargestBufferKb = 1ul << 30;  // keeps the arithmetic in range
constexpr unsigned long kPageHeaderBytes = 16;         // a page's time stamp and commit count
// Poco::Task::TASK_CANCELLING: cancel() has been called.
constexpr int kStateCancelling = 3;

struct DirCloser {
    void operator()(DIR* dir) const { closedir(dir); }
};

// The largest number in a buffer_size_kb file: "1408", or "7 (expanded:
// 1408)" before the kernel first grew the buffer to its set size.
unsigned long LargestNumber(const std::string& text) {
    unsigned long largest = 0;
    for (const char* at = text.c_str(); *at != '\0';) {
        char* end = nullptr;
        const unsigned long number = std::isdigit(static_cast<unsigned char>(*at)) ? std::strtoul(at, &end, 10) : 0;
        largest = std::max(largest, number);
        at = end != nullptr && end != at ? end : at + 1;
    }
    return largest;
}

// Reads that empty the largest per-CPU buffer of the readers' CPUs: one per
// page it holds (kb rounded up to pages of data), plus the reader page the
// kernel keeps aside and a page the previous drain read in part.
int PagesPerDrain(const Ftrace& ftrace, const std::vector<FtracePerCPUReader*>& readers) {
    unsigned long kb = 0;
    std::string text;
    for (const FtracePerCPUReader* reader : readers) {
        const std::string path = ftrace.tracing_file("per_cpu/cpu" + std::to_string(reader->cpu()) + "/buffer_size_kb");
        if (SDK::FileUtils::ReadFile(path, text, 256) == 0) kb = std::max(kb, LargestNumber(text));
    }
    if (kb == 0 && SDK::FileUtils::ReadFile(ftrace.tracing_file("buffer_size_kb"), text, 256) == 0) {
        kb = LargestNumber(text);
    }
    if (kb == 0) kb = kDefaultBufferKb;
    kb = std::min(kb, kLargestBufferKb);
    const unsigned long data_per_page = static_cast<unsigned long>(getpagesize()) - kPageHeaderBytes;
    return static_cast<int>(std::min<unsigned long>(kb * 1024 / data_per_page + 3, INT_MAX));
}

}  // namespace

FtraceTask::FtraceTask()
    : Framework::Task("ftrace_task", "ftrace_feature", static_cast<Framework::TaskCondition::TaskType>(4), 8192),
      m_ftrace("ZEV"),
      m_logger(SDK::LoggerUtils::GetInstance()->GetModuleLogger("ftrace", false)) {}

FtraceTask::~FtraceTask() {
    // Normally UnInit has done this already. Otherwise the events' descriptors
    // must be closed before m_ftrace goes: the kernel refuses to remove an
    // instance whose per-CPU pipes are still open.
    clear();
    // Nothing can call back with a reader as context once the events are gone.
    for (FtracePerCPUReader* reader : m_readers) delete reader;
    m_readers.clear();
}

int FtraceTask::Init() {
    FTRACE_LOG_TO(m_logger, Poco::Message::PRIO_INFORMATION, "Ftrace task init");
    // Without a host application there is no configuration: the kernel's
    // buffer size and watermark stay.
    const Poco::Util::AbstractConfiguration* config = nullptr;
    try {
        config = &Poco::Util::Application::instance().config();
    } catch (const std::exception&) {
    }
    // Sized before the pipes are opened and any event is on.
    if (config != nullptr) FtraceBufferSize::Apply(*config, m_ftrace);
    m_readers = CreateReaders(m_ftrace);
    // The kernel puts a poller of trace_pipe_raw on the wait queue that the
    // watermark of that moment selects, when its descriptor joins the epoll
    // set: the watermark must be written first.
    ApplyWakeupSettings(config);
    // The waiter keeps each event's address: the vector must never reallocate
    // once the first event is registered.
    m_events.reserve(m_readers.size());
    for (FtracePerCPUReader* reader : m_readers) {
        FileDescriptor fd(std::move(reader->fd()));
        auto* callback = new Framework::EventCallback<FtraceTask>(this, &FtraceTask::read_ftrace_event);
        m_events.emplace_back(callback, reader, fd.release());
        GetEventWaiter().AddEvent(m_events.back());
    }
    m_pages_per_drain = PagesPerDrain(m_ftrace, m_readers);
    return Framework::Task::Init();
}

void FtraceTask::ApplyWakeupSettings(const Poco::Util::AbstractConfiguration* config) {
    m_wakeup = config != nullptr ? FtraceWakeup::FromConfiguration(*config) : FtraceWakeup();
    if (!m_wakeup.Configured()) return;
    if (m_wakeup.buffer_percent >= 0 &&
        !m_ftrace.write_file(m_ftrace.tracing_file("buffer_percent"), std::to_string(m_wakeup.buffer_percent))) {
        m_wakeup.buffer_percent = -1;
    }
    FTRACE_LOG_TO(m_logger, Poco::Message::PRIO_INFORMATION, "Ftrace wake-up: %s", m_wakeup.Describe());
}

std::vector<FtracePerCPUReader*> FtraceTask::CreateReaders(Ftrace& ftrace) {
    std::vector<FtracePerCPUReader*> readers;
    const std::vector<int> cpus = Engine::CPUTopology::GetOnlineCPUs();
    if (!cpus.empty()) {
        FtracePerCPUReader::create_readers(ftrace, cpus.begin(), cpus.end(), std::back_inserter(readers));
        return readers;
    }

    // No usable CPU list: take the CPUs the instance itself offers.
    const std::string dir = ftrace.tracing_file("per_cpu");
    if (dir.empty()) return readers;
    std::unique_ptr<DIR, DirCloser> handle(opendir(dir.c_str()));
    if (!handle) return readers;
    try {
        while (const dirent* entry = readdir(handle.get())) {
            const std::string name = entry->d_name;
            if (name.size() <= 3 || name.compare(0, 3, "cpu") != 0) continue;
            // A malformed name such as "cpuX" throws from std::stoul and fails Init.
            const int cpu = static_cast<int>(std::stoul(name.substr(3), nullptr, 10));
            readers.push_back(new FtracePerCPUReader(ftrace, dir + "/" + name + "/trace_pipe_raw", cpu));
        }
    } catch (...) {
        for (FtracePerCPUReader* reader : readers) delete reader;
        throw;
    }
    return readers;
}

int FtraceTask::Run() {
    using Clock = std::chrono::steady_clock;
    FTRACE_LOG_TO(m_logger, Poco::Message::PRIO_INFORMATION, "Ftrace task Run");
    if (m_wakeup.reader_nice != FtraceWakeup::kKeepNice) {
        if (const int error = FtraceWakeup::SetCallingThreadNice(m_wakeup.reader_nice)) {
            FTRACE_LOG_TO(m_logger, Poco::Message::PRIO_WARNING,
                          "Ftrace reading thread keeps its priority: nice %d refused (%s)", m_wakeup.reader_nice,
                          std::string(std::strerror(error)));
        }
    }
    // Without a configured hold-off it never holds anything off.
    FtraceHoldOff hold_off(std::chrono::milliseconds(m_wakeup.coalesce_ms),
                           std::chrono::milliseconds(m_wakeup.coalesce_max_ms));
    Clock::time_point held_off_until{};
    BulkConsumeMsg(kMessagesPerBatch);
    while (state() != kStateCancelling) {
        const uint64_t records_before = m_records_read;
        Clock::time_point pass_began;
        if (MessageEmpty()) {
            // A hold-off set by the last pass is spent inside this wait.
            pass_began = std::max(Clock::now(), held_off_until);
            GetEventWaiter().WaitAndHandleEvent(kWaitTimeoutMs, kEventsPerWait);
        } else {
            pass_began = Clock::now();
            BulkConsumeMsg(kMessagesPerBatch);
        }
        // The kernel wakes pollers of trace_pipe_raw only at the buffer's
        // watermark, so every CPU is drained on every pass, ready or not.
        for (Framework::Event& event : m_events) event.HandleEvent(static_cast<unsigned int>(-1));
        // With a low watermark every record would wake the task for a page
        // holding little more than that record. After a pass that read
        // records the next wait starts a window after this one did, so a
        // storm is read in full pages; a record after a quiet spell is read at once.
        if (m_records_read != records_before) {
            held_off_until = hold_off.AfterPass(pass_began, m_records_read - records_before);
            GetEventWaiter().HoldOffUntil(held_off_until);
        }
    }
    return 0;
}

int FtraceTask::read_ftrace_event(int fd, unsigned int /*events*/, void* context) {
    auto* reader = static_cast<FtracePerCPUReader*>(context);
    for (int pages = 0;
         pages < m_pages_per_drain && reader->read_once(m_ftrace, fd, &FtraceTask::handle_ftrace_record, this) == 2;
         ++pages) {
    }
    return 0;
}

void FtraceTask::handle_ftrace_record(FtraceRecord& record, void* context) {
    auto* task = static_cast<FtraceTask*>(context);
    ++task->m_records_read;
    task->send_ftrace_message(record);
}

void FtraceTask::clear() {
    for (const auto& entry : m_watches) {
        const std::pair<std::string, std::string> key = entry.first;
        unset_event(key.first, key.second);
    }
    m_watches.clear();
    watches_changed();
    for (Framework::Event& event : m_events) GetEventWaiter().RemoveEvent(event);
    m_events.clear();
}

int FtraceTask::UnInit() {
    clear();
    return Framework::Task::UnInit();
}

int FtraceTask::AddWatch(const Framework::Task* watcher, const std::string& system, const std::string& event) {
    FTRACE_LOG_TO(m_logger, Poco::Message::PRIO_DEBUG, "Enter: AddWatch: %s:%s", system, event);
    std::set<std::string>& subscribers = m_watches[std::make_pair(system, event)];
    watches_changed();
    if (subscribers.insert(watcher->name()).second) {
        // Every new subscriber enables the event again; the kernel ignores a
        // repeated enable. An unknown event stays recorded (no rollback).
        return set_event(system, event) ? 0 : 1;
    }
    FTRACE_LOG_TO(m_logger, Poco::Message::PRIO_INFORMATION, "Task %s already registered to %s:%s", watcher->name(),
                  system, event);
    return 1;
}

int FtraceTask::RemoveWatch(const Framework::Task* watcher, const std::string& system, const std::string& event) {
    const auto it = m_watches.find(std::make_pair(system, event));
    if (it == m_watches.end() || it->second.erase(watcher->name()) == 0) {
        FTRACE_LOG_TO(m_logger, Poco::Message::PRIO_INFORMATION, "Task %s was not registered to %s:%s",
                      watcher->name(), system, event);
        return 0;
    }
    watches_changed();
    // Only the last subscriber switches the event off; the emptied key stays.
    if (it->second.empty()) return unset_event(system, event) ? 0 : 1;
    return 0;
}

bool FtraceTask::set_event(const std::string& system, const std::string& event) {
    FTRACE_LOG_TO(m_logger, Poco::Message::PRIO_INFORMATION, "Setting event: %s:%s", system, event);
    const FtraceEvent found = m_ftrace.get_event(system, event);
    if (!found) {
        FTRACE_LOG_TO(m_logger, Poco::Message::PRIO_ERROR, "Invalid event: %s:%s", system, event);
        return false;
    }
    m_ftrace.add(found);
    return true;
}

bool FtraceTask::unset_event(const std::string& system, const std::string& event) {
    const FtraceEvent found = m_ftrace.get_event(system, event);
    if (!found) return false;
    m_ftrace.remove(found);
    return true;
}

FtraceTask::EventRoute& FtraceTask::route(const FtraceEvent& event) {
    // Records come in runs of one event (sched_switch above all).
    const tep_event* key = event.get();
    if (key == m_last_event) return *m_last_route;
    auto it = m_routes.find(key);
    if (it == m_routes.end()) it = m_routes.emplace(key, event).first;
    m_last_event = key;
    m_last_route = &it->second;
    return it->second;
}

FtraceTask::DeliveryScope::DeliveryScope(FtraceTask& task) : m_task(task) { ++m_task.m_delivering; }

FtraceTask::DeliveryScope::~DeliveryScope() {
    if (--m_task.m_delivering == 0) m_task.m_retired_subscribers.clear();
}

std::unique_ptr<FtraceMessage> FtraceTask::create_ftrace_message(const FtraceRecord& record) {
    return route(record.event()).layout.make_message(record);
}

void FtraceTask::send_ftrace_message(FtraceRecord& record) {
    EventRoute& route = this->route(record.event());
    // Built first, also when nobody is subscribed. One instance, shared by every receiver.
    std::shared_ptr<Framework::Message> message = route.layout.make_shared_message(record);
    if (route.generation != m_watch_generation) {
        // A record of an event nobody asked for leaves an empty entry behind.
        const std::set<std::string>& names = m_watches[std::make_pair(route.layout.system(), route.layout.event_name())];
        // A delivery further up this thread's stack may still walk the old list.
        if (m_delivering > 0 && route.subscribers) m_retired_subscribers.push_back(std::move(route.subscribers));
        route.subscribers = std::make_unique<const std::vector<std::string>>(names.begin(), names.end());
        route.generation = m_watch_generation;
    }
    // Registry changes made while delivering (from a receiver's EnqueueMsg,
    // say) replace route.subscribers and leave this list alone.
    const std::vector<std::string>& subscribers = *route.subscribers;
    DeliveryScope scope(*this);
    for (const std::string& name : subscribers) {
        Poco::Util::Application& application = Poco::Util::Application::instance();
        if (&application != m_application || typeid(application) != *m_application_type) {
            m_engine = dynamic_cast<Framework::Engine*>(&application);
            m_application = &application;
            m_application_type = &typeid(application);
        }
        Framework::Task* task = m_engine->FindTask(name);
        if (task == nullptr) {
            FTRACE_LOG_TO(m_logger, Poco::Message::PRIO_INFORMATION,
                          "FtraceTask::send_ftrace_message: Task %s not found", name);
            continue;
        }
        task->EnqueueMsg(message);
    }
}

}  // namespace Engine
