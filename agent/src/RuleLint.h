#pragma once

#include <string>

namespace Agent {

/// What the agent reads from a system-call rule text ("exit,always -F arch=b64 -S open -F pid=1").
struct RuleOutline {
    std::string firstSyscall;  ///< the first name after -S
    std::string pid;           ///< the -F pid value
    std::string ppid;          ///< the -F ppid value
};

/// Catches what the audit module would accept and then never match: a -F field it does not
/// filter on (such as dir= or uid=), which the module takes as a pid filter. Also refuses texts
/// that are not a list,action pair followed by -S, -F and -k options. False, with the reason.
bool LintSyscallRule(const std::string& text, RuleOutline& outline, std::string& problem);

/// The key the module gives a syscall subscription of task with tag (its documented layout:
/// task "***" tag, first system call, "pid", pid, "ppid", ppid).
std::string SyscallRuleKey(const std::string& task, const std::string& tag, const RuleOutline& outline);

}  // namespace Agent
