// The SDK's logging recipe (filtering and message fields). Whole-file reads
// of pseudo files are checked through the CPU list, the CPU budget where the
// reader applies it.
#include <gtest/gtest.h>

#include "SDK/LoggerUtils.h"
#include "TestSupport.h"

namespace {

TEST(LoggerUtils, WritesWhatTheLevelAdmitsPointingIntoTheCallersFileName) {
    Poco::AutoPtr<test_support::CapturingChannel> channel(new test_support::CapturingChannel);
    Poco::Logger* logger = SDK::LoggerUtils::GetInstance()->GetModuleLogger("sdk_test", true);
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

}  // namespace
