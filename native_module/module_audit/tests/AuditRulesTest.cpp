// The rule registry against a recording auditctl: the commands it runs and the keys it keeps.
#include "AuditUtil.h"

#include "TestSupport.h"

using namespace Engine;
using TestSupport::FakeInstallation;
using TestSupport::NamedTask;

TEST(RuleKeys, AWatchKeyCarriesItsPathAndAnAddItsDeleteForm)
{
    FileSystemRule fs;
    std::tie(fs.path, fs.perm, fs.key) = std::make_tuple("/tmp/fx/watched", "wa", "k");
    EXPECT_EQ(getRuleKey("filewatch_audit_task", "submodule", fs), "filewatch_audit_task***submodule***/tmp/fx/watched***wapidppidk");
    EXPECT_EQ(getRuleKey("net_task", "net", SyscallRule{}), "") << "no system call, no key";
    EXPECT_EQ(getFilepathFromKey("net_task***netconnectpidppid"), "");
    EXPECT_EQ(getFilepathFromKey("t***a***b***c***d"), "b");
    EXPECT_EQ(getDeleteRuleStr("-D") + getDeleteRuleStr("-"), "-D-");
}

TEST(AuditRules, InstallsSyscallRulesWithAnArchAndSharesOneKeyPerSubscription)
{
    FakeInstallation install;
    NamedTask task("net_task");
    AuditRules rules;
    TestSupport::SyscallSub open(&task, "t", "exit,always -S open");
    EXPECT_TRUE(open.AddTo(rules));
    EXPECT_EQ(open.stripped, "exit,always -F arch=b64  -S open");
    const std::string key = "net_task***topenpidppid";
    EXPECT_EQ(rules.ruleCommands.at(key), "-a exit,always -F arch=b64 -S open -k " + key);
    TestSupport::SyscallSub same(&task, "t", "exit,always -S open,close -F success=1");  // same first syscall
    EXPECT_FALSE(same.AddTo(rules));
    EXPECT_TRUE(TestSupport::SyscallSub(&task, "t", "exit,always -F arch=b32 -S chmod").AddTo(rules));
    EXPECT_EQ(install.Commands(), (std::vector<std::string>{"[-a][exit,always][-F][arch=b64][-S][open][-k][" + key + "]",
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
    TestSupport::WatchSub watch(&task, "tag", "/tmp/fx/watched -p wa");
    EXPECT_TRUE(watch.AddTo(rules));
    const std::string key = "fw_task***tag***/tmp/fx/watched***wapidppid";
    EXPECT_EQ(install.Commands().back(), "[-w][/tmp/fx/watched][-p][wa][-k][" + key + "]");
    TestSupport::WatchSub docker(&task, "d", "/var/run/docker.sock -p rwa -F ppid=42");
    EXPECT_TRUE(docker.AddTo(rules));
    const std::string dockerRule = "[exit,always][-F][path=/var/run/docker.sock][-F][ppid=42][-k][fw_task***d***/var/run/docker.sock***rwapidppid42]";
    EXPECT_EQ(install.Commands().back(), "[-a]" + dockerRule);
    rules.DeleteAuditRule(docker.msg, docker.rule);
    EXPECT_EQ(install.Commands().back(), "[-d]" + dockerRule);
    rules.DeleteAuditRule(watch.msg, watch.rule);
    EXPECT_EQ(install.Commands().back(), "[-W][/tmp/fx/watched][-p][wa][-k][" + key + "]");
}

TEST(AuditRules, AFailedAddKeepsItsCommandForALaterReAddAndKeysAreLookedUpInTheKernel)
{
    {
        FakeInstallation failing(1);
        NamedTask task("x_task");
        AuditRules rules;
        EXPECT_FALSE(TestSupport::SyscallSub(&task, "t", "exit,always -S open").AddTo(rules));
        ASSERT_TRUE(rules.RuleExists("x_task***topenpidppid"));
        rules.ReAddRule("x_task***topenpidppid");
        ASSERT_EQ(failing.Commands().size(), 2U);
        EXPECT_EQ(failing.Commands()[0], failing.Commands()[1]);
        EXPECT_THROW(rules.ReAddRule("unknown"), std::out_of_range);
        rules.ReAddRule("");  // nothing
        EXPECT_EQ(failing.Commands().size(), 2U);
    }
    const std::string key = "fw_task***t***/x***wapidppid";
    {
        FakeInstallation listing(0, "-w /x -p wa -k " + key);
        EXPECT_TRUE(AuditRules().AuditctlRuleExist(key));
        EXPECT_EQ(listing.Commands().back(), "[-l][-k][" + key + "]");
    }
}

TEST(AuditRules, RemovesPerTaskByNamePrefixAndAllAtOnce)
{
    FakeInstallation install;
    NamedTask audit("audit");
    NamedTask auditTask("audit_task");
    NamedTask other("net_task");
    AuditRules rules;
    for (NamedTask* task : {&audit, &auditTask, &other}) {
        TestSupport::SyscallSub(task, "t", "exit,always -S open").AddTo(rules);
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

TEST(AuditRules, WaitsForWatchedPathsAndInstallsThemWhenTheyAppear)
{
    FakeInstallation install;
    TestSupport::LogCapture log(Poco::Message::PRIO_INFORMATION);
    TestSupport::TempDir dir;
    NamedTask task("fw_task");
    AuditRules rules;
    const std::string file = dir.path() + "/later";
    const std::string subdir = dir.path() + "/dirlater";
    TestSupport::WatchSub fileWatch(&task, "t", file + " -p wa");
    TestSupport::WatchSub dirWatch(&task, "t", subdir + " -p wa");
    fileWatch.AddTo(rules);
    dirWatch.AddTo(rules);
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
