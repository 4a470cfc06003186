// The rule registry and our auditctl against the real kernel. Every key made here contains
// "hwe2e"; the base fixture removes all of them (and the foreign rule) when a test ends.
#include "KernelAudit.h"

#include "AuditMessages.h"
#include "AuditRules.h"
#include "AuditUtil.h"

#include "TestSupport.h"

using namespace Engine;

namespace {

const std::string kForeignKey = "hwe2e_foreign";

class RulesKernel : public E2E::KernelTest {};

}  // namespace

TEST_F(RulesKernel, RulesAreListedWithTheirKeysAndRemovedPerRulePerTaskOrAllLeavingForeignOnes)
{
    ASSERT_EQ(E2E::SystemAuditctl("-a exit,always -F arch=b64 -S chmod -k " + kForeignKey), 0);
    TestSupport::NamedTask first("hwe2e_one_task");
    TestSupport::NamedTask second("hwe2e_two_task");
    AuditRules rules;
    TestSupport::SyscallSub openat(&first, "t", "exit,always -S openat -F success=0");
    ASSERT_TRUE(rules.AddAuditRule(openat.msg, openat.rule, openat.stripped));
    TestSupport::SyscallSub chmod(&second, "t", "exit,always -S chmod");
    ASSERT_TRUE(rules.AddAuditRule(chmod.msg, chmod.rule, chmod.stripped));
    TestSupport::WatchSub watch(&second, "t", dir_ + " -p wa");
    ASSERT_TRUE(rules.AddAuditRule(watch.msg, watch.rule, watch.stripped));
    const std::string watchKey = "hwe2e_two_task***t***" + dir_ + "***wapidppid";
    std::string listed = E2E::ListKernelRules();
    EXPECT_NE(listed.find("-a always,exit -F arch=b64 -S openat -F success=0 -F key=hwe2e_one_task***topenatpidppid"), std::string::npos)
        << listed;
    EXPECT_NE(listed.find("-w " + dir_ + " -p wa -k " + watchKey), std::string::npos) << listed;
    EXPECT_TRUE(rules.AuditctlRuleExist(watchKey));

    EXPECT_TRUE(rules.deleteRule("hwe2e_one_task***topenatpidppid"));
    EXPECT_FALSE(rules.AuditctlRuleExist("hwe2e_one_task***topenatpidppid"));
    rules.UnregisterTask("hwe2e_two_task");
    listed = E2E::ListKernelRules();
    EXPECT_EQ(listed.find("hwe2e_two_task"), std::string::npos) << listed;
    ASSERT_TRUE(rules.AddAuditRule(chmod.msg, chmod.rule, chmod.stripped));
    rules.DeleteAllRules();
    listed = E2E::ListKernelRules();
    EXPECT_EQ(listed.find("_task***"), std::string::npos) << listed;
    EXPECT_NE(listed.find(kForeignKey), std::string::npos) << listed;
}

TEST_F(RulesKernel, OurAuditctlRemovesKeysContainingTheTextAndPassesAnythingElseOn)
{
    ASSERT_EQ(E2E::SystemAuditctl("-a exit,always -F arch=b64 -S chmod -k " + kForeignKey), 0);
    ASSERT_EQ(E2E::SystemAuditctl("-a exit,always -F arch=b64 -S fchmod -k hwe2e_x_task***a"), 0);
    ASSERT_EQ(E2E::SystemAuditctl("-w /tmp -p w -k hwe2e_plain -k hwe2e_y_task***b"), 0);  // two keys
    ASSERT_EQ(E2E::SystemAuditctl("-w /var/tmp -p w -k hwe2e_keep"), 0);
    std::string output;
    EXPECT_EQ(Auditctl("-D -k _task***", &output), 0) << output;
    const std::string listed = E2E::ListKernelRules();
    EXPECT_EQ(listed.find("hwe2e_x_task"), std::string::npos) << listed;
    EXPECT_EQ(listed.find("hwe2e_plain"), std::string::npos) << listed;
    EXPECT_NE(listed.find("hwe2e_keep"), std::string::npos) << listed;
    EXPECT_NE(listed.find(kForeignKey), std::string::npos) << listed;

    EXPECT_EQ(Auditctl("-l -k hwe2e_keep", &output), 0);
    EXPECT_NE(output.find("-w /var/tmp -p w -k hwe2e_keep"), std::string::npos) << output;
    EXPECT_NE(Auditctl("-Z", &output), 0);
    EXPECT_NE(Auditctl("-D -k ''", &output), 0) << "an empty text would match every key";
}
