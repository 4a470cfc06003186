#include "sdk/LoggerUtils.h"

#include "TestCommon.h"

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
