#pragma once
// Shared helpers of the task tests: a log channel that records lines, a
// subscriber task, and small tracefs file helpers.

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>
#include <sys/stat.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Framework/Task.h"
#include "FtraceMessage.h"
#include "SDK/LoggerUtils.h"

namespace tasktest {

// Keeps "<priority> <text>" for every line whose priority is at or above `max_priority`.
class CapturingChannel : public Poco::Channel {
public:
    explicit CapturingChannel(int max_priority) : m_max(max_priority) {}
    void log(const Poco::Message& msg) override {
        if (msg.getPriority() > m_max) return;
        std::lock_guard<std::mutex> lock(m_mutex);
        m_lines.push_back(std::to_string(msg.getPriority()) + " " + msg.getText());
    }
    std::vector<std::string> take() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return std::move(m_lines);
    }
    std::vector<std::string> lines() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_lines;
    }

private:
    int m_max;
    std::mutex m_mutex;
    std::vector<std::string> m_lines;
};

// Creates (or resets) the "ftrace" logger at trace level with a capturing channel.
inline Poco::AutoPtr<CapturingChannel> CaptureFtraceLog(int max_priority) {
    Poco::AutoPtr<CapturingChannel> channel(new CapturingChannel(max_priority));
    Poco::Logger* logger = SDK::LoggerUtils::GetInstance()->GetModuleLogger("ftrace", true);
    logger->setChannel(channel);
    logger->setLevel(Poco::Message::PRIO_TRACE);
    return channel;
}

inline std::string ReadText(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

const std::string kInstanceDir = "/sys/kernel/tracing/instances/ZEV";

inline bool Exists(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

inline std::string EnableState(const std::string& system, const std::string& event) {
    std::string text = ReadText(kInstanceDir + "/events/" + system + "/" + event + "/enable");
    return text.substr(0, 1);
}

inline bool WaitFor(const std::function<bool()>& done, int seconds = 10) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

// A task that implements the trace-message receiver and keeps every trace
// message it is handed (by shared owner, so that addresses stay comparable).
class Subscriber : public Framework::Task, public Engine::AbstructMessage<Engine::FtraceMessage>::Receiver {
public:
    explicit Subscriber(const std::string& name)
        : Framework::Task(name, "test_feature", Framework::TaskCondition::TASK_TYPE_NORMAL, 1024) {}

    int Run() override {
        while (state() != Poco::Task::TASK_CANCELLING) {
            if (MessageEmpty()) GetEventWaiter().WaitAndHandleEvent(100, 16);
            BulkConsumeMsg(256);
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

private:
    std::shared_ptr<Engine::FtraceMessage> m_current;
    std::mutex m_mutex;
    std::vector<std::shared_ptr<Engine::FtraceMessage>> m_received;
};

}  // namespace tasktest
