#pragma once

#include "RuleKey.h"

#include <string>
#include <vector>

namespace Export {

/// What a system-call rule text says beyond its syntax ("exit,always -F arch=b64 -S open -F pid=1").
struct RuleOutline {
    std::string firstSyscall;  ///< the first name after -S
    std::string pid;           ///< the -F pid value
    std::string ppid;          ///< the -F ppid value
};

/// Catches what the audit module would accept and then never match or never install: a list and
/// action pair auditctl does not know, and a -F field the module does not filter on (such as
/// dir= or uid=), which it takes as a pid filter. Also refuses texts that are not a list,action
/// pair followed by -S, -F and -k options. False, with the reason.
bool LintSyscallRule(const std::string& text, RuleOutline& outline, std::string& problem);

/// The key the module gives a syscall subscription of task with tag.
inline std::string SyscallRuleKey(const std::string& task, const std::string& tag, const RuleOutline& outline)
{
    return Engine::SyscallRuleKey(task, tag, outline.firstSyscall, outline.pid, outline.ppid);
}

/// True when text holds only letters, digits, '_', '-' and '.' (and something): a tag that
/// keeps rule keys and command lines whole.
bool ValidTag(const std::string& text);

/// The kernel's audit rules as the installation's auditctl lists them ("-l"); false when it
/// cannot be asked.
bool ListKernelRules(std::string& rules);

/// The keys of keys that rules does not hold.
std::vector<std::string> MissingKeys(const std::string& rules, const std::vector<std::string>& keys);

}  // namespace Export
