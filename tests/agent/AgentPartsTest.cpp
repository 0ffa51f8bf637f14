// The agent's parts that need no kernel: its option values, the JSON form of
// a message, and the kernel's loss counters read from an instance's per_cpu
// stats into the summary.
#include <gtest/gtest.h>

#include "AgentOptions.h"
#include "FtraceMessage.h"
#include "InstanceLossReader.h"
#include "MessageFormatter.h"
#include "ReceiveStatistics.h"
#include "TestSupport.h"

TEST(AgentOptionsTest, EventListsAndSecondsAreCheckedWhole) {
    const auto events = Agent::AgentOptions::ParseEventList("a:b,c:d,a:b");  // a repeat counts once
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0].FullName() + "," + events[1].FullName(), "a:b,c:d");
    for (const char* bad : {"", "a", ":b", "a:", "a:b:c", "a:b,"})
        EXPECT_THROW(Agent::AgentOptions::ParseEventList(bad), std::invalid_argument) << bad;
    EXPECT_EQ(Agent::AgentOptions::ParseSeconds("0.5"), 0.5);
    for (const char* bad : {"", "0", "-1", "x", "1x", "inf", "nan"})
        EXPECT_THROW(Agent::AgentOptions::ParseSeconds(bad), std::invalid_argument) << bad;
}

TEST(MessageFormatterTest, JsonAndTextEscapeEveryByteThatIsNotPrintableAscii) {
    const Engine::FtraceMessage message("s:e\"", {{"n\\", 7}, {"m", 0}}, {{"s", std::string("a\"b\\c ~\x7f\xff\0\n", 11)}});
    const Agent::EventFieldTypes types;  // none known: every number unsigned
    std::string json, text;
    Agent::MessageFormatter(types).AppendJson(json, message);
    EXPECT_EQ(json, R"({"name":"s:e\"","numbers":{"m":0,"n\\":7},"strings":{"s":"a\"b\\c ~\u007f\u00ff\u0000\u000a"}})");
    // The text line escapes them too and ends a string at its first NUL.
    Agent::MessageFormatter(types).AppendText(text, message);
    EXPECT_EQ(text, "0.000000 0 s:e\" m=0 n\\\\=7 s=a\"b\\\\c ~\\x7f\\xff\n");
}

TEST(InstanceLossTest, SumsEveryCpusStatsAndTheSummarySaysWhenUnknown) {
    char pattern[] = "/tmp/ftrace_loss_XXXXXX";
    const std::string dir = mkdtemp(pattern);
    const auto summary = [](const Agent::KernelLoss& loss) {
        Agent::ReceiveStatistics statistics;
        statistics.SetKernelLoss(loss);
        std::ostringstream text;
        statistics.Print(text);
        return text.str().substr(text.str().find("  lost in the kernel"));
    };
    test_support::fs::create_directories(dir + "/per_cpu/cpu0");  // without its stats file
    EXPECT_EQ(summary(Agent::InstanceLossReader::Read(dir)),
              "  lost in the kernel (instance ZEV): unknown (per_cpu stats unreadable)\n");
    for (const char* cpu : {"cpu0", "cpu1"})
        test_support::WriteAll(dir + "/per_cpu/" + cpu + "/stats",
                               "entries: 9\noverrun: 3\ncommit overrun: 5\ndropped events: 2\n");
    EXPECT_EQ(summary(Agent::InstanceLossReader::Read(dir)),
              "  lost in the kernel (instance ZEV): overrun 6, dropped events 4\n"
              "  left unread in the kernel at stop (instance ZEV): 18\n");
    test_support::fs::remove_all(dir);
}
