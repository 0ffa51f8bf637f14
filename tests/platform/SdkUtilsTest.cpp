// SDK utilities: the logging recipe (filtering and message fields), whole-file
// reads of pseudo and regular files, and the CPU budget.
#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>
#include <gtest/gtest.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <thread>
#include <vector>

#include "SDK/FileUtils.h"
#include "SDK/InnerCpuCtrlUtils.h"
#include "SDK/LoggerUtils.h"
#include "SDK/TimeUtils.h"

namespace {

class CaptureChannel : public Poco::Channel {
public:
    void log(const Poco::Message& message) override { messages.push_back(message); }
    std::vector<Poco::Message> messages;
};

TEST(LoggerUtils, WritesOnlyWhatTheLevelAdmitsWithTheRecipeFields) {
    const struct {
        int level, priority;
        bool written;
    } cases[] = {{6, 6, true}, {6, 7, false}, {3, 1, true}, {3, 4, false}, {8, 8, true}};
    Poco::AutoPtr<CaptureChannel> channel(new CaptureChannel);
    Poco::Logger* logger = SDK::LoggerUtils::GetInstance()->GetModuleLogger("sdk_test", true);
    ASSERT_NE(logger, nullptr);
    logger->setChannel(channel);
    static const char kFile[] = "/src/native/Reader.cpp";
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "level " << c.level << " priority " << c.priority);
        logger->setLevel(c.level);
        channel->messages.clear();
        EXPECT_EQ(SDK::LoggerUtils::Admits(logger, c.priority), c.written);
        SDK::LoggerUtils::Log(logger, c.priority, "text", kFile, 71);
        ASSERT_EQ(channel->messages.size(), c.written ? 1u : 0u);
        if (!c.written) continue;
        const Poco::Message& m = channel->messages[0];
        EXPECT_EQ(m.getSource(), "sdk_test");
        EXPECT_EQ(m.getText(), "text");
        EXPECT_EQ(m.getPriority(), c.priority);
        EXPECT_EQ(m.getSourceLine(), 71);
        // The message keeps a bare pointer: it must point into the caller's string.
        EXPECT_EQ(m.getSourceFile(), kFile + 12);
        EXPECT_STREQ(m.getSourceFile(), "Reader.cpp");
    }
    SDK::LoggerUtils::Log(nullptr, 1, "nowhere", kFile, 1);
    EXPECT_FALSE(SDK::LoggerUtils::Admits(nullptr, 1));
    EXPECT_EQ(SDK::LoggerUtils::GetInstance()->GetModuleLogger("sdk_test_never_made", false), nullptr);
}

TEST(FileUtils, ReadsWholeFilesWithinTheCap) {
    const std::string path = "/tmp/sdk_test_" + std::to_string(::getpid());
    std::ofstream(path) << "abc";
    const struct {
        std::string path;
        long cap;
        int result;
        const char* content;  // null: any non-empty content
    } cases[] = {
        {path, 3, 0, "abc"},
        {path, 2, -2, ""},
        {path + ".missing", 100, -1, ""},
        {"/tmp", 100, -1, ""},                         // a directory cannot be read
        {"/sys/devices/system/cpu/online", 4096, 0, nullptr},  // stat size 0
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path + " cap " + std::to_string(c.cap));
        std::string out = "stale";
        EXPECT_EQ(SDK::FileUtils::ReadFile(c.path, out, c.cap), c.result);
        if (c.content != nullptr) {
            EXPECT_EQ(out, c.content);
        } else {
            EXPECT_FALSE(out.empty());
        }
    }
    std::remove(path.c_str());
}

uint64_t ThreadCpuMicros() {
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000u + static_cast<uint64_t>(ts.tv_nsec) / 1000u;
}

// A busy thread that adjusts as the reader does (whenever more than the
// suggested run tick passed) gets roughly its budget, far from all the CPU.
TEST(InnerCpuCtrlUtils, KeepsABusyThreadUnderItsBudget) {
    SDK::InnerCpuCtrlUtils::Enable(30);
    ASSERT_TRUE(SDK::InnerCpuCtrlUtils::IsEnabled());
    double share = 1.0;
    std::thread busy([&] {
        const uint64_t wall_start = SDK::TimeUtils::GetCurrentSystemTickUsed();
        const uint64_t cpu_start = ThreadCpuMicros();
        uint64_t last = 0, now = wall_start;
        volatile uint64_t sink = 0;
        while (now - wall_start < 1500000) {
            for (int i = 0; i < 10000; ++i) sink = sink + static_cast<uint64_t>(i);
            now = SDK::TimeUtils::GetCurrentSystemTickUsed();
            const uint64_t elapsed = now > last ? now - last : last - now;
            if (elapsed > SDK::InnerCpuCtrlUtils::GetSuggestedRunTick()) {
                SDK::InnerCpuCtrlUtils::AdjustThreadCpu(__FILE__, __LINE__, "busy", now, elapsed);
                last = now;
            }
        }
        share = static_cast<double>(ThreadCpuMicros() - cpu_start) /
                static_cast<double>(SDK::TimeUtils::GetCurrentSystemTickUsed() - wall_start);
    });
    busy.join();
    EXPECT_LT(share, 0.6);
    EXPECT_GT(SDK::InnerCpuCtrlUtils::GetTotalThrottledMicros(), 0u);

    SDK::InnerCpuCtrlUtils::Disable();
    EXPECT_FALSE(SDK::InnerCpuCtrlUtils::IsEnabled());
    const uint64_t now = SDK::TimeUtils::GetCurrentSystemTickUsed();
    EXPECT_EQ(SDK::InnerCpuCtrlUtils::AdjustThreadCpu(__FILE__, __LINE__, "idle", now, 1000000), 0u);
}

}  // namespace
