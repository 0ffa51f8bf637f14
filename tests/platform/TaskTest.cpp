// Tasks, events and the event waiter without an engine: ownership of event
// callbacks and descriptors, epoll dispatch, message consumption with failing
// handlers, and the wake-up of a waiting task by EnqueueMsg.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Framework/Event.h"
#include "Framework/EventCallback.h"
#include "Framework/EventWaiter.h"
#include "Framework/Task.h"

namespace {

bool IsOpen(int fd) { return ::fcntl(fd, F_GETFD) != -1; }

struct Recorder {
    std::vector<std::pair<int, void*>> calls;
    int OnReady(int fd, unsigned int, void* context) {
        calls.emplace_back(fd, context);
        return 7;
    }
};

// Counts its own destructions, to prove each event deletes its callback once.
class CountedCallback : public Framework::EventCallback<Recorder> {
public:
    CountedCallback(Recorder* r, int* destroyed) : EventCallback(r, &Recorder::OnReady), m_destroyed(destroyed) {}
    ~CountedCallback() override { ++*m_destroyed; }

private:
    int* m_destroyed;
};

TEST(Event, OwnsCallbackAndDescriptorAcrossMoves) {
    Recorder recorder;
    int destroyed = 0;
    int fds[3];
    {
        std::vector<Framework::Event> events;
        events.reserve(1);  // the next push_back grows the vector: events are moved
        for (int i = 0; i < 3; ++i) {
            fds[i] = ::eventfd(0, EFD_CLOEXEC);
            events.emplace_back(new CountedCallback(&recorder, &destroyed), &fds[i], fds[i]);
        }
        EXPECT_EQ(destroyed, 0);
        EXPECT_EQ(events[1].HandleEvent(~0u), 7);
        ASSERT_EQ(recorder.calls.size(), 1u);
        EXPECT_EQ(recorder.calls[0], std::make_pair(fds[1], static_cast<void*>(&fds[1])));

        Framework::Event moved(std::move(events[0]));
        EXPECT_EQ(events[0].Fd(), -1);
        events.erase(events.begin());  // destroys the moved-from shell and shifts the others
        EXPECT_TRUE(IsOpen(fds[0]));
        EXPECT_EQ(destroyed, 0);
    }
    EXPECT_EQ(destroyed, 3);
    for (int fd : fds) EXPECT_FALSE(IsOpen(fd));
}

TEST(EventWaiter, DispatchesReadyDescriptorsUpToTheLimit) {
    Recorder recorder;
    int first[2], second[2];
    ASSERT_EQ(::pipe2(first, O_CLOEXEC), 0);
    ASSERT_EQ(::pipe2(second, O_CLOEXEC), 0);
    Framework::Event a(new Framework::EventCallback<Recorder>(&recorder, &Recorder::OnReady), &recorder, first[0]);
    Framework::Event b(new Framework::EventCallback<Recorder>(&recorder, &Recorder::OnReady), nullptr, second[0]);
    Framework::Event none(nullptr, nullptr, -1);
    Framework::EventWaiter waiter;
    ASSERT_TRUE(waiter.IsValid());
    EXPECT_EQ(waiter.AddEvent(none), -1);
    ASSERT_EQ(waiter.AddEvent(a), 0);
    ASSERT_EQ(waiter.AddEvent(b), 0);

    EXPECT_EQ(waiter.WaitAndHandleEvent(0, 128), 0);
    ASSERT_EQ(::write(second[1], "x", 1), 1);
    EXPECT_EQ(waiter.WaitAndHandleEvent(1000, 128), 1);
    ASSERT_EQ(recorder.calls.size(), 1u);
    EXPECT_EQ(recorder.calls[0], std::make_pair(second[0], static_cast<void*>(nullptr)));

    ASSERT_EQ(::write(first[1], "x", 1), 1);
    EXPECT_EQ(waiter.WaitAndHandleEvent(1000, 1), 1);  // both ready, one handled
    EXPECT_EQ(waiter.WaitAndHandleEvent(1000, 128), 2);
    EXPECT_EQ(waiter.WaitAndHandleEvent(0, 0), -1);
    ::close(first[1]);
    ::close(second[1]);
}

enum class Behaviour { Ok, Fails, ThrowsStd, ThrowsOther, Intercepted };

class ScriptedMessage : public Framework::Message {
public:
    ScriptedMessage(Behaviour b, int id, std::vector<int>* handled) : behaviour(b), m_id(id), m_handled(handled) {}
    int MessageHandle(void*) override {
        switch (behaviour) {
            case Behaviour::Fails: return -1;
            case Behaviour::ThrowsStd: throw std::runtime_error("handler failed");
            case Behaviour::ThrowsOther: throw 42;
            default: m_handled->push_back(m_id); return 0;
        }
    }
    const Behaviour behaviour;

private:
    int m_id;
    std::vector<int>* m_handled;
};

// Serves its queue like the agent's tasks: wait while empty, else consume.
class LoopTask : public Framework::Task {
public:
    explicit LoopTask(unsigned int queue_size = 64)
        : Task("loop_task", "test", Framework::TaskCondition::TASK_TYPE_NORMAL, queue_size) {}
    int Run() override {
        while (state() != TASK_CANCELLING) {
            if (MessageEmpty()) {
                waits.fetch_add(1);
                GetEventWaiter().WaitAndHandleEvent(1000, 128);
            } else {
                BulkConsumeMsg(1024);
            }
        }
        if (throw_at_end) throw std::runtime_error("Run failed");
        return 0;
    }
    int InterceptMsg(std::shared_ptr<Framework::Message>& m) override {
        auto* scripted = dynamic_cast<ScriptedMessage*>(m.get());
        return scripted != nullptr && scripted->behaviour == Behaviour::Intercepted ? 1 : 0;
    }
    int HandleMsg(const Framework::Message*) override { return ++after_handle; }

    std::atomic<int> waits{0};
    int after_handle = 0;
    bool throw_at_end = false;
};

TEST(Task, FailingOrThrowingHandlersDoNotStopTheConsumer) {
    const Behaviour script[] = {Behaviour::Ok,          Behaviour::Fails,       Behaviour::ThrowsStd,
                                Behaviour::Intercepted, Behaviour::ThrowsOther, Behaviour::Ok};
    LoopTask task;
    std::vector<int> handled;
    std::vector<std::shared_ptr<Framework::Message>> sent;
    for (int i = 0; i < 6; ++i) {
        sent.push_back(std::make_shared<ScriptedMessage>(script[i], i, &handled));
        EXPECT_EQ(task.EnqueueMsg(sent.back()), 1);
    }
    std::shared_ptr<Framework::Message> null_message;
    EXPECT_EQ(task.EnqueueMsg(null_message), 0);

    EXPECT_EQ(task.BulkConsumeMsg(1024), 6);
    EXPECT_EQ(handled, (std::vector<int>{0, 5}));
    EXPECT_EQ(task.after_handle, 3);  // after the Ok and failing handlers; not after throws or interception
    EXPECT_TRUE(task.MessageEmpty());
    for (const auto& m : sent) EXPECT_EQ(m.use_count(), 1);  // the task let go of every message
}

TEST(Task, FullQueueRefusesAndCounts) {
    LoopTask task(2);
    std::vector<int> handled;
    std::shared_ptr<Framework::Message> m = std::make_shared<ScriptedMessage>(Behaviour::Ok, 1, &handled);
    EXPECT_EQ(task.EnqueueMsg(m), 1);
    EXPECT_EQ(task.EnqueueMsg(m), 1);
    EXPECT_EQ(task.EnqueueMsg(m), 0);
    EXPECT_EQ(task.DroppedMessages(), 1u);
    EXPECT_EQ(task.BulkConsumeMsg(1), 1);
    EXPECT_EQ(task.BulkConsumeMsg(-1), 1);
    EXPECT_EQ(handled.size(), 2u);
}

TEST(Task, RunExceptionEndsTheThreadQuietly) {
    LoopTask task;
    task.throw_at_end = true;
    task.cancel();
    std::thread thread([&] { task.runTask(); });  // runTask, unlike run(), keeps the cancelled state
    thread.join();
    EXPECT_EQ(task.state(), Poco::Task::TASK_CANCELLING);
}

TEST(Task, EnqueueWakesATaskWaitingForEvents) {
    LoopTask task;
    std::atomic<int64_t> handled_at{0};
    class TimedMessage : public Framework::Message {
    public:
        explicit TimedMessage(std::atomic<int64_t>* at) : m_at(at) {}
        int MessageHandle(void*) override {
            m_at->store(std::chrono::steady_clock::now().time_since_epoch().count());
            return 0;
        }

    private:
        std::atomic<int64_t>* m_at;
    };
    std::thread thread([&] { task.run(); });
    for (int round = 0; round < 3; ++round) {
        const int waits = task.waits.load();
        while (task.waits.load() == waits) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        std::this_thread::sleep_for(std::chrono::milliseconds(50));  // well inside the 1000 ms wait
        handled_at = 0;
        const auto sent_at = std::chrono::steady_clock::now();
        std::shared_ptr<Framework::Message> m = std::make_shared<TimedMessage>(&handled_at);
        ASSERT_EQ(task.EnqueueMsg(m), 1);
        while (handled_at.load() == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        const auto latency = std::chrono::steady_clock::time_point(
                                 std::chrono::steady_clock::duration(handled_at.load())) - sent_at;
        EXPECT_LT(latency, std::chrono::milliseconds(500)) << "round " << round;
    }
    task.cancel();
    task.Wakeup();
    thread.join();
}

}  // namespace
