#include "AuditRules.h"

#include "AuditConstants.h"
#include "AuditLogging.h"
#include "AuditMessages.h"
#include "AuditUtil.h"
#include "RuleKey.h"

#include "sdk/AuditRuleText.h"
#include "sdk/StrUtils.h"

namespace Engine {

namespace {

const std::string kDockerSocket = "/var/run/docker.sock";
const AuditctlArgs kAllModuleRules = {"-D", "-k", "_task***"};
constexpr size_t kListingBytes = 4 << 20;  // the whole rule list, however many rules there are

// The rule text's words after the operation word, then -k key.
AuditctlArgs Arguments(const std::string& operate, const std::string& text, const std::string& key)
{
    AuditctlArgs args{operate};
    for (std::string& word : LinuxAuditUtil::RuleWords(text)) {
        args.push_back(std::move(word));
    }
    args.insert(args.end(), {"-k", key});
    return args;
}

}  // namespace

std::string getRuleKey(const std::string& taskName, const std::string& tag, const SyscallRule& rule)
{
    if (rule.syscalls.empty()) {
        return {};
    }
    return SyscallRuleKey(taskName, tag, rule.syscalls.front(), rule.pid, rule.ppid);
}

std::string getRuleKey(const std::string& taskName, const std::string& tag, const FileSystemRule& rule)
{
    return FileRuleKey(taskName, tag, rule.path, rule.perm, rule.pid, rule.ppid, rule.key);
}

std::string getFilepathFromKey(const std::string& key)
{
    const std::vector<std::string> pieces = SDK::StrUtils::Split(key, kKeySeparator);
    return pieces.size() < 4 ? std::string() : pieces[2];
}

std::string getDeleteRuleStr(std::string command)
{
    if (command.size() >= 2) {
        if (command[1] == 'a') {
            command[1] = 'd';
        } else if (command[1] == 'w') {
            command[1] = 'W';
        }
    }
    return command;
}

AuditctlArgs DeleteForm(AuditctlArgs args)
{
    if (!args.empty()) {
        args.front() = getDeleteRuleStr(args.front());
    }
    return args;
}

bool AuditRules::Install(const std::string& key, AuditctlArgs args)
{
    std::lock_guard<std::mutex> lock(kernelMutex_);
    AuditctlArgs& stored = ruleCommands[key];
    if (!stored.empty()) {
        return false;
    }
    stored = std::move(args);  // kept even when auditctl fails, so a later re-add can use it
    if (LinuxAuditUtil::ExecAuditCmd(stored)) {
        return true;
    }
    keeper_.Wait(key);
    return false;
}

bool AuditRules::AddAuditRule(const AuditSyscallCtrlMessage& msg, const SyscallRule& rule, std::string& stripped)
{
    const std::string key = getRuleKey(SenderName(msg.sender), msg.tag, rule);
    if (rule.arch.empty()) {
        // Every installed syscall rule names its architecture.
        const size_t space = stripped.find(' ');
        stripped.insert(space == std::string::npos ? stripped.size() : space, " -F arch=b64 ");
    }
    return Install(key, Arguments(msg.operate, LinuxAuditUtil::SyscallNamesForAuditctl(stripped, rule.arch), key));
}

bool AuditRules::AddAuditRule(const AuditFileSystemCtrlMessage& msg, const FileSystemRule& rule, std::string& stripped)
{
    const std::string key = getRuleKey(SenderName(msg.sender), msg.tag, rule);
    // A watch on the docker socket becomes a syscall-exit rule on that path for the subscriber's ppid.
    return Install(key, rule.path == kDockerSocket ? AuditctlArgs{"-a", "exit,always", "-F", "path=" + kDockerSocket, "-F",
                                                                  "ppid=" + rule.ppid, "-k", key}
                                                   : Arguments(msg.operate, stripped, key));
}

bool AuditRules::DeleteAuditRule(const AuditSyscallCtrlMessage& msg, const SyscallRule& rule)
{
    return deleteRule(getRuleKey(SenderName(msg.sender), msg.tag, rule));
}

bool AuditRules::DeleteAuditRule(const AuditFileSystemCtrlMessage& msg, const FileSystemRule& rule)
{
    return deleteRule(getRuleKey(SenderName(msg.sender), msg.tag, rule));
}

bool AuditRules::deleteRule(const std::string& key)
{
    if (key.empty()) {
        return false;
    }
    std::lock_guard<std::mutex> lock(kernelMutex_);
    const AuditctlArgs args = ruleCommands.at(key);
    ruleCommands.erase(key);
    LinuxAuditUtil::ExecAuditCmd(DeleteForm(args));
    return true;
}

bool AuditRules::RuleExists(const std::string& key) const
{
    return ruleCommands.find(key) != ruleCommands.end();
}

std::set<std::string> AuditRules::ReAddMissing(const std::set<std::string>& keys)
{
    std::lock_guard<std::mutex> lock(kernelMutex_);
    std::set<std::string> missing;  // registered keys not yet known to be in the kernel
    for (const std::string& key : keys) {
        if (RuleExists(key)) {
            missing.insert(key);
        }
    }
    std::string listing;
    if (missing.empty() || !LinuxAuditUtil::ExecAuditCmd({"-l"}, listing, kListingBytes)) {
        return missing;  // unregistered keys are dropped; without a listing the rest waits
    }
    const std::set<std::string> listed = SDK::AuditRuleListingKeys(listing);
    for (auto it = missing.begin(); it != missing.end();) {
        if (listed.count(*it) > 0) {
            it = missing.erase(it);  // the kernel has it: nothing to do
        } else if (LinuxAuditUtil::ExecAuditCmd(ruleCommands.at(*it))) {
            AUDIT_LOG_INFO("Rule(%s) was missing from the kernel and is added again.", *it);
            it = missing.erase(it);
        } else {
            ++it;
        }
    }
    return missing;
}

bool AuditRules::DeleteAllRules()
{
    std::lock_guard<std::mutex> lock(kernelMutex_);
    LinuxAuditUtil::ExecAuditCmd(kAllModuleRules);
    ruleCommands.clear();
    keeper_.Forget();
    return true;
}

void AuditRules::UnregisterTask(const std::string& taskName)
{
    AUDIT_LOG_INFO("Unregister task(%s).", taskName);
    std::lock_guard<std::mutex> lock(kernelMutex_);
    const AuditctlArgs command = {"-D", "-k", taskName + kKeySeparator};
    LinuxAuditUtil::ExecAuditCmd(command);
    AUDIT_LOG_INFO("%s", LinuxAuditUtil::JoinWords(command));
    // KEPT: a plain prefix test on the name: a task whose name starts another's takes its entries
    // too, though auditctl removes only its own.
    for (auto it = ruleCommands.begin(); it != ruleCommands.end();) {
        AUDIT_CPU_CHECK(kAuditTaskName);
        it = SDK::StrUtils::StartWith(it->first, taskName) ? ruleCommands.erase(it) : std::next(it);
    }
}

}  // namespace Engine
