#include "AuditRules.h"

#include "AuditConstants.h"
#include "AuditLogging.h"
#include "AuditMessages.h"
#include "AuditUtil.h"

#include "sdk/DirUtils.h"
#include "sdk/FileUtils.h"
#include "sdk/StrUtils.h"

namespace Engine {

namespace {

const std::string kDockerSocket = "/var/run/docker.sock";
const std::string kAllModuleRules = "-D -k _task***";

// Registers the command under key and runs it, unless the key is installed already.
bool Install(std::map<std::string, std::string>& commands, const std::string& key, const std::string& command)
{
    std::string& stored = commands[key];
    if (!stored.empty()) {
        return false;
    }
    stored = command;  // kept even when auditctl fails, so a later re-add can use it
    return LinuxAuditUtil::ExecAuditCmd(command);
}

}  // namespace

std::string getRuleKey(const std::string& taskName, const std::string& tag, const SyscallRule& rule)
{
    if (rule.syscalls.empty()) {
        return {};
    }
    return taskName + "***" + tag + rule.syscalls.front() + "pid" + rule.pid + "ppid" + rule.ppid;
}

std::string getRuleKey(const std::string& taskName, const std::string& tag, const FileSystemRule& rule)
{
    return taskName + "***" + tag + "***" + rule.path + "***" + rule.perm + "pid" + rule.pid + "ppid" + rule.ppid +
           rule.key;
}

std::string getFilepathFromKey(const std::string& key)
{
    const std::vector<std::string> pieces = SDK::StrUtils::Split(key, "***");
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

bool AuditRules::AddAuditRule(const AuditSyscallCtrlMessage& msg, const SyscallRule& rule, std::string& stripped)
{
    const std::string key = getRuleKey(SenderName(msg.sender), msg.tag, rule);
    if (rule.arch.empty()) {
        // Every installed syscall rule names its architecture.
        const size_t space = stripped.find(' ');
        stripped.insert(space == std::string::npos ? stripped.size() : space, " -F arch=b64 ");
    }
    const std::string command = LinuxAuditUtil::SyscallNamesForAuditctl(stripped, rule.arch);
    return Install(ruleCommands, key, msg.operate + " " + command + " -k " + key);
}

bool AuditRules::AddAuditRule(const AuditFileSystemCtrlMessage& msg, const FileSystemRule& rule, std::string& stripped)
{
    const std::string key = getRuleKey(SenderName(msg.sender), msg.tag, rule);
    // A watch on the docker socket becomes a syscall-exit rule on that path for the subscriber's ppid.
    const std::string command = rule.path == kDockerSocket
                                    ? "-a exit,always -F path=" + kDockerSocket + " -F ppid=" + rule.ppid + " -k " + key
                                    : msg.operate + " " + stripped + " -k " + key;
    return Install(ruleCommands, key, command);
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
    const std::string command = ruleCommands.at(key);
    ruleCommands.erase(key);
    LinuxAuditUtil::ExecAuditCmd(getDeleteRuleStr(command));
    return true;
}

bool AuditRules::RuleExists(const std::string& key) const
{
    return ruleCommands.find(key) != ruleCommands.end();
}

bool AuditRules::AuditctlRuleExist(const std::string& key)
{
    std::string output;
    LinuxAuditUtil::ExecAuditCmd(" -l -k " + key, output);
    return output.find(key) != std::string::npos;
}

void AuditRules::ReAddRule(const std::string& key)
{
    if (key.empty()) {
        return;
    }
    LinuxAuditUtil::ExecAuditCmd(ruleCommands.at(key));
}

void AuditRules::ReAddRuleForFile(const std::string& path)
{
    for (const auto& [key, command] : ruleCommands) {
        AUDIT_CPU_CHECK(kAuditTaskName);
        if (getFilepathFromKey(key) == path) {
            LinuxAuditUtil::ExecAuditCmd(getDeleteRuleStr(command));
            LinuxAuditUtil::ExecAuditCmd(command);
        }
    }
}

bool AuditRules::DeleteAllRules()
{
    LinuxAuditUtil::ExecAuditCmd(kAllModuleRules);
    ruleCommands.clear();
    return true;
}

void AuditRules::UnregisterTask(const std::string& taskName)
{
    AUDIT_LOG_INFO("Unregister task(%s).", taskName);
    const std::string command = "-D -k " + taskName + "***";
    LinuxAuditUtil::ExecAuditCmd(command);
    AUDIT_LOG_INFO("%s", command);
    // A plain prefix test on the name: a task whose name starts another's takes its entries too.
    for (auto it = ruleCommands.begin(); it != ruleCommands.end();) {
        AUDIT_CPU_CHECK(kAuditTaskName);
        it = SDK::StrUtils::StartWith(it->first, taskName) ? ruleCommands.erase(it) : std::next(it);
    }
}

void AuditRules::AddToScanFilePath(std::string key)
{
    const std::string path = getFilepathFromKey(key);
    if (scanPaths.insert(path).second) {
        AUDIT_LOG_INFO("Add (%s) to scan path set.", path);
    }
}

void AuditRules::ScanCreatedFilepath()
{
    for (auto it = scanPaths.begin(); it != scanPaths.end();) {
        AUDIT_CPU_CHECK(kAuditTaskName);
        const std::string path = *it;
        if (!SDK::FileUtils::IsFile(path) && !SDK::DirUtils::IsDir(path)) {
            ++it;
            continue;
        }
        AUDIT_LOG_INFO("(%s) is exist, add audit rule.", path);
        ReAddRuleForFile(path);
        it = scanPaths.erase(it);
    }
}

}  // namespace Engine
