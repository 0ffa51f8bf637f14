// The trace message's entries and text form, and its typed dispatch. (The
// watch request: test_registry.cpp.)
#include <gtest/gtest.h>

#include <sstream>

#include "FtraceMessage.h"
#include "TaskTestSupport.h"

using Engine::FtraceMessage;

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
