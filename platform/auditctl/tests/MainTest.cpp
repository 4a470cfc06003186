// Our auditctl as a program: what it says and its status when it cannot do what it is asked,
// without changing the kernel's rules (it runs without the right to).
#include "TestCommon.h"

#include <unistd.h>

namespace {

// The program's arguments, run without audit rights: as nobody when this test runs as root.
std::vector<std::string> Unprivileged(std::vector<std::string> args)
{
    if (geteuid() == 0) {
        args.insert(args.begin(), {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"});
    }
    return args;
}

}  // namespace

TEST(AuditctlMain, AKeyRemovalWithoutAuditRightsOrWithoutAKeyFailsAndSaysWhy)
{
    TestSupport::Program denied(Unprivileged({HW_AUDITCTL, "-D", "-k", "no_task***"}));
    EXPECT_EQ(denied.Wait(), 1);
    EXPECT_EQ(denied.err.rfind("auditctl: cannot ask the kernel for its rules: ", 0), 0U) << denied.err;

    TestSupport::Program empty({HW_AUDITCTL, "-D", "-k", ""});
    EXPECT_EQ(empty.Wait(), 2);
    EXPECT_EQ(empty.err, "auditctl: -D -k needs a non-empty key text\n");
}
