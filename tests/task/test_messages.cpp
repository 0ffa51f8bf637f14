// The trace message's entries and text form, typed dispatch, and the watch
// request's validation, all without a kernel.
#include <gtest/gtest.h>

#include <sstream>

#include "FtraceWatchMessage.h"
#include "TaskTestSupport.h"

using Engine::FtraceMessage;
using Engine::FtraceWatchMessage;

namespace {

class PlainTask : public Framework::Task {
public:
    explicit PlainTask(const std::string& name)
        : Framework::Task(name, "test_feature", Framework::TaskCondition::TASK_TYPE_NORMAL, 16) {}
    int Run() override { return 0; }
};

std::string Text(const FtraceMessage& message) {
    std::ostringstream out;
    out << message;
    return out.str();
}

}  // namespace

TEST(FtraceMessageTest, EntriesAndTextForm) {
    struct Case {
        const char* what;
        std::function<void(FtraceMessage&)> fill;
        std::string text;
    };
    const std::vector<Case> cases = {
        {"empty", [](FtraceMessage&) {}, "sched:sched_switch "},
        {"numbers before strings, keys sorted",
         [](FtraceMessage& m) {
             m.add("prev_comm", std::string("bash"));
             m.add("timestamp", 5UL);
             m.add("prev_pid", 7UL);
         },
         "sched:sched_switch prev_pid: 7, timestamp: 5, prev_comm: bash, "},
        {"first value wins",
         [](FtraceMessage& m) {
             m.add("k", 1UL);
             m.add("k", 2UL);
             m.add("s", std::string("first"));
             m.add("s", std::string("second"));
         },
         "sched:sched_switch k: 1, s: first, "},
        {"same key in both maps, empty key first",
         [](FtraceMessage& m) {
             m.add("k", std::string("text"));
             m.add("k", 3UL);
             m.add("", 0UL);
         },
         "sched:sched_switch : 0, k: 3, k: text, "},
    };
    for (const Case& c : cases) {
        FtraceMessage message("sched:sched_switch");
        c.fill(message);
        EXPECT_EQ(Text(message), c.text) << c.what;
    }

    FtraceMessage message("x");
    message.add("n", 1UL);
    message.add("n", 2UL);
    message.add("s", std::string("a"));
    EXPECT_EQ(message.get_number("n"), 1UL);
    EXPECT_EQ(message.get_number("missing"), 0UL);
    EXPECT_EQ(message.get_string("s"), "a");
    EXPECT_EQ(message.get_string("missing"), "");
    EXPECT_EQ(&message.get_string("missing"), &FtraceMessage("y").get_string("other"));
    std::ostringstream hex;
    hex << std::hex << message;
    EXPECT_EQ(hex.str(), "x n: 1, s: a, ");
}

TEST(FtraceMessageTest, MessageHandleReachesOnlyReceivers) {
    tasktest::Subscriber receiver("receiver");
    PlainTask plain("plain");
    auto message = std::make_shared<FtraceMessage>("sched:sched_switch");
    std::shared_ptr<Framework::Message> base = message;
    EXPECT_EQ(base->MessageHandle(nullptr), -1);
    EXPECT_EQ(base->MessageHandle(static_cast<Framework::Task*>(&plain)), -1);
    receiver.InterceptMsg(base);
    EXPECT_EQ(base->MessageHandle(static_cast<Framework::Task*>(&receiver)), 0);
    EXPECT_EQ(receiver.Find([](const FtraceMessage&) { return true; }), message);
}

TEST(FtraceWatchMessageTest, ValidationOrderAndWrongConsumer) {
    auto log = tasktest::CaptureFtraceLog(Poco::Message::PRIO_TRACE);
    PlainTask watcher("watcher");
    PlainTask consumer_task("not_ftrace");
    Framework::Task* consumer = &consumer_task;
    struct Case {
        Framework::Task* watcher;
        std::string system, event;
        void* context;
        std::vector<std::string> lines;
    };
    const std::string enter = "7 FtraceWatchMessage::MessageHandle: Enter";
    const std::vector<Case> cases = {
        {nullptr, "", "", consumer, {enter, "3 m_watcher is null"}},
        {&watcher, "", "", consumer, {enter, "3 m_system is empty"}},
        {&watcher, "sched", "", consumer, {enter, "3 m_event_name is empty"}},
        {&watcher, "sched", "sched_switch", consumer,
         {enter, "7 Message is valid", "7 FtraceWatchMessage::MessageHandle: About to cast 1",
          "7 FtraceWatchMessage::MessageHandle: About to cast 2: not_ftrace", "3 Task is not FtraceTask"}},
        {&watcher, "sched", "sched_switch", nullptr,
         {enter, "7 Message is valid", "7 FtraceWatchMessage::MessageHandle: About to cast 1",
          "7 FtraceWatchMessage::MessageHandle: About to cast 2: ", "3 Task is not FtraceTask"}},
    };
    for (const Case& c : cases) {
        for (bool remove : {false, true}) {
            FtraceWatchMessage message(c.watcher, c.system, c.event, remove);
            EXPECT_EQ(log->take(), std::vector<std::string>{"7 FtraceWatchMessage::FtraceWatchMessage: Enter"});
            EXPECT_EQ(message.MessageHandle(c.context), 1);
            EXPECT_EQ(log->take(), c.lines) << c.system << ":" << c.event;
        }
    }
    EXPECT_EQ(Engine::kFileNotifyName, "filenotify");
    EXPECT_EQ(Engine::kFileWatchName, "filewatch");
    EXPECT_EQ(Engine::kNamespaceKinds, (std::set<std::string>{"ipc", "mnt", "net", "pid", "user", "uts"}));
}
