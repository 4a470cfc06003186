#pragma once

#include "AuditRule.h"
#include "RuleKeeper.h"

#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace Engine {

class AuditSyscallCtrlMessage;
class AuditFileSystemCtrlMessage;

/// An auditctl argument vector (without the program).
using AuditctlArgs = std::vector<std::string>;

/// The kernel audit rules the module installed for its subscribers: their keys and auditctl
/// argument vectors, so they can be removed per subscription, per task or all at once, and put
/// back (by the rule keeper, off the caller's thread) when the kernel drops them. Changed on the
/// audit task's thread only; every auditctl run holds one lock, so a put-back never races a
/// removal.
class AuditRules {
public:
    /// retryMs: how often rules that could not be added are tried again.
    explicit AuditRules(int retryMs = RuleKeeper::kRetryMs) : keeper_(*this, retryMs) {}
    AuditRules(const AuditRules&) = delete;
    AuditRules& operator=(const AuditRules&) = delete;

    /// Installs a syscall subscription. stripped is the rule text without -k; " -F arch=b64 " is
    /// inserted into it after the first token when the rule names no arch. True when auditctl ran
    /// and succeeded; false when the key was installed already or auditctl failed (the key then
    /// waits in the rule keeper).
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
    /// Asks the keeper to compare key with the kernel's list and put it back when missing;
    /// removed: the kernel reported the rule removed (rather than an add of it refused).
    void CheckRule(const std::string& key, bool removed) { keeper_.Check(key, removed); }
    /// A watched path was created: watches waiting for it are retried at once.
    void PathCreated(const std::string& path) { keeper_.Created(path); }
    /// Lists the kernel's rules once and adds again each registered key of keys that it lacks.
    /// Returns the registered keys that are still missing (their add failed).
    std::set<std::string> ReAddMissing(const std::set<std::string>& keys);
    /// Removes every kernel rule whose key contains "_task***", forgets all keys and waits.
    bool DeleteAllRules();
    /// Removes a task's kernel rules and every registered key that begins with its name.
    void UnregisterTask(const std::string& taskName);
    /// The keys not known to be in the kernel: asked about, being checked, or waiting.
    std::set<std::string> Waiting() const { return keeper_.Waiting(); }

    /// Rule key to the auditctl arguments that added it.
    std::map<std::string, AuditctlArgs> ruleCommands;

private:
    // Registers the arguments under key and runs them, unless the key is installed already.
    bool Install(const std::string& key, AuditctlArgs args);

    mutable std::mutex kernelMutex_;
    RuleKeeper keeper_;  // last: its thread stops before the registry goes
};

/// The key of a syscall subscription, as SyscallRuleKey lays it out (empty for a rule without
/// syscalls).
std::string getRuleKey(const std::string& taskName, const std::string& tag, const SyscallRule& rule);
/// The key of a file-system subscription, as FileRuleKey lays it out.
std::string getRuleKey(const std::string& taskName, const std::string& tag, const FileSystemRule& rule);
/// The path part of a file-system key (third "***" piece), or empty with fewer than four pieces.
std::string getFilepathFromKey(const std::string& key);
/// The delete form of an add command: second character a becomes d, else w becomes W.
std::string getDeleteRuleStr(std::string command);
/// The delete form of an add's arguments (its first word in delete form).
AuditctlArgs DeleteForm(AuditctlArgs args);

}  // namespace Engine
