// The trace message's entries and text form, typed dispatch, and the watch
// request's validation, all without a kernel.
#include <gtest/gtest.h>

#include <sstream>

#include "FtraceWatchMessage.h"
#include "TaskTestSupport.h"

using Engine::FtraceMessage;
using Engine::FtraceWatchMessage;

TEST(FtraceMessageTest, FirstValueWinsAndTextForm) {
    struct Case {
        std::vector<std::pair<std::string, unsigned long>> numbers;
        std::vector<std::pair<std::string, std::string>> strings;
        std::string text;  // numbers before strings, keys sorted
    } cases[] = {
        {{}, {}, "sched:sched_switch "},
        {{{"timestamp", 5}, {"prev_pid", 7}}, {{"prev_comm", "bash"}},
         "sched:sched_switch prev_pid: 7, timestamp: 5, prev_comm: bash, "},
        {{{"k", 1}, {"k", 2}}, {{"s", "first"}, {"s", "second"}}, "sched:sched_switch k: 1, s: first, "},
        {{{"k", 3}, {"", 0}}, {{"k", "text"}}, "sched:sched_switch : 0, k: 3, k: text, "},
    };
    for (const Case& c : cases) {
        FtraceMessage message("sched:sched_switch");
        for (const auto& [key, value] : c.numbers) message.add(key, value);
        for (const auto& [key, value] : c.strings) message.add(key, value);
        std::ostringstream text;
        text << message;
        EXPECT_EQ(text.str(), c.text);
        EXPECT_EQ(message.get_number("missing"), 0UL);
        EXPECT_EQ(message.get_string("missing"), "");
    }
}

TEST(FtraceMessageTest, MessageHandleReachesOnlyReceivers) {
    tasktest::Subscriber receiver("receiver");
    tasktest::PlainTask plain("plain");
    auto message = std::make_shared<FtraceMessage>("sched:sched_switch");
    std::shared_ptr<Framework::Message> base = message;
    EXPECT_EQ(base->MessageHandle(nullptr), -1);
    EXPECT_EQ(base->MessageHandle(static_cast<Framework::Task*>(&plain)), -1);
    receiver.InterceptMsg(base);
    EXPECT_EQ(base->MessageHandle(static_cast<Framework::Task*>(&receiver)), 0);
    EXPECT_EQ(receiver.Find([](const FtraceMessage&) { return true; }), message);
}

TEST(FtraceWatchMessageTest, RefusesIncompleteRequestsAndOtherConsumers) {
    auto log = tasktest::CaptureFtraceLog(Poco::Message::PRIO_ERROR);
    tasktest::PlainTask watcher("watcher"), not_ftrace("not_ftrace");
    Framework::Task* other = &not_ftrace;
    struct Case {
        Framework::Task* watcher;
        std::string system, event;
        Framework::Task* consumer;
        std::string error;
    } cases[] = {
        {nullptr, "", "", other, "3 m_watcher is null"},  // checked in this order
        {&watcher, "", "", other, "3 m_system is empty"},
        {&watcher, "sched", "", other, "3 m_event_name is empty"},
        {&watcher, "sched", "sched_switch", other, "3 Task is not FtraceTask"},
        {&watcher, "sched", "sched_switch", nullptr, "3 Task is not FtraceTask"},  // logged, never dereferenced
    };
    for (const Case& c : cases) {
        for (bool remove : {false, true}) {
            FtraceWatchMessage message(c.watcher, c.system, c.event, remove);
            EXPECT_EQ(message.MessageHandle(c.consumer), 1);
            EXPECT_EQ(log->lines(true), std::vector<std::string>{c.error}) << c.system << ":" << c.event;
        }
    }
}
