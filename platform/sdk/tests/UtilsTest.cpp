#include "sdk/BoundedStr.h"
#include "sdk/LoggerUtils.h"
#include "sdk/PathUtils.h"
#include "sdk/StrUtils.h"

#include "TestCommon.h"

using SDK::StrUtils;

TEST(StrUtils, SplitKeepsEmptyPiecesAndHandlesLongSeparators)
{
    using V = std::vector<std::string>;
    EXPECT_EQ(StrUtils::Split("open,,openat", ","), (V{"open", "", "openat"}));
    EXPECT_EQ(StrUtils::Split("", " "), (V{""}));
    EXPECT_EQ(StrUtils::Split(" a ", " "), (V{"", "a", ""}));
    EXPECT_EQ(StrUtils::Split("t***tag***/p***wa", "***"), (V{"t", "tag", "/p", "wa"}));
    EXPECT_EQ(StrUtils::Split("a****b", "***"), (V{"a", "*b"}));
    EXPECT_EQ(StrUtils::Split("abc", ""), (V{"abc"}));
}

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

TEST(PathUtils, InstallationPathComesFromTheEnvironmentOrTheProgramAndEndsInSlash)
{
    std::string path;
    for (const char* home : {"/opt/hw", "/opt/hw/"}) {
        setenv("HOSTWARDEN_HOME", home, 1);
        ASSERT_EQ(SDK::PathUtils::GetInstallationPath(path), 0);
        EXPECT_EQ(path, "/opt/hw/") << home;
    }
    unsetenv("HOSTWARDEN_HOME");
    // This test program lives in <build>/platform/sdk/tests/: its "installation" is the folder
    // above the program's own folder.
    ASSERT_EQ(SDK::PathUtils::GetInstallationPath(path), 0);
    EXPECT_EQ(path, std::string(HW_BINARY_DIR) + "/platform/sdk/");
    EXPECT_EQ(SDK::PathUtils::GetFileNameFromPath("/a/b/AuditLog.cpp"), "AuditLog.cpp");
    EXPECT_EQ(SDK::PathUtils::GetFileNameFromPath("plain"), "plain");
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
