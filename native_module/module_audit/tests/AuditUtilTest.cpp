#include "AuditUtil.h"

#include "TestSupport.h"

#include "container/ContainerMetaInfo.h"
#include "framework/Engine.h"
#include "framework/Module.h"
#include "framework/Task.h"

#include <gtest/gtest.h>

#include <fstream>

using Engine::LinuxAuditUtil;

using TestSupport::FakeInstallation;

TEST(ExecAuditCmd, RunsTheInstallationsAuditctlWithItsLibraryPathAndNoShell)
{
    FakeInstallation install;
    TestSupport::LogCapture log(Poco::Message::PRIO_INFORMATION);
    std::string output;
    EXPECT_TRUE(LinuxAuditUtil::ExecAuditCmd("-l -k 'key1***' ; touch /tmp/hw_x $(id)", output));
    EXPECT_EQ(output, "printed-by-auditctl\n");
    EXPECT_EQ(install.Calls(), install.dir.path() + "/lib\n[-l][-k][key1***][;][touch][/tmp/hw_x][$(id)]\n");
    const std::string command = install.dir.path() + "/bin/auditctl -l -k 'key1***' ; touch /tmp/hw_x $(id)";
    EXPECT_TRUE(log.channel().Has("Execute cmd audit(" + command + "), ret(0), result(printed-by-auditctl\n), library path(LD_LIBRARY_PATH=" +
                                  install.dir.path() + "/lib)."));
    EXPECT_NE(access("/tmp/hw_x", F_OK), 0);
}

TEST(ExecAuditCmd, ReportsFailureForANonZeroStatusOrAMissingProgram)
{
    {
        FakeInstallation failing(1);
        EXPECT_FALSE(LinuxAuditUtil::ExecAuditCmd("-D -k x"));
        EXPECT_EQ(failing.Commands(), std::vector<std::string>{"[-D][-k][x]"});
    }
    TestSupport::TempDir empty;
    setenv("HOSTWARDEN_HOME", empty.path().c_str(), 1);
    std::string output = "untouched";
    EXPECT_FALSE(LinuxAuditUtil::ExecAuditCmd("-l", output));
    EXPECT_EQ(output, "untouched");  // nothing ran
    unsetenv("HOSTWARDEN_HOME");
}

TEST(LibraryPathEnv, IsTheInstallationsLibDirectory)
{
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

TEST(GetField, TakesTheFirstSubstringMatchUpToASpaceOrTheEnrichedTail)
{
    EXPECT_EQ(LinuxAuditUtil::GetField("uid", "auid=1000 uid=0"), "1000");
    EXPECT_EQ(LinuxAuditUtil::GetField("exe", "comm=\"ls\" exe=\"/usr/bin/ls\""), "/usr/bin/ls");
    EXPECT_EQ(LinuxAuditUtil::GetField("key", "op=add_rule key=\"a***b\" list=4 res=1"), "a***b");
    EXPECT_EQ(LinuxAuditUtil::GetField("res", "op=add_rule list=4 res=0\x1d" "AUID=\"unset\""), "0");
    EXPECT_EQ(LinuxAuditUtil::GetField("type", "type=CONFIG_CHANGE msg=audit(1.2:3): op=x"), "CONFIG_CHANGE");
    EXPECT_EQ(LinuxAuditUtil::GetField("missing", "a=1"), "");
    EXPECT_EQ(LinuxAuditUtil::GetField("a", "a="), "");
}

TEST(TrimQuotation, RemovesAPairOrALeadingQuoteAndReportsOnlyTheLeadingOne)
{
    std::string text = " \"/usr/bin/cat\" ";
    EXPECT_TRUE(LinuxAuditUtil::TrimQuotation(text));
    EXPECT_EQ(text, "/usr/bin/cat");
    text = "2F746D70";
    EXPECT_FALSE(LinuxAuditUtil::TrimQuotation(text));
    EXPECT_EQ(text, "2F746D70");
    text = "abc\"";
    EXPECT_FALSE(LinuxAuditUtil::TrimQuotation(text));
    EXPECT_EQ(text, "abc ");  // the closing quote alone leaves its blank behind
    text = "   ";
    EXPECT_FALSE(LinuxAuditUtil::TrimQuotation(text));
    EXPECT_EQ(text, "");
    text = "\"";
    EXPECT_TRUE(LinuxAuditUtil::TrimQuotation(text));
    EXPECT_EQ(text, "");
}

TEST(HexHelpers, PrefixAndDecimalNormalisation)
{
    std::string text = "cid:abc";
    LinuxAuditUtil::TrimPrefix(text, "cid:");
    EXPECT_EQ(text, "abc");
    LinuxAuditUtil::TrimPrefix(text, "cid:");
    EXPECT_EQ(text, "abc");

    const std::pair<std::string, std::string> cases[] = {
        {"255", "ff"}, {"0xFF", "FF"}, {"-1", "ffffffff"}, {"10", "a"}, {"0", "0"}, {"2147483647", "7fffffff"},
        {"-2147483648", "80000000"}, {"0x", ""}};
    for (const auto& [in, out] : cases) {
        std::string value = in;
        LinuxAuditUtil::toHexString(value);
        EXPECT_EQ(value, out) << in;
    }
    std::string bad = "abc";
    EXPECT_THROW(LinuxAuditUtil::toHexString(bad), std::invalid_argument);
    std::string big = "4294967296";
    EXPECT_THROW(LinuxAuditUtil::toHexString(big), std::out_of_range);
}

TEST(GetSyscallMsg, FindsTheSyscallRecordOrHandsAnEmptyMap)
{
    TestSupport::LogCapture log;
    SDK::AuditParser parser;
    parser.FeedLine("type=SYSCALL msg=audit(1.000:1): arch=c000003e syscall=2");
    parser.Flush();
    SDK::AuditEvent event = parser.GetEvents()[0];
    SDK::AuditFields& fields = LinuxAuditUtil::getSyscallMsg(event);
    EXPECT_EQ(fields.Get("syscall"), "2");
    fields.Set("exe", "/bin/x");  // callers write decoded values back
    EXPECT_EQ(event.FindRecord("SYSCALL")->Get("exe"), "/bin/x");

    SDK::AuditEvent none;
    SDK::AuditFields& empty = LinuxAuditUtil::getSyscallMsg(none);
    EXPECT_TRUE(empty.empty());
    empty.Set("dirt", "x");
    EXPECT_TRUE(LinuxAuditUtil::getSyscallMsg(none).empty()) << "emptied again before each return";
    EXPECT_TRUE(log.channel().Has("can not get syscall record"));
}

TEST(IsChildFileNoRecursive, AcceptsDirectChildrenOnly)
{
    EXPECT_TRUE(Engine::IsChildFileNoRecursive("/etc", "/etc/passwd"));
    EXPECT_FALSE(Engine::IsChildFileNoRecursive("/etc", "/etc/ssh/sshd_config"));
    EXPECT_FALSE(Engine::IsChildFileNoRecursive("/etc/", "/etc/passwd"));
    EXPECT_FALSE(Engine::IsChildFileNoRecursive("/etc", "/etcx"));
    EXPECT_FALSE(Engine::IsChildFileNoRecursive("/etc", "/etc"));
    EXPECT_FALSE(Engine::IsChildFileNoRecursive("", "/etc"));
    EXPECT_TRUE(Engine::IsChildFileNoRecursive("/etc", "/etc/"));  // an empty last component
}

TEST(RealPathOrEmpty, ResolvesOrKeepsWhatResolvedBeforeAMissingComponent)
{
    TestSupport::TempDir dir;
    dir.Write("real/file", "x");
    symlink((dir.path() + "/real").c_str(), (dir.path() + "/link").c_str());
    EXPECT_EQ(LinuxAuditUtil::RealPathOrEmpty(nullptr), "");
    EXPECT_EQ(LinuxAuditUtil::RealPathOrEmpty((dir.path() + "/link/file").c_str()), dir.path() + "/real/file");
    const std::string partial = LinuxAuditUtil::RealPathOrEmpty((dir.path() + "/link/missing").c_str());
    EXPECT_TRUE(partial.empty() || partial.rfind(dir.path(), 0) == 0) << partial;
    EXPECT_EQ(LinuxAuditUtil::RealPathOrEmpty((dir.path() + "/real/file/notdir").c_str()), "");  // ENOTDIR
}

namespace {

class ProviderTask : public Framework::Task, public Framework::ContainerMetaInfo {
public:
    ProviderTask() : Framework::Task(Framework::kContainerCollectTaskName, "container", Framework::TaskCondition::kLoop, 8) {}
    bool GetContainerInfoById(const std::string&, std::shared_ptr<Framework::ContainerInfo>&) override { return false; }
    bool GetContainerInfoByPid(int, std::shared_ptr<Framework::ContainerInfo>&) override { return false; }
};

class ProviderModule : public Framework::Module {
public:
    ProviderModule() : Framework::Module("container_module") {}
    int Init() override { return RegisterTask(new ProviderTask, true); }
};

}  // namespace

TEST(GetContainerMeta, LooksTheProviderUpOnTheFirstNineCallsOnly)
{
    Framework::Engine engine;
    LinuxAuditUtil::ResetContainerMetaCache();
    for (int i = 0; i < 9; ++i) {
        EXPECT_EQ(LinuxAuditUtil::GetContainerMeta(), nullptr);
    }
    // The provider appears now, but the nine look-ups are spent.
    ASSERT_EQ(engine.AddModule(std::make_unique<ProviderModule>()), 0);
    ASSERT_EQ(engine.StartTasks(), 0);
    ASSERT_NE(engine.FindTask(Framework::kContainerCollectTaskName), nullptr);
    EXPECT_EQ(LinuxAuditUtil::GetContainerMeta(), nullptr);

    // A fresh start finds it at once and keeps it.
    LinuxAuditUtil::ResetContainerMetaCache();
    Framework::ContainerMetaInfo* provider = LinuxAuditUtil::GetContainerMeta();
    ASSERT_NE(provider, nullptr);
    EXPECT_EQ(dynamic_cast<Framework::Task*>(provider), engine.FindTask(Framework::kContainerCollectTaskName));
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(LinuxAuditUtil::GetContainerMeta(), provider);
    }
    engine.StopAll();
    LinuxAuditUtil::ResetContainerMetaCache();
}
