#include "CountingSubscriber.h"

#include <chrono>
#include <thread>

CountingSubscriber::CountingSubscriber(const std::string& name, Mode mode, unsigned int queue_slots)
    : Framework::Task(name, "reliability_test", Framework::TaskCondition::TASK_TYPE_NORMAL, queue_slots),
      m_mode(mode) {}

int CountingSubscriber::Run() {
    while (state() != Poco::Task::TASK_CANCELLING && !m_quit) {
        if (m_mode == Mode::NeverReads) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            continue;
        }
        if (MessageEmpty()) GetEventWaiter().WaitAndHandleEvent(100, 16);
        BulkConsumeMsg(256);
    }
    m_has_quit = true;
    return 0;
}

int CountingSubscriber::Receive(Engine::FtraceMessage* message) {
    ++m_count;
    std::lock_guard<std::mutex> lock(m_mutex);
    m_received.emplace(message->name(), static_cast<pid_t>(message->get_number("pid")));
    return 0;
}

bool CountingSubscriber::Received(const std::string& event, pid_t pid) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_received.count(std::make_pair(event, pid)) != 0;
}
