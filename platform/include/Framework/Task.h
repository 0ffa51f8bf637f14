#pragma once
#include <Poco/Task.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "Framework/Event.h"
#include "Framework/EventWaiter.h"
#include "Framework/Message.h"
#include "Framework/MessageConsumer.h"
#include "Framework/MessageProductor.h"
#include "Framework/TaskCondition.h"
#include "Framework/WakeupChannel.h"

namespace Framework {

// A unit of work with its own thread, inbound message queue and event waiter.
// The engine calls Init, then runs run() -> runTask() -> Run() on a thread of
// the task's own, and at shutdown cancel(), waits for Run to return, calls
// UnInit and deletes the task. Collectors are cancelled before every other
// task (see Engine::Shutdown): a task that receives from one should handle
// what is still queued to it before its Run returns, or it is lost.
class Task : public Poco::Task {
public:
    // `queue_size` is the slot count of the inbound queue (rounded up to a
    // power of two). The task registers its own wake-up event (an eventfd) with
    // its waiter, so EnqueueMsg cuts a WaitAndHandleEvent short.
    Task(const std::string& name, const std::string& feature, TaskCondition::TaskType type,
         unsigned int queue_size);
    ~Task() override;

    // Poco's task body: calls Run(); an exception leaving Run is logged on the
    // root logger and ends the task thread normally.
    void runTask() override;

    virtual int Init();
    virtual int UnInit();
    virtual int Run() = 0;
    // Puts one reference to `message` on this task's queue without blocking and
    // wakes the task's waiter. Any thread. 1 when queued, 0 when the queue is full.
    // From another task's thread the wake-up is written when that thread is
    // about to wait itself (or ends its Run, or has enqueued 256 messages since,
    // or this queue is half full), so one system call covers a whole burst.
    virtual int EnqueueMsg(std::shared_ptr<Message>& message);
    virtual int InterceptMsg(std::shared_ptr<Message>&) { return 0; }
    virtual int HandleMsg(const Message*) { return 0; }

    // Takes up to `max` queued messages, oldest first, and for each: InterceptMsg
    // (non-zero skips it), MessageHandle(this), HandleMsg. A failing or throwing
    // handler does not stop the others. Returns the number taken. Task thread only.
    int BulkConsumeMsg(int max);
    bool MessageEmpty() const;

    const std::string& Feature() const { return m_feature; }
    TaskCondition::TaskType Type() const { return m_condition.Type(); }
    // Messages refused because the queue was full.
    unsigned long DroppedMessages() const;
    // Cuts the task's current (or next) WaitAndHandleEvent short; the engine
    // calls it after cancel() so that a waiting task notices the stop at once.
    void Wakeup();

protected:
    EventWaiter& GetEventWaiter() { return m_event_waiter; }

    std::string m_feature;
    TaskCondition m_condition;
    Event m_event;               // the task's own wake-up eventfd
    EventWaiter m_event_waiter;  // derived tasks register their descriptors here
    MessageProductor m_productor;
    MessageConsumer m_consumer;

private:
    int OnWakeup(int fd, unsigned int events, void* context);
    static bool BeforeWait(void* task);
    std::shared_ptr<const WakeupChannel> m_wakeup_channel;  // for delayed wake-ups
    std::vector<std::shared_ptr<Message>> m_batch;
    std::atomic<unsigned long> m_dropped{0};
    // Set by the first producer after the task last got ready to sleep (its
    // waiter's BeforeWait): later producers skip the eventfd write, so a task
    // that is busy consuming costs its producers no system call per message.
    std::atomic<bool> m_wakeup_pending{false};
};

}  // namespace Framework
