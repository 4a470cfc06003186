#include "sdk/BoundedStr.h"
#include "sdk/LoggerUtils.h"

#include "TestCommon.h"

TEST(BoundedStr, OverlongResultsFailInsteadOfOverflowing)
{
    char buf[8];
    EXPECT_EQ(SDK::strcpy_s(buf, sizeof(buf), "1234567"), 0);
    EXPECT_STREQ(buf, "1234567");
    EXPECT_EQ(SDK::strcpy_s(buf, sizeof(buf), "12345678"), -1);
    EXPECT_STREQ(buf, "");
    EXPECT_EQ(SDK::strcpy_s(buf, sizeof(buf), nullptr), -1);
    EXPECT_EQ(SDK::snprintf_s(buf, sizeof(buf), "%d-%s", 12, "ab"), 5);
    EXPECT_STREQ(buf, "12-ab");
    EXPECT_EQ(SDK::snprintf_s(buf, sizeof(buf), "%s", "too long!"), -1);
    EXPECT_STREQ(buf, "");
}

// The agent configures logging at start and again from its configuration file.
TEST(LoggerUtils, ReconfiguringKeepsEveryChannelAliveAndMakesTheLogDirectory)
{
    TestSupport::TempDir dir;
    SDK::LoggerUtils::Options options;
    options.console = false;
    options.filePath = dir.path() + "/sub/agent.log";
    SDK::LoggerUtils::GetInstance().Configure(options);
    Poco::Logger::get("first").information("one");
    SDK::LoggerUtils::GetInstance().Configure(options);
    Poco::Logger::get("first").information("two");
    Poco::Logger::get("second").information("three");
    SDK::LoggerUtils::GetInstance().Configure(SDK::LoggerUtils::Options{});  // back to the console
    const std::string text = TestSupport::ReadFile(options.filePath);
    for (const char* line : {"one", "two", "three"}) {
        EXPECT_NE(text.find(std::string(" ") + line + "\n"), std::string::npos) << text;
    }
}
