#include "sdk/PathUtils.h"

#include "TestCommon.h"

namespace {

TEST(PathUtils, APathIsBelowADirectoryOnlyAcrossASlash)
{
    struct Case {
        const char* dir;
        const char* path;
        bool below;
    };
    const Case cases[] = {
        {"/etc", "/etc/passwd", true},   {"/etc", "/etc/ssh/sshd_config", true}, {"/etc", "/etcx", false},
        {"/etc", "/etc", false},         {"/etc/", "/etc/", true},               {"/etc/", "/etc/passwd", true},
        {"/", "/etc", true},             {"", "/etc", true},                     {"", "etc", false},
        {"/etc/ssh", "/etc", false},     {"/a-b", "/a/b", false},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(SDK::PathUtils::IsBelow(c.dir, c.path), c.below) << c.dir << " " << c.path;
    }
}

TEST(PathUtils, TheInstallationIsHostwardenHomeOrTheDirectoryAboveTheProgramsBin)
{
    const char* saved = std::getenv("HOSTWARDEN_HOME");
    const std::string restore = saved != nullptr ? saved : "";
    std::string path;
    setenv("HOSTWARDEN_HOME", "/opt/hw", 1);
    ASSERT_EQ(SDK::PathUtils::GetInstallationPath(path), 0);
    EXPECT_EQ(path, "/opt/hw/") << "always ends in a slash";

    unsetenv("HOSTWARDEN_HOME");
    // This program is <build>/<dir>/<program>: the installation would be <build>/.
    const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe");
    ASSERT_EQ(SDK::PathUtils::GetInstallationPath(path), 0);
    EXPECT_EQ(path, self.parent_path().parent_path().string() + "/");
    if (saved != nullptr) {
        setenv("HOSTWARDEN_HOME", restore.c_str(), 1);
    }
}

}  // namespace
