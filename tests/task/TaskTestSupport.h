#pragma once
// The task tests' subscribers.

#include <memory>

#include "Framework/Task.h"
#include "FtraceMessage.h"
#include "TestSupport.h"

namespace tasktest {

// A task that is no trace-message receiver.
struct PlainTask : Framework::Task {
    explicit PlainTask(const std::string& name)
        : Framework::Task(name, "test_feature", Framework::TaskCondition::TASK_TYPE_NORMAL, 16) {}
    int Run() override { return 0; }
};

// A trace-message receiver. A steady one serves its queue and keeps every
// message (by shared owner, so that addresses stay comparable); a stopped one
// ends its Run at once but stays registered, so its queue fills.
class Subscriber : public Framework::Task, public Engine::AbstructMessage<Engine::FtraceMessage>::Receiver {
public:
    explicit Subscriber(const std::string& name, bool stopped = false, unsigned int slots = 4096)
        : Framework::Task(name, "test_feature", Framework::TaskCondition::TASK_TYPE_NORMAL, slots),
          m_stopped(stopped) {}

    int Run() override {
        while (!m_stopped && state() != Poco::Task::TASK_CANCELLING) {
            if (MessageEmpty()) GetEventWaiter().WaitAndHandleEvent(100, 16);
            else BulkConsumeMsg(256);
        }
        return 0;
    }
    int InterceptMsg(std::shared_ptr<Framework::Message>& message) override {
        m_current = std::dynamic_pointer_cast<Engine::FtraceMessage>(message);
        return 0;
    }
    int Receive(Engine::FtraceMessage* message) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_current.get() == message) m_received.push_back(m_current);
        return 0;
    }
    // The first received message satisfying `match`, or null.
    std::shared_ptr<Engine::FtraceMessage> Find(const std::function<bool(const Engine::FtraceMessage&)>& match) {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (const auto& message : m_received)
            if (match(*message)) return message;
        return nullptr;
    }
    size_t Count() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_received.size();
    }

private:
    const bool m_stopped;
    std::shared_ptr<Engine::FtraceMessage> m_current;
    std::mutex m_mutex;
    std::vector<std::shared_ptr<Engine::FtraceMessage>> m_received;
};

}  // namespace tasktest
