// The audit helpers: running auditctl, field and quote handling.
#include "AuditUtil.h"

#include "TestSupport.h"

using Engine::LinuxAuditUtil;
using TestSupport::FakeInstallation;

TEST(ExecAuditCmd, RunsTheInstallationsAuditctlWithItsLibraryPathAndArgumentsAsTheyAre)
{
    {
        FakeInstallation install;
        TestSupport::LogCapture log(Poco::Message::PRIO_INFORMATION);
        std::string output;
        EXPECT_TRUE(LinuxAuditUtil::ExecAuditCmd({"-l", "-k", "key1***' ; touch /tmp/hw_x $(id)", "a\tb"}, output));
        EXPECT_EQ(output, "printed-by-auditctl\n");
        EXPECT_EQ(TestSupport::ReadFile(install.dir.path() + "/calls"),
                  install.dir.path() + "/lib\n[-l][-k][key1***' ; touch /tmp/hw_x $(id)][a\tb]\n");
        EXPECT_TRUE(log.channel().Has("Execute cmd audit(" + install.dir.path() + "/bin/auditctl -l -k key1***' ; touch /tmp/hw_x $(id) a\tb), "
                                      "ret(0), result(printed-by-auditctl\n), library path(LD_LIBRARY_PATH=" + install.dir.path() + "/lib)."));
        EXPECT_NE(access("/tmp/hw_x", F_OK), 0);

        // An installation whose path has a blank runs its own auditctl, not a program named by
        // the path's first word.
        TestSupport::TempDir other;
        const std::string blank = other.path() + "/with blank";
        ASSERT_EQ(symlink(install.dir.path().c_str(), blank.c_str()), 0);
        setenv("HOSTWARDEN_HOME", blank.c_str(), 1);
        EXPECT_TRUE(LinuxAuditUtil::ExecAuditCmd({"-s"}));
        EXPECT_EQ(install.Commands().back(), "[-s]");
    }
    {
        FakeInstallation failing(1);
        EXPECT_FALSE(LinuxAuditUtil::ExecAuditCmd({"-D", "-k", "x"}));
        EXPECT_EQ(failing.Commands(), std::vector<std::string>{"[-D][-k][x]"});
    }
    TestSupport::TempDir empty;  // an installation without auditctl
    setenv("HOSTWARDEN_HOME", empty.path().c_str(), 1);
    std::string output = "untouched";
    EXPECT_FALSE(LinuxAuditUtil::ExecAuditCmd({"-l"}, output));
    EXPECT_EQ(output, "untouched");

    setenv("HOSTWARDEN_HOME", "/usr/local/hostwarden", 1);
    char buffer[4096];
    ASSERT_TRUE(LinuxAuditUtil::getLibraryPathEnv(buffer, sizeof(buffer)));
    EXPECT_STREQ(buffer, "LD_LIBRARY_PATH=/usr/local/hostwarden/lib");
    EXPECT_FALSE(LinuxAuditUtil::getLibraryPathEnv(nullptr, sizeof(buffer)));
    EXPECT_FALSE(LinuxAuditUtil::getLibraryPathEnv(buffer, 0));
    setenv("HOSTWARDEN_HOME", ("/" + std::string(5000, 'x')).c_str(), 1);
    EXPECT_FALSE(LinuxAuditUtil::getLibraryPathEnv(buffer, sizeof(buffer)));  // bounded, not overflowed
    unsetenv("HOSTWARDEN_HOME");
}

TEST(FieldHelpers, FieldsQuotesAndNumbers)
{
    // The first substring match, up to a space or the enriched tail.
    const std::tuple<const char*, const char*, const char*> fields[] = {
        {"uid", "auid=1000 uid=0", "1000"},
        {"exe", "comm=\"ls\" exe=\"/usr/bin/ls\"", "/usr/bin/ls"},
        {"key", "op=add_rule key=\"a***b\" list=4 res=1", "a***b"},
        {"res", "op=add_rule list=4 res=0\x1d" "AUID=\"unset\"", "0"},
        {"type", "type=CONFIG_CHANGE msg=audit(1.2:3): op=x", "CONFIG_CHANGE"},
        {"missing", "a=1", ""},
        {"a", "a=", ""}};
    for (const auto& [name, line, value] : fields) {
        EXPECT_EQ(LinuxAuditUtil::GetField(name, line), value) << name << " in " << line;
    }
    // A pair of quotes or a leading one goes; only a leading one is reported.
    const std::tuple<const char*, bool, const char*> quotes[] = {{" \"/usr/bin/cat\" ", true, "/usr/bin/cat"},
                                                                 {"2F746D70", false, "2F746D70"},
                                                                 {"abc\"", false, "abc "},  // its blank stays
                                                                 {"   ", false, ""},
                                                                 {"\"", true, ""}};
    for (const auto& [before, reported, after] : quotes) {
        std::string text = before;
        EXPECT_EQ(LinuxAuditUtil::TrimQuotation(text), reported) << before;
        EXPECT_EQ(text, after) << before;
    }
}
