// Watch requests against the real kernel: which request is refused, which
// enables or disables an event in the instance "ZEV" (made, then removed, by
// the task), what it logs and returns, and what the registry holds
// afterwards; the pid filter as the kernel takes it; and how much one drain
// of a CPU reads.

#include "FtraceTask.h"
#include "FtraceWatchMessage.h"
#include "TaskTestSupport.h"
#include "TracefsTest.h"

using WatchRegistryTest = TracefsTest;

TEST_F(WatchRegistryTest, EnableOnEveryNewSubscriberDisableOnLast) {
    auto log = test_support::CaptureFtraceLog(Poco::Message::PRIO_INFORMATION);
    const std::set<std::string> none;
    tasktest::PlainTask a("A"), b("B");
    const std::string sys = "sched", event = "sched_process_fork", known = "sched:sched_process_fork";
    const std::string nul("sched\0x", 7);
    {
        Engine::FtraceTask task;
        ASSERT_TRUE(task.ftrace().tracefs().IsValid());
        log->lines(true);
        struct Step {
            tasktest::PlainTask* who;
            bool remove;
            std::string system, event;
            int result;
            std::vector<std::string> lines;
            std::string enable;                 // of the known event afterwards
            std::set<std::string> subscribers;  // of the step's key afterwards
        };
        const std::vector<Step> steps = {
            // Checked in this order, before anything else.
            {nullptr, false, "", "", 1, {"3 m_watcher is null"}, "0", none},
            {&a, true, "", "", 1, {"3 m_system is empty"}, "0", none},
            {&a, false, sys, "", 1, {"3 m_event_name is empty"}, "0", none},
            {&a, false, sys, event, 0, {"6 Setting event: " + known}, "1", {"A"}},
            {&b, false, sys, event, 0, {"6 Setting event: " + known}, "1", {"A", "B"}},
            {&a, false, sys, event, 1, {"6 Task A already registered to " + known}, "1", {"A", "B"}},
            {&b, true, sys, event, 0, {}, "1", {"A"}},
            {&b, true, sys, event, 0, {"6 Task B was not registered to " + known}, "1", {"A"}},
            {&a, true, sys, event, 0, {}, "0", {}},
            {&a, false, sys, event, 0, {"6 Setting event: " + known}, "1", {"A"}},
            {&a, true, sys, event, 0, {}, "0", {}},
            // Names are not checked: they lead through the events directory, the
            // line for set_event takes the format's name (the kernel refuses the
            // system "sched/../sched" there), and a NUL ends a name for the kernel
            // only. Two keys of one event: the first to empty switches it off
            // under the other's subscriber.
            {&b, false, nul, event, 0, {"6 Setting event: " + nul + ":" + event}, "1", {"B"}},
            {&a, false, "sched/../sched", event, 0,
             {"6 Setting event: sched/../sched:" + event, "3 Ftrace::append write file {" + kZev + "/set_event} err"},
             "1", {"A"}},
            {&a, true, "sched/../sched", event, 0, {}, "0", {}},
            {&b, true, nul, event, 0, {}, "0", {}},
            {&a, false, sys, "sched_wakeup/../" + event, 0, {"6 Setting event: sched:sched_wakeup/../" + event}, "1", {"A"}},
            {&a, true, sys, "sched_wakeup/../" + event, 0, {}, "0", {}},
            // An unknown event stays registered.
            {&a, false, "nosys", "noevent", 1,
             {"6 Setting event: nosys:noevent", "3 Invalid event: nosys:noevent"}, "0", {"A"}},
            {&a, false, "nosys", "noevent", 1, {"6 Task A already registered to nosys:noevent"}, "0", {"A"}},
            {&a, true, "nosys", "noevent", 1, {}, "0", {}},
            {&b, true, "never", "existed", 0, {"6 Task B was not registered to never:existed"}, "0", none},
        };
        for (size_t i = 0; i < steps.size(); ++i) {
            const Step& s = steps[i];
            SCOPED_TRACE("step " + std::to_string(i));
            EXPECT_EQ(Engine::FtraceWatchMessage(s.who, s.system, s.event, s.remove).MessageHandle(&task), s.result);
            EXPECT_EQ(log->lines(true), s.lines);
            EXPECT_EQ(Enabled(event), s.enable);
            const auto key = task.watches().find({s.system, s.event});
            EXPECT_EQ(key == task.watches().end() ? none : key->second, s.subscribers);
        }
        // Only the ftrace task takes watch requests, only receivers take trace
        // messages; a missing task is logged, never dereferenced.
        for (Framework::Task* consumer : {static_cast<Framework::Task*>(&b), static_cast<Framework::Task*>(nullptr)}) {
            EXPECT_EQ(Engine::FtraceWatchMessage(&b, sys, event, false).MessageHandle(consumer), 1);
            EXPECT_EQ(Engine::FtraceMessage(known).MessageHandle(consumer), -1);
        }
        EXPECT_EQ(log->lines(true), std::vector<std::string>(2, "3 Task is not FtraceTask"));

        // The pid filter as the kernel keeps it; the last removal writes nothing
        // and leaves the kernel's list empty.
        Ftrace& ftrace = task.ftrace();
        const std::string pids = kZev + "/set_event_pid", self = std::to_string(getpid());
        for (int pid : {1, static_cast<int>(getpid())}) ftrace.event_filter_add_pid(pid);
        ftrace.event_filter_rmv_pid(1);
        EXPECT_EQ(Read(pids), self + "\n");
        ftrace.event_filter_rmv_pid(getpid());
        EXPECT_EQ(Read(pids), "");
        EXPECT_EQ(log->lines(true), std::vector<std::string>{});

        // clear() switches off every key, emptied ones included, and empties the registry.
        EXPECT_EQ(task.AddWatch(&b, sys, event), 0);
        EXPECT_EQ(Enabled(event), "1");
        task.clear();
        EXPECT_TRUE(task.watches().empty());
        EXPECT_EQ(Enabled(event), "0");
    }
}

// One drain of a CPU reads everything its buffer held when the drain began,
// however full: after trace_marker lines overfilled the buffers, one drain
// of each CPU leaves nothing unread.
TEST_F(WatchRegistryTest, OneDrainEmptiesAFullBuffer) {
    Engine::FtraceTask task;
    ASSERT_EQ(task.Init(), 0);
    // No host configuration: the kernel's watermark stays.
    EXPECT_EQ(Read(kZev + "/buffer_percent"), "50\n");
    const int marker = open((kZev + "/trace_marker").c_str(), O_WRONLY | O_CLOEXEC);
    const std::string line(200, 'x');
    for (int i = 0; i < 20000; ++i) ASSERT_EQ(write(marker, line.data(), line.size()), 200);
    close(marker);
    for (FtracePerCPUReader* reader : task.readers()) {
        const std::string cpu = kZev + "/per_cpu/cpu" + std::to_string(reader->cpu());
        const int pipe = open((cpu + "/trace_pipe_raw").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        task.read_ftrace_event(pipe, ~0u, reader);
        close(pipe);
        EXPECT_EQ(Read(cpu + "/stats").rfind("entries: 0\n", 0), 0u) << cpu;
    }
}
