#pragma once
// Shared helpers of the task tests: the "ftrace" logger's lines, a subscriber
// task, and small tracefs file helpers.

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>

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

// "<priority> <text>" of every line a logger hands it, from any thread.
class CapturingChannel : public Poco::Channel {
public:
    void log(const Poco::Message& msg) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_lines.push_back(std::to_string(msg.getPriority()) + " " + msg.getText());
    }
    std::vector<std::string> lines(bool clear = false) {
        std::lock_guard<std::mutex> lock(m_mutex);
        std::vector<std::string> copy = m_lines;
        if (clear) m_lines.clear();
        return copy;
    }

private:
    std::mutex m_mutex;
    std::vector<std::string> m_lines;
};

// Creates the "ftrace" logger (the module logs nothing without it), admitting
// lines up to `level`, into a new capturing channel.
inline Poco::AutoPtr<CapturingChannel> CaptureFtraceLog(int level) {
    Poco::AutoPtr<CapturingChannel> channel(new CapturingChannel);
    Poco::Logger* logger = SDK::LoggerUtils::GetInstance()->GetModuleLogger("ftrace", true);
    logger->setChannel(channel);
    logger->setLevel(level);
    return channel;
}

inline std::string ReadText(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

const std::string kInstanceDir = "/sys/kernel/tracing/instances/ZEV";

inline std::string EnableState(const std::string& system, const std::string& event) {
    return ReadText(kInstanceDir + "/events/" + system + "/" + event + "/enable").substr(0, 1);
}

inline bool WaitFor(const std::function<bool()>& done) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

class PlainTask : public Framework::Task {
public:
    explicit PlainTask(const std::string& name)
        : Framework::Task(name, "test_feature", Framework::TaskCondition::TASK_TYPE_NORMAL, 16) {}
    int Run() override { return 0; }
};

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
