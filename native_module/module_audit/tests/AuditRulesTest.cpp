// The rule registry against a recording auditctl: the commands it runs and the keys it keeps.
#include "AuditUtil.h"
#include "sdk/AuditRuleText.h"

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
    EXPECT_EQ(rules.ruleCommands.at(key), (AuditctlArgs{"-a", "exit,always", "-F", "arch=b64", "-S", "open", "-k", key}));
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

// A failed add waits; a rule is added again only when the kernel's listing lacks its key, and the
// listing is asked once for all keys.
TEST(AuditRules, AFailedAddWaitsAndARuleIsPutBackOnlyWhenTheKernelLacksIt)
{
    const std::string key = "x_task***topenpidppid";
    const std::string other = "x_task***tchmodpidppid";
    NamedTask task("x_task");
    AuditRules rules;
    {
        FakeInstallation failing(1);
        EXPECT_FALSE(TestSupport::SyscallSub(&task, "t", "exit,always -S open").AddTo(rules));
        EXPECT_TRUE(rules.RuleExists(key));
        EXPECT_EQ(rules.Waiting(), std::set<std::string>{key});
    }
    {
        FakeInstallation install;
        TestSupport::SyscallSub(&task, "t", "exit,always -S chmod").AddTo(rules);
    }
    const std::string add = "[-a][exit,always][-F][arch=b64][-S][open][-k][" + key + "]";
    {
        FakeInstallation listed(0, "-a always,exit -F arch=b64 -S open -F key=" + key + "\n-w /x -p wa -k " + other);
        EXPECT_TRUE(rules.ReAddMissing({key, other, "unregistered"}).empty());
        EXPECT_EQ(listed.Commands(), std::vector<std::string>{"[-l]"});
    }
    {
        FakeInstallation missing(0, "-a always,exit -F arch=b64 -S open -F key=" + key + "2");  // another key
        EXPECT_TRUE(rules.ReAddMissing({key}).empty());
        EXPECT_EQ(missing.Commands(), (std::vector<std::string>{"[-l]", add}));
    }
    {
        FakeInstallation refusing(1);
        EXPECT_EQ(rules.ReAddMissing({key, "unregistered"}), std::set<std::string>{key}) << "no listing: it waits";
    }

    // What waits without a path to watch is tried again by time alone.
    AuditRules retrying(50);
    {
        FakeInstallation failing(1);
        EXPECT_FALSE(TestSupport::SyscallSub(&task, "t", "exit,always -S open").AddTo(retrying));
    }
    FakeInstallation later(0, "No rules");
    EXPECT_TRUE(TestSupport::WaitUntil([&] { return retrying.Waiting().empty(); }));
    EXPECT_EQ(later.Commands().back(), add);
    EXPECT_TRUE(retrying.DeleteAllRules());
    EXPECT_EQ(SDK::AuditRuleListingKeys("-w /x -p wa -k a***b\n-a always,exit -S open -F key=k2 \nNo rules\n"),
              (std::set<std::string>{"a***b", "k2"}));
}

// A watch whose directory was removed comes back as soon as the directory does, however deep the
// removal went: the keeper watches the nearest directory that still exists (the retry by time is
// set too far off to be what brings it back here).
TEST(AuditRules, AWatchWhoseDirectoryWentIsPutBackWhenTheDirectoryReturns)
{
    FakeInstallation kernel(-1, "");
    TestSupport::TempDir dir;
    NamedTask task("fw_task");
    TestSupport::LogCapture log(Poco::Message::PRIO_WARNING);
    AuditRules rules(600000);
    const std::string file = dir.path() + "/a/b/file";
    TestSupport::WatchSub watch(&task, "t", file + " -p wa");
    EXPECT_FALSE(watch.AddTo(rules));
    const std::string key = getRuleKey("fw_task", "t", watch.rule);
    EXPECT_EQ(rules.Waiting(), std::set<std::string>{key});
    ASSERT_EQ(mkdir((dir.path() + "/a").c_str(), 0755), 0);
    ASSERT_EQ(mkdir((dir.path() + "/a/b").c_str(), 0755), 0);
    ASSERT_TRUE(TestSupport::WaitUntil([&] { return rules.Waiting().empty(); }, 5));
    EXPECT_EQ(kernel.Commands().back(), "[-w][" + file + "][-p][wa][-k][" + key + "]");

    // Removed again (the kernel drops the rule and logs it): the log reader's check makes it wait.
    const size_t runs = kernel.Commands().size();
    ASSERT_EQ(rmdir((dir.path() + "/a/b").c_str()), 0);
    rules.CheckRule(key, true);
    rules.CheckRule(key, true);  // coalesced with the first: one listing, one add
    ASSERT_TRUE(TestSupport::WaitUntil([&] { return kernel.Commands().size() == runs + 2; }, 5));
    EXPECT_EQ(rules.Waiting(), std::set<std::string>{key});
    ASSERT_EQ(mkdir((dir.path() + "/a/b").c_str(), 0755), 0);
    ASSERT_TRUE(TestSupport::WaitUntil([&] { return rules.Waiting().empty(); }, 5));
    EXPECT_TRUE(rules.DeleteAllRules());
    for (const std::string& text : log.channel().Texts()) {
        EXPECT_NE(text.rfind("Watch (", 0), 0U) << "the keeper's watches were made: " << text;
    }
}

// While a round puts a rule back, a refused add of it is that round's own, but a removal may
// have come after the round's listing: it asks for another round.
TEST(AuditRules, ARemovalReportedDuringAPutBackAsksAgain)
{
    FakeInstallation kernel(0, "No rules");
    NamedTask task("x_task");
    AuditRules rules;
    ASSERT_TRUE(TestSupport::SyscallSub(&task, "t", "exit,always -S open").AddTo(rules));
    const std::string key = "x_task***topenpidppid";
    const auto round = [&](bool removed, size_t calls) {
        const size_t before = kernel.Commands().size();
        kernel.HoldListings(true);
        rules.CheckRule(key, true);
        EXPECT_TRUE(TestSupport::WaitUntil([&] { return kernel.Commands().size() == before + 1; })) << "listing";
        rules.CheckRule(key, removed);  // while the round lists
        kernel.HoldListings(false);
        EXPECT_TRUE(TestSupport::WaitUntil([&] { return rules.Waiting().empty() && kernel.Commands().size() >= before + calls; }));
        EXPECT_EQ(kernel.Commands().size(), before + calls) << (removed ? "removed" : "refused");
    };
    round(false, 2);  // a listing and an add
    round(true, 4);   // and a second round
    EXPECT_TRUE(rules.DeleteAllRules());
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

    EXPECT_TRUE(rules.DeleteAllRules());
    EXPECT_EQ(install.Commands().back(), "[-D][-k][_task***]");
    EXPECT_TRUE(rules.ruleCommands.empty());
}
