// Our auditctl against the real kernel. Every key made here contains "hwe2e"; the base fixture
// removes all of them when a test ends.
#include "KernelAudit.h"

namespace {

const std::string kForeignKey = "hwe2e_foreign";

class RulesKernel : public E2E::KernelTest {};

}  // namespace

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
