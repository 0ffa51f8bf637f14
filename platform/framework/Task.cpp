#include "Framework/Task.h"

#include <Poco/Format.h>
#include <Poco/Message.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <exception>

#include "Framework/EventCallback.h"
#include "SDK/LoggerUtils.h"

namespace Framework {
namespace {

void LogError(const std::string& text, int line) {
    SDK::LoggerUtils::Log(SDK::LoggerUtils::GetInstance()->GetRootLogger(), Poco::Message::PRIO_ERROR, text,
                          __FILE__, line);
}

// The task whose Run this thread is executing, if any.
thread_local Task* t_running_task = nullptr;
// Wake-ups this task thread owes to tasks it enqueued to, and the messages it
// enqueued since it last paid them.
thread_local std::vector<std::shared_ptr<const WakeupChannel>> t_owed_wakeups;
thread_local unsigned int t_messages_since_paid = 0;
constexpr unsigned int kMostMessagesOwed = 256;

void PayOwedWakeups() {
    for (const auto& channel : t_owed_wakeups) channel->Signal();
    t_owed_wakeups.clear();
    t_messages_since_paid = 0;
}

}  // namespace

Task::Task(const std::string& name, const std::string& feature, TaskCondition::TaskType type,
           unsigned int queue_size)
    : Poco::Task(name),
      m_feature(feature),
      m_condition(type),
      m_event(new EventCallback<Task>(this, &Task::OnWakeup), nullptr, ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)),
      m_consumer(queue_size) {
    // Without the eventfd the task still works; its waits just run to their time-out.
    if (m_event_waiter.AddEvent(m_event) != 0) {
        LogError(Poco::format("task %s: no wake-up event (errno %d)", name, errno), __LINE__);
    }
    m_event_waiter.SetBeforeWait(&Task::BeforeWait, this);
    auto channel = std::make_shared<const WakeupChannel>(m_event.Fd());
    if (channel->Valid()) m_wakeup_channel = std::move(channel);
}

Task::~Task() = default;

void Task::runTask() {
    Task* const outer = t_running_task;
    t_running_task = this;
    try {
        Run();
    } catch (const std::exception& e) {
        LogError(Poco::format("task %s: Run threw: %s", name(), std::string(e.what())), __LINE__);
    } catch (...) {
        LogError(Poco::format("task %s: Run threw a non-standard exception", name()), __LINE__);
    }
    PayOwedWakeups();
    t_running_task = outer;
}

int Task::Init() { return 0; }

int Task::UnInit() { return 0; }

int Task::EnqueueMsg(std::shared_ptr<Message>& message) {
    if (!message) return 0;
    // Enqueue would wrap the message in a new one-element vector; the slot
    // takes its own reference straight from ours.
    const int queued = m_consumer.Queue().EnqueueOne(message);
    if (queued != 1) {
        m_dropped.fetch_add(1, std::memory_order_relaxed);
        return 0;
    }
    // Pairs with the exchange in BeforeWait. Both sides read-modify-write the
    // same flag, so one comes first: if the consumer's came first this
    // producer reads the cleared flag and wakes it; otherwise the consumer's
    // exchange acquires this one and it sees the message before it sleeps.
    if (!m_wakeup_pending.exchange(true, std::memory_order_acq_rel)) {
        // Another task's thread wakes this one when it is about to wait
        // itself; any other thread at once.
        if (t_running_task != nullptr && t_running_task != this && m_wakeup_channel) {
            t_owed_wakeups.push_back(m_wakeup_channel);
        } else {
            Wakeup();
        }
    }
    if (!t_owed_wakeups.empty() &&
        (++t_messages_since_paid >= kMostMessagesOwed ||
         2 * m_consumer.Queue().Count() >= m_consumer.Queue().Capacity())) {
        PayOwedWakeups();
    }
    return 1;
}

void Task::Wakeup() {
    if (m_event.Fd() < 0) return;
    const uint64_t one = 1;
    // EAGAIN means the counter is already saturated, i.e. a wake-up is pending anyway.
    ssize_t rc;
    do {
        rc = ::write(m_event.Fd(), &one, sizeof one);
    } while (rc < 0 && errno == EINTR);
}

int Task::OnWakeup(int fd, unsigned int, void*) {
    uint64_t count = 0;
    ssize_t rc;
    do {
        rc = ::read(fd, &count, sizeof count);
    } while (rc < 0 && errno == EINTR);
    return 0;
}

bool Task::BeforeWait(void* context) {
    Task* task = static_cast<Task*>(context);
    // Whoever this thread enqueued to must not wait for it to wake up again.
    PayOwedWakeups();
    // Arm the wake-up, then look at the queue once more: a message enqueued
    // before the flag was cleared is seen here, and the wait only polls.
    task->m_wakeup_pending.exchange(false, std::memory_order_acq_rel);
    return !task->m_consumer.Queue().Empty();
}

int Task::BulkConsumeMsg(int max) {
    // Swapped out so that a handler that consumes again works on its own batch.
    std::vector<std::shared_ptr<Message>> batch;
    batch.swap(m_batch);
    batch.clear();
    const int taken = m_consumer.Queue().DequeueBulk(batch, max);
    for (auto& message : batch) {
        if (!message) continue;
        try {
            if (InterceptMsg(message) != 0) continue;
            message->MessageHandle(this);
            HandleMsg(message.get());
        } catch (const std::exception& e) {
            LogError(Poco::format("task %s: message handler threw: %s", name(), std::string(e.what())), __LINE__);
        } catch (...) {
            LogError(Poco::format("task %s: message handler threw a non-standard exception", name()), __LINE__);
        }
    }
    batch.clear();  // drops this task's references now, not at the next call
    m_batch.swap(batch);
    return taken;
}

bool Task::MessageEmpty() const { return m_consumer.Queue().Empty(); }

unsigned long Task::DroppedMessages() const { return m_dropped.load(std::memory_order_relaxed); }

}  // namespace Framework
