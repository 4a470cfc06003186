#pragma once

#include "AuditRule.h"

#include <map>
#include <set>
#include <string>

namespace Engine {

class AuditSyscallCtrlMessage;
class AuditFileSystemCtrlMessage;

/// The kernel audit rules the module installed for its subscribers: their keys and auditctl
/// commands, so they can be removed per subscription, per task or all at once, put back when
/// the kernel drops them, and installed late for watched paths that do not exist yet.
/// Used on the audit task's thread only.
class AuditRules {
public:
    /// Installs a syscall subscription. stripped is the rule text without -k; " -F arch=b64 " is
    /// inserted into it after the first token when the rule names no arch. True when auditctl ran
    /// and succeeded; false when the key was installed already or auditctl failed (the command is
    /// kept either way, for a later re-add).
    bool AddAuditRule(const AuditSyscallCtrlMessage& msg, const SyscallRule& rule, std::string& stripped);
    /// Installs a file-system subscription (a watch, or the syscall form for the docker socket).
    bool AddAuditRule(const AuditFileSystemCtrlMessage& msg, const FileSystemRule& rule, std::string& stripped);
    /// Removes the subscription's rule. Throws std::out_of_range for a key that is not registered.
    bool DeleteAuditRule(const AuditSyscallCtrlMessage& msg, const SyscallRule& rule);
    bool DeleteAuditRule(const AuditFileSystemCtrlMessage& msg, const FileSystemRule& rule);
    /// Removes one registered key and its kernel rule. False for an empty key; throws
    /// std::out_of_range ("map::at") for an unregistered one.
    bool deleteRule(const std::string& key);
    /// True when the key is registered.
    bool RuleExists(const std::string& key) const;
    /// True when the kernel's rule list, filtered by the key, mentions the key.
    bool AuditctlRuleExist(const std::string& key);
    /// Runs a registered key's command again (the kernel dropped the rule). Throws
    /// std::out_of_range for an unregistered key.
    void ReAddRule(const std::string& key);
    /// Deletes and re-adds every registered watch on path (the file was replaced or created).
    void ReAddRuleForFile(const std::string& path);
    /// Removes every kernel rule whose key contains "_task***" and forgets all keys.
    bool DeleteAllRules();
    /// Removes a task's kernel rules and every registered key that begins with its name.
    void UnregisterTask(const std::string& taskName);
    /// Waits for the path of a watch key to come into existence.
    void AddToScanFilePath(std::string key);
    /// Installs the watches of waited-for paths that exist now.
    void ScanCreatedFilepath();

    /// Rule key to the exact auditctl argument text that added it.
    std::map<std::string, std::string> ruleCommands;
    /// Watched paths waiting to come into existence.
    std::set<std::string> scanPaths;
};

/// The key of a syscall subscription: task "***" tag, first syscall, "pid", pid, "ppid", ppid
/// (empty for a rule without syscalls).
std::string getRuleKey(const std::string& taskName, const std::string& tag, const SyscallRule& rule);
/// The key of a file-system subscription: task "***" tag "***" path "***" perm "pid" pid "ppid" ppid key.
std::string getRuleKey(const std::string& taskName, const std::string& tag, const FileSystemRule& rule);
/// The path part of a file-system key (third "***" piece), or empty with fewer than four pieces.
std::string getFilepathFromKey(const std::string& key);
/// The delete form of an add command: second character a becomes d, else w becomes W.
std::string getDeleteRuleStr(std::string command);

}  // namespace Engine
