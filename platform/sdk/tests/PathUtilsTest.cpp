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

}  // namespace
