// The watch registry against the real kernel: which request enables or
// disables an event in the instance "ZEV", what it logs and returns, and what
// the registry holds afterwards. Also watch requests handled directly by the task.
#include <gtest/gtest.h>

#include "FtraceTask.h"
#include "FtraceWatchMessage.h"
#include "TaskTestSupport.h"

using tasktest::EnableState;

namespace {

class NamedTask : public Framework::Task {
public:
    explicit NamedTask(const std::string& name)
        : Framework::Task(name, "test_feature", Framework::TaskCondition::TASK_TYPE_NORMAL, 16) {}
    int Run() override { return 0; }
};

const std::string kSys = "sched";
const std::string kEvent = "sched_process_fork";
const std::string kKnown = "sched:sched_process_fork";

}  // namespace

TEST(WatchRegistryTest, EnableOnEveryNewSubscriberDisableOnLast) {
    const bool existed = tasktest::Exists(tasktest::kInstanceDir);
    auto log = tasktest::CaptureFtraceLog(Poco::Message::PRIO_INFORMATION);
    NamedTask a("A"), b("B");
    {
        Engine::FtraceTask task;
        ASSERT_TRUE(task.ftrace().tracefs().IsValid());
        log->take();
        struct Step {
            NamedTask* who;
            bool remove;
            std::string system, event;
            int result;
            std::vector<std::string> lines;
            std::string enable;                    // of the known event afterwards
            std::set<std::string> subscribers;     // of the step's key afterwards
        };
        const std::vector<Step> steps = {
            {&a, false, kSys, kEvent, 0, {"6 Setting event: " + kKnown}, "1", {"A"}},
            {&b, false, kSys, kEvent, 0, {"6 Setting event: " + kKnown}, "1", {"A", "B"}},
            {&a, false, kSys, kEvent, 1, {"6 Task A already registered to " + kKnown}, "1", {"A", "B"}},
            {&b, true, kSys, kEvent, 0, {}, "1", {"A"}},
            {&b, true, kSys, kEvent, 0, {"6 Task B was not registered to " + kKnown}, "1", {"A"}},
            {&a, true, kSys, kEvent, 0, {}, "0", {}},
            {&a, false, kSys, kEvent, 0, {"6 Setting event: " + kKnown}, "1", {"A"}},
            {&a, true, kSys, kEvent, 0, {}, "0", {}},
            {&a, false, "nosys", "noevent", 1,
             {"6 Setting event: nosys:noevent", "3 Invalid event: nosys:noevent"}, "0", {"A"}},
            {&a, false, "nosys", "noevent", 1, {"6 Task A already registered to nosys:noevent"}, "0", {"A"}},
            {&a, true, "nosys", "noevent", 1, {}, "0", {}},
        };
        for (size_t i = 0; i < steps.size(); ++i) {
            const Step& s = steps[i];
            const int result = s.remove ? task.RemoveWatch(s.who, s.system, s.event)
                                        : task.AddWatch(s.who, s.system, s.event);
            EXPECT_EQ(result, s.result) << "step " << i;
            EXPECT_EQ(log->take(), s.lines) << "step " << i;
            EXPECT_EQ(EnableState(kSys, kEvent), s.enable) << "step " << i;
            EXPECT_EQ(task.watches().at({s.system, s.event}), s.subscribers) << "step " << i;
        }

        // Unknown key: logged, not an error, and no entry appears.
        EXPECT_EQ(task.RemoveWatch(&b, "never", "existed"), 0);
        EXPECT_EQ(log->take(), std::vector<std::string>{"6 Task B was not registered to never:existed"});
        EXPECT_EQ(task.watches().count({"never", "existed"}), 0u);

        // clear() switches off every key, emptied ones included, and empties the registry.
        EXPECT_EQ(task.AddWatch(&b, kSys, kEvent), 0);
        EXPECT_EQ(EnableState(kSys, kEvent), "1");
        task.clear();
        EXPECT_TRUE(task.watches().empty());
        EXPECT_EQ(EnableState(kSys, kEvent), "0");
    }
    EXPECT_EQ(tasktest::Exists(tasktest::kInstanceDir), existed);
}

TEST(WatchRegistryTest, WatchRequestsHandledByTheTask) {
    const bool existed = tasktest::Exists(tasktest::kInstanceDir);
    auto log = tasktest::CaptureFtraceLog(Poco::Message::PRIO_INFORMATION);
    NamedTask a("A"), other("other");
    {
        Engine::FtraceTask task;
        ASSERT_TRUE(task.ftrace().tracefs().IsValid());
        Framework::Task* self = &task;
        const std::string set_event_file = tasktest::kInstanceDir + "/set_event";
        const std::string before = tasktest::ReadText(set_event_file);
        log->take();
        struct Case {
            Framework::Task* watcher;
            std::string system, event;
            bool remove;
            Framework::Task* consumer;
            int result;
            std::string last_line;
        };
        const std::vector<Case> cases = {
            {nullptr, kSys, kEvent, false, self, 1, "3 m_watcher is null"},
            {&a, "", kEvent, false, self, 1, "3 m_system is empty"},
            {&a, kSys, "", false, self, 1, "3 m_event_name is empty"},
            {&a, kSys, kEvent, false, &other, 1, "3 Task is not FtraceTask"},
            {&a, kSys, "../../x", false, self, 1, "3 Invalid event: sched:../../x"},
            {&a, "../../x", "y", false, self, 1, "3 Invalid event: ../../x:y"},
            {&a, "..", "..", false, self, 1, "3 Invalid event: ..:.."},
            {&a, kSys, kEvent, true, self, 0, "6 Task A was not registered to " + kKnown},
        };
        for (const Case& c : cases) {
            Engine::FtraceWatchMessage message(c.watcher, c.system, c.event, c.remove);
            EXPECT_EQ(message.MessageHandle(c.consumer), c.result) << c.system << ":" << c.event;
            const std::vector<std::string> lines = log->take();
            ASSERT_FALSE(lines.empty());
            EXPECT_EQ(lines.back(), c.last_line);
            EXPECT_EQ(tasktest::ReadText(set_event_file), before);
            EXPECT_EQ(task.watches().count({kSys, kEvent}), 0u);
        }
        // A valid request still goes through.
        Engine::FtraceWatchMessage subscribe(&a, kSys, kEvent, false);
        EXPECT_EQ(subscribe.MessageHandle(self), 0);
        EXPECT_EQ(EnableState(kSys, kEvent), "1");
        Engine::FtraceWatchMessage unsubscribe(&a, kSys, kEvent, true);
        EXPECT_EQ(unsubscribe.MessageHandle(self), 0);
        EXPECT_EQ(EnableState(kSys, kEvent), "0");
    }
    EXPECT_EQ(tasktest::Exists(tasktest::kInstanceDir), existed);
}
