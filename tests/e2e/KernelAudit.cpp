#include "KernelAudit.h"

#include "sdk/DirUtils.h"
#include "sdk/ExecuteCmdUtils.h"

#include <unistd.h>

#include <cstdlib>
#include <stdexcept>

namespace E2E {

int SystemAuditctl(const std::string& args, std::string* output)
{
    std::string scratch;
    return SDK::ExecuteCmdUtils::ExecuteCmd("/usr/sbin/auditctl " + args, output ? *output : scratch, 1 << 20);
}

std::string WhyKernelAuditIsUnusable()
{
    if (geteuid() != 0) {
        return "needs root to change kernel audit rules";
    }
    if (access("/usr/sbin/auditctl", X_OK) != 0) {
        return "auditd is not installed (no /usr/sbin/auditctl)";
    }
    std::string status;
    if (SystemAuditctl("-s", &status) != 0) {
        return "auditctl -s failed: " + status;
    }
    if (status.find("enabled 1") == std::string::npos) {
        return "kernel audit is not enabled";
    }
    if (status.find("\npid 0\n") != std::string::npos) {
        return "auditd is not running";
    }
    return {};
}

std::string ListKernelRules()
{
    std::string rules;
    SystemAuditctl("-l", &rules);
    return rules;
}

TestInstallation::TestInstallation()
{
    char pattern[] = "/tmp/hw_install_XXXXXX";
    if (mkdtemp(pattern) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    home_ = pattern;
    SDK::DirUtils::CreateDirs(home_ + "/bin");
    SDK::DirUtils::CreateDirs(home_ + "/lib");
    if (symlink(HW_AUDITCTL, (home_ + "/bin/auditctl").c_str()) != 0) {
        throw std::runtime_error("cannot link the built auditctl");
    }
    setenv("HOSTWARDEN_HOME", home_.c_str(), 1);
}

TestInstallation::~TestInstallation()
{
    unsetenv("HOSTWARDEN_HOME");
    std::string ignored;
    SDK::ExecuteCmdUtils::ExecuteCmd("rm -rf " + home_, ignored, 4096);
}

int TestInstallation::Auditctl(const std::string& args, std::string* output) const
{
    std::string scratch;
    return SDK::ExecuteCmdUtils::ExecuteCmd(home_ + "/bin/auditctl " + args, output ? *output : scratch, 1 << 20);
}

void RemoveTestRules(const std::string& foreignKey)
{
    std::string ignored;
    SDK::ExecuteCmdUtils::ExecuteCmd(std::string(HW_AUDITCTL) + " -D -k " + kTestKeyMarker, ignored, 4096);
    if (!foreignKey.empty()) {
        SystemAuditctl("-D -k " + foreignKey);
    }
}

}  // namespace E2E
