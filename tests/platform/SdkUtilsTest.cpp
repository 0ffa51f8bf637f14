// SDK utilities: the logging recipe (filtering and message fields) and
// whole-file reads of pseudo files. The CPU budget is checked where the
// reader applies it.
#include <gtest/gtest.h>

#include "SDK/FileUtils.h"
#include "SDK/LoggerUtils.h"
#include "TestSupport.h"

namespace {

TEST(LoggerUtils, WritesWhatTheLevelAdmitsPointingIntoTheCallersFileName) {
    Poco::AutoPtr<test_support::CapturingChannel> channel(new test_support::CapturingChannel);
    Poco::Logger* logger = SDK::LoggerUtils::GetInstance()->GetModuleLogger("sdk_test", true);
    ASSERT_NE(logger, nullptr);
    logger->setChannel(channel);
    logger->setLevel(Poco::Message::PRIO_INFORMATION);
    static const char kFile[] = "/src/native/Reader.cpp";
    SDK::LoggerUtils::Log(logger, Poco::Message::PRIO_DEBUG, "dropped", kFile, 1);
    SDK::LoggerUtils::Log(logger, Poco::Message::PRIO_INFORMATION, "text", kFile, 71);
    SDK::LoggerUtils::Log(nullptr, Poco::Message::PRIO_FATAL, "nowhere", kFile, 1);
    ASSERT_EQ(channel->messages().size(), 1u);
    const Poco::Message m = channel->messages()[0];
    EXPECT_EQ(m.getSource() + " " + m.getText() + " " + std::to_string(m.getSourceLine()), "sdk_test text 71");
    // The message keeps a bare pointer: it must point into the caller's string.
    EXPECT_EQ(m.getSourceFile(), kFile + 12);
    // A module stays silent until the agent configured its logger.
    EXPECT_EQ(SDK::LoggerUtils::GetInstance()->GetModuleLogger("sdk_test_never_made", false), nullptr);
}

TEST(FileUtils, ReadsWholePseudoFilesWithinTheCap) {
    const char* online = "/sys/devices/system/cpu/online";  // stat size 0
    std::string out = "stale";
    EXPECT_EQ(SDK::FileUtils::ReadFile(online, out, 4096), 0);
    EXPECT_NE(out.find('\n'), std::string::npos);
    EXPECT_EQ(SDK::FileUtils::ReadFile(online, out, 1), -2);
    EXPECT_EQ(out, "");
    for (const char* unreadable : {"/tmp", "/nonexistent"}) EXPECT_EQ(SDK::FileUtils::ReadFile(unreadable, out, 100), -1);
}

}  // namespace
