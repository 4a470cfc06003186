#include "AuditMessages.h"
#include "AuditRules.h"
#include "AuditUtil.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <unistd.h>

using namespace Engine;
using TestSupport::NamedTask;
using TestSupport::FakeInstallation;

namespace {

struct SyscallSub {
    AuditSyscallCtrlMessage msg;
    SyscallRule rule;
    std::string stripped;
    SyscallSub(Framework::Task* sender, const std::string& tag, const std::string& text)
    {
        msg.sender = sender;
        msg.tag = tag;
        msg.operate = "-a";
        msg.rule = text;
        LinuxAuditUtil::auditDistractSyscallRule(msg, rule);
        stripped = text.substr(0, text.find(" -k"));
    }
};

struct WatchSub {
    AuditFileSystemCtrlMessage msg{nullptr, "", {}, _FileNotifyOpt{}};
    FileSystemRule rule;
    std::string stripped;
    WatchSub(Framework::Task* sender, const std::string& tag, const std::string& text)
    {
        msg.sender = sender;
        msg.tag = tag;
        msg.operate = "-w";
        msg.rule = text;
        LinuxAuditUtil::auditDistractFilesystemRule(msg, rule);
        stripped = text;
    }
};

}  // namespace

TEST(RuleKeys, BothLayoutsStartWithTheTaskName)
{
    SyscallRule sys;
    sys.syscalls = {"connect", "open"};
    sys.ppid = "9";
    EXPECT_EQ(getRuleKey("net_task", "net", sys), "net_task***netconnectpidppid9");
    EXPECT_EQ(getRuleKey("net_task", "net", SyscallRule{}), "");
    FileSystemRule fs;
    fs.path = "/tmp/fx/watched";
    fs.perm = "wa";
    fs.key = "k";
    EXPECT_EQ(getRuleKey("filewatch_audit_task", "submodule", fs),
              "filewatch_audit_task***submodule***/tmp/fx/watched***wapidppidk");
    EXPECT_EQ(getFilepathFromKey("filewatch_audit_task***submodule***/tmp/fx/watched***wapidppid"), "/tmp/fx/watched");
    EXPECT_EQ(getFilepathFromKey("net_task***netconnectpidppid"), "");
    EXPECT_EQ(getFilepathFromKey("t***a***b***c***d"), "b");
    EXPECT_EQ(getDeleteRuleStr("-a exit,always -S open"), "-d exit,always -S open");
    EXPECT_EQ(getDeleteRuleStr("-w /etc -p wa"), "-W /etc -p wa");
    EXPECT_EQ(getDeleteRuleStr("-D"), "-D");
    EXPECT_EQ(getDeleteRuleStr("-"), "-");
}

TEST(AuditRules, InstallsSyscallRulesWithAnArchAndSharesOneKeyPerSubscription)
{
    FakeInstallation install;
    NamedTask task("net_task");
    AuditRules rules;
    SyscallSub open(&task, "t", "exit,always -S open");
    EXPECT_TRUE(rules.AddAuditRule(open.msg, open.rule, open.stripped));
    EXPECT_EQ(open.stripped, "exit,always -F arch=b64  -S open");
    const std::string key = "net_task***topenpidppid";
    EXPECT_EQ(rules.ruleCommands.at(key), "-a exit,always -F arch=b64  -S open -k " + key);

    SyscallSub same(&task, "t", "exit,always -S open,close -F success=1");  // same first syscall
    EXPECT_FALSE(rules.AddAuditRule(same.msg, same.rule, same.stripped));
    SyscallSub b32(&task, "t", "exit,always -F arch=b32 -S chmod");
    EXPECT_TRUE(rules.AddAuditRule(b32.msg, b32.rule, b32.stripped));
    EXPECT_EQ(install.Commands(), (std::vector<std::string>{
                                      "[-a][exit,always][-F][arch=b64][-S][open][-k][" + key + "]",
                                      "[-a][exit,always][-F][arch=b32][-S][chmod][-k][net_task***tchmodpidppid]"}));

    EXPECT_TRUE(rules.DeleteAuditRule(same.msg, same.rule));  // removes the shared rule for both
    EXPECT_FALSE(rules.RuleExists(key));
    EXPECT_EQ(install.Commands().back(), "[-d][exit,always][-F][arch=b64][-S][open][-k][" + key + "]");
    EXPECT_THROW(rules.DeleteAuditRule(open.msg, open.rule), std::out_of_range);
    EXPECT_FALSE(rules.deleteRule(""));
}

TEST(AuditRules, InstallsWatchesAndTheDockerSocketForm)
{
    FakeInstallation install;
    NamedTask task("fw_task");
    AuditRules rules;
    WatchSub watch(&task, "tag", "/tmp/fx/watched -p wa");
    EXPECT_TRUE(rules.AddAuditRule(watch.msg, watch.rule, watch.stripped));
    const std::string key = "fw_task***tag***/tmp/fx/watched***wapidppid";
    EXPECT_EQ(install.Commands().back(), "[-w][/tmp/fx/watched][-p][wa][-k][" + key + "]");

    WatchSub docker(&task, "d", "/var/run/docker.sock -p rwa -F ppid=42");
    EXPECT_TRUE(rules.AddAuditRule(docker.msg, docker.rule, docker.stripped));
    const std::string dockerKey = "fw_task***d***/var/run/docker.sock***rwapidppid42";
    EXPECT_EQ(install.Commands().back(),
              "[-a][exit,always][-F][path=/var/run/docker.sock][-F][ppid=42][-k][" + dockerKey + "]");
    rules.DeleteAuditRule(docker.msg, docker.rule);
    EXPECT_EQ(install.Commands().back(),
              "[-d][exit,always][-F][path=/var/run/docker.sock][-F][ppid=42][-k][" + dockerKey + "]");
    rules.DeleteAuditRule(watch.msg, watch.rule);
    EXPECT_EQ(install.Commands().back(), "[-W][/tmp/fx/watched][-p][wa][-k][" + key + "]");
}

TEST(AuditRules, AFailedAddKeepsItsCommandForALaterReAdd)
{
    FakeInstallation failing(1);
    NamedTask task("x_task");
    AuditRules rules;
    SyscallSub sub(&task, "t", "exit,always -S open");
    EXPECT_FALSE(rules.AddAuditRule(sub.msg, sub.rule, sub.stripped));
    ASSERT_TRUE(rules.RuleExists("x_task***topenpidppid"));
    rules.ReAddRule("x_task***topenpidppid");
    EXPECT_EQ(failing.Commands().size(), 2U);
    EXPECT_EQ(failing.Commands()[0], failing.Commands()[1]);
    EXPECT_THROW(rules.ReAddRule("unknown"), std::out_of_range);
    rules.ReAddRule("");  // nothing
    EXPECT_EQ(failing.Commands().size(), 2U);
}

TEST(AuditRules, RemovesPerTaskByNamePrefixAndAllAtOnce)
{
    FakeInstallation install;
    NamedTask audit("audit");
    NamedTask auditTask("audit_task");
    NamedTask other("net_task");
    AuditRules rules;
    for (Framework::Task* task : {static_cast<Framework::Task*>(&audit), static_cast<Framework::Task*>(&auditTask),
                                  static_cast<Framework::Task*>(&other)}) {
        SyscallSub sub(task, "t", "exit,always -S open");
        rules.AddAuditRule(sub.msg, sub.rule, sub.stripped);
    }
    rules.UnregisterTask("audit");
    EXPECT_EQ(install.Commands().back(), "[-D][-k][audit***]");
    // The prefix test takes audit_task's entries out of the map too, though auditctl leaves its rule.
    EXPECT_EQ(rules.ruleCommands.size(), 1U);
    EXPECT_TRUE(rules.RuleExists("net_task***topenpidppid"));

    rules.scanPaths.insert("/waiting");
    EXPECT_TRUE(rules.DeleteAllRules());
    EXPECT_EQ(install.Commands().back(), "[-D][-k][_task***]");
    EXPECT_TRUE(rules.ruleCommands.empty());
    EXPECT_EQ(rules.scanPaths.size(), 1U);  // waiting paths stay
}

TEST(AuditRules, AsksTheKernelListForAKey)
{
    NamedTask task("fw_task");
    {
        FakeInstallation listing(0, "-w /x -p wa -k fw_task***t***/x***wapidppid");
        AuditRules rules;
        EXPECT_TRUE(rules.AuditctlRuleExist("fw_task***t***/x***wapidppid"));
        EXPECT_EQ(listing.Commands().back(), "[-l][-k][fw_task***t***/x***wapidppid]");
    }
    FakeInstallation empty(0, "No rules");
    AuditRules rules;
    EXPECT_FALSE(rules.AuditctlRuleExist("fw_task***t***/x***wapidppid"));
}

TEST(AuditRules, WaitsForWatchedPathsAndInstallsThemWhenTheyAppear)
{
    FakeInstallation install;
    TestSupport::LogCapture log(Poco::Message::PRIO_INFORMATION);
    TestSupport::TempDir dir;
    NamedTask task("fw_task");
    AuditRules rules;
    const std::string file = dir.path() + "/later";
    const std::string subdir = dir.path() + "/dirlater";
    WatchSub fileWatch(&task, "t", file + " -p wa");
    WatchSub dirWatch(&task, "t", subdir + " -p wa");
    rules.AddAuditRule(fileWatch.msg, fileWatch.rule, fileWatch.stripped);
    rules.AddAuditRule(dirWatch.msg, dirWatch.rule, dirWatch.stripped);
    const std::string fileKey = getRuleKey("fw_task", "t", fileWatch.rule);
    rules.AddToScanFilePath(fileKey);
    rules.AddToScanFilePath(fileKey);  // once only
    rules.AddToScanFilePath(getRuleKey("fw_task", "t", dirWatch.rule));
    EXPECT_EQ(rules.scanPaths, (std::set<std::string>{file, subdir}));
    EXPECT_TRUE(log.channel().Has("Add (" + file + ") to scan path set."));

    const size_t before = install.Commands().size();
    rules.ScanCreatedFilepath();
    EXPECT_EQ(install.Commands().size(), before);  // nothing exists yet

    dir.Write("later", "x");
    mkdir(subdir.c_str(), 0755);  // a directory counts as existing
    rules.ScanCreatedFilepath();
    EXPECT_TRUE(rules.scanPaths.empty());
    EXPECT_TRUE(log.channel().Has("(" + file + ") is exist, add audit rule."));
    const std::vector<std::string> commands = install.Commands();
    ASSERT_EQ(commands.size(), before + 4);  // each: delete form, then the add again
    EXPECT_EQ(commands[before + 1], "[-w][" + subdir + "][-p][wa][-k][" + getRuleKey("fw_task", "t", dirWatch.rule) + "]");
    EXPECT_EQ(commands[before + 2], "[-W][" + file + "][-p][wa][-k][" + fileKey + "]");
    EXPECT_EQ(commands[before + 3], "[-w][" + file + "][-p][wa][-k][" + fileKey + "]");
}

TEST(AuditRules, ShellSyntaxInARuleTextReachesAuditctlAsPlainWords)
{
    FakeInstallation install;
    NamedTask task("x_task");
    AuditRules rules;
    const std::string marker = "/tmp/hw_rule_injection_" + std::to_string(getpid());
    SyscallSub sub(&task, "t", "exit,always -S open ; touch " + marker + " $(touch " + marker + ") `touch " + marker +
                                   "` > " + marker);
    rules.AddAuditRule(sub.msg, sub.rule, sub.stripped);
    ASSERT_FALSE(install.Commands().empty());
    EXPECT_NE(install.Commands().back().find("[;][touch][" + marker + "][$(touch]"), std::string::npos)
        << install.Commands().back();
    EXPECT_NE(access(marker.c_str(), F_OK), 0) << "a rule text ran a command";
}
