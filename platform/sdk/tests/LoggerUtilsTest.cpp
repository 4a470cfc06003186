#include "sdk/LoggerUtils.h"

#include "TestCommon.h"

namespace {

// The agent's log file takes every module's lines; a module with a file of its own also writes
// there, beside it.
TEST(LoggerUtils, AModuleWithAFileOfItsOwnWritesItBesideTheAgentsLog)
{
    const TestSupport::TempDir dir;
    SDK::LoggerUtils::Options options;
    options.console = false;
    options.filePath = dir.path() + "/agent.log";
    SDK::LoggerUtils& logging = SDK::LoggerUtils::GetInstance();
    logging.Configure(options);
    logging.GetModuleLogger("own_module", true)->information("from the module with a file");
    logging.GetModuleLogger("shared_module", false)->information("from the module without");
    const std::string agent = TestSupport::ReadFile(dir.path() + "/agent.log");
    EXPECT_NE(agent.find("from the module with a file"), std::string::npos) << agent;
    EXPECT_NE(agent.find("from the module without"), std::string::npos) << agent;
    EXPECT_EQ(TestSupport::ReadLines(dir.path() + "/own_module.log").size(), 1U);
    EXPECT_FALSE(std::filesystem::exists(dir.path() + "/shared_module.log"));
    logging.Configure(SDK::LoggerUtils::Options());
}

}  // namespace
