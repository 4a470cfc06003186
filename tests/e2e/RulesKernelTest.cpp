// The rule registry and our auditctl against the real kernel. Every key made here contains
// "hwe2e"; each test removes all of them (and its foreign rule) when it ends, pass or fail.
#include "KernelAudit.h"

#include "AuditMessages.h"
#include "AuditRules.h"
#include "AuditUtil.h"

#include <gtest/gtest.h>

#include <unistd.h>

using namespace Engine;

namespace {

const std::string kForeignKey = "hwforeign_key";

class NamedTask : public Framework::Task {
public:
    explicit NamedTask(const std::string& name) : Framework::Task(name, "test", Framework::TaskCondition::kLoop, 8) {}
};

class RulesKernel : public testing::Test {
protected:
    void SetUp() override
    {
        const std::string why = E2E::WhyKernelAuditIsUnusable();
        if (!why.empty()) {
            GTEST_SKIP() << "real-kernel test skipped: " << why;
        }
        install_ = std::make_unique<E2E::TestInstallation>();
    }
    void TearDown() override
    {
        if (install_) {
            E2E::RemoveTestRules(kForeignKey);
            EXPECT_EQ(E2E::ListKernelRules().find(E2E::kTestKeyMarker), std::string::npos) << "a test rule was left behind";
        }
        install_.reset();
    }
    bool AddSyscall(AuditRules& rules, Framework::Task& task, const std::string& tag, const std::string& text)
    {
        AuditSyscallCtrlMessage msg(&task);
        msg.tag = tag;
        msg.operate = "-a";
        msg.rule = text;
        SyscallRule rule;
        EXPECT_EQ(LinuxAuditUtil::auditDistractSyscallRule(msg, rule), 0);
        std::string stripped = text;
        return rules.AddAuditRule(msg, rule, stripped);
    }
    bool AddWatch(AuditRules& rules, Framework::Task& task, const std::string& tag, const std::string& text)
    {
        AuditFileSystemCtrlMessage msg(&task, "", {}, _FileNotifyOpt{});
        msg.tag = tag;
        msg.operate = "-w";
        msg.rule = text;
        FileSystemRule rule;
        EXPECT_EQ(LinuxAuditUtil::auditDistractFilesystemRule(msg, rule), 0);
        std::string stripped = text;
        return rules.AddAuditRule(msg, rule, stripped);
    }
    std::unique_ptr<E2E::TestInstallation> install_;
};

}  // namespace

TEST_F(RulesKernel, AddedRulesAreListedByTheKernelWithTheirKeysAndDeletedOneByOne)
{
    NamedTask task("hwe2e_task");
    AuditRules rules;
    ASSERT_TRUE(AddSyscall(rules, task, "t", "exit,always -S openat -F success=0"));
    ASSERT_TRUE(AddWatch(rules, task, "t", "/tmp -p wa"));
    const std::string listed = E2E::ListKernelRules();
    EXPECT_NE(listed.find("-a always,exit -F arch=b64 -S openat -F success=0 -F key=hwe2e_task***topenatpidppid"),
              std::string::npos)
        << listed;
    EXPECT_NE(listed.find("-w /tmp -p wa -k hwe2e_task***t***/tmp***wapidppid"), std::string::npos) << listed;
    EXPECT_TRUE(rules.AuditctlRuleExist("hwe2e_task***t***/tmp***wapidppid"));

    EXPECT_TRUE(rules.deleteRule("hwe2e_task***topenatpidppid"));
    const std::string after = E2E::ListKernelRules();
    EXPECT_EQ(after.find("topenatpidppid"), std::string::npos) << after;
    EXPECT_NE(after.find("hwe2e_task***t***/tmp***wapidppid"), std::string::npos) << after;
    EXPECT_FALSE(rules.AuditctlRuleExist("hwe2e_task***topenatpidppid"));
}

TEST_F(RulesKernel, PerTaskAndWholeRemovalLeaveForeignRulesInPlace)
{
    ASSERT_EQ(E2E::SystemAuditctl("-a exit,always -F arch=b64 -S chmod -k " + kForeignKey), 0);
    NamedTask first("hwe2e_one_task");
    NamedTask second("hwe2e_two_task");
    AuditRules rules;
    ASSERT_TRUE(AddSyscall(rules, first, "t", "exit,always -S chmod"));
    ASSERT_TRUE(AddSyscall(rules, second, "t", "exit,always -S chmod"));
    ASSERT_TRUE(AddWatch(rules, second, "w", "/tmp -p wa"));

    rules.UnregisterTask("hwe2e_one_task");
    std::string listed = E2E::ListKernelRules();
    EXPECT_EQ(listed.find("hwe2e_one_task"), std::string::npos) << listed;
    EXPECT_NE(listed.find("hwe2e_two_task***tchmodpidppid"), std::string::npos) << listed;
    EXPECT_NE(listed.find(kForeignKey), std::string::npos) << listed;

    rules.DeleteAllRules();
    listed = E2E::ListKernelRules();
    EXPECT_EQ(listed.find("_task***"), std::string::npos) << listed;
    EXPECT_NE(listed.find(kForeignKey), std::string::npos) << listed;
}

TEST_F(RulesKernel, OurAuditctlRemovesKeysContainingTheTextAndNothingElse)
{
    ASSERT_EQ(E2E::SystemAuditctl("-a exit,always -F arch=b64 -S chmod -k " + kForeignKey), 0);
    ASSERT_EQ(E2E::SystemAuditctl("-a exit,always -F arch=b64 -S fchmod -k hwe2e_x_task***a"), 0);
    ASSERT_EQ(E2E::SystemAuditctl("-w /tmp -p w -k hwe2e_plain -k hwe2e_y_task***b"), 0);  // two keys
    ASSERT_EQ(E2E::SystemAuditctl("-w /var/tmp -p w -k hwe2e_keep"), 0);
    std::string output;
    EXPECT_EQ(install_->Auditctl("-D -k _task***", &output), 0) << output;
    const std::string listed = E2E::ListKernelRules();
    EXPECT_EQ(listed.find("hwe2e_x_task"), std::string::npos) << listed;
    EXPECT_EQ(listed.find("hwe2e_plain"), std::string::npos) << listed;
    EXPECT_NE(listed.find("hwe2e_keep"), std::string::npos) << listed;
    EXPECT_NE(listed.find(kForeignKey), std::string::npos) << listed;

    // Anything else goes to the system auditctl, output and status included.
    EXPECT_EQ(install_->Auditctl("-l -k hwe2e_keep", &output), 0);
    EXPECT_NE(output.find("-w /var/tmp -p w -k hwe2e_keep"), std::string::npos) << output;
    EXPECT_NE(install_->Auditctl("-Z", &output), 0);
    EXPECT_NE(install_->Auditctl("-D -k ''", &output), 0) << "an empty text would match every key";
}

TEST_F(RulesKernel, ShellSyntaxInARuleTextNeverRunsAnything)
{
    NamedTask task("hwe2e_task");
    AuditRules rules;
    const std::string marker = "/tmp/hwe2e_injected_" + std::to_string(getpid());
    const std::string texts[] = {"exit,always -S open ; touch " + marker, "exit,always -S open $(touch " + marker + ")",
                                 "exit,always -S open `touch " + marker + "`", "exit,always -S open > " + marker};
    for (const std::string& text : texts) {
        AuditSyscallCtrlMessage msg(&task);
        msg.tag = "x";
        msg.operate = "-a";
        msg.rule = text;
        SyscallRule rule;
        rule.syscalls = {"open"};
        std::string stripped = text;
        EXPECT_FALSE(rules.AddAuditRule(msg, rule, stripped)) << "auditctl refuses the stray words: " << text;
        rules.ruleCommands.clear();
    }
    EXPECT_NE(access(marker.c_str(), F_OK), 0) << "a rule text ran a command";
    std::remove(marker.c_str());
}
