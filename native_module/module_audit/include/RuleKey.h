#pragma once

#include "AuditConstants.h"

#include <string>

// The layout of the kernel keys the module gives its rules, in one place: the module makes keys
// with it, and subscribers use it to find their rules in the kernel's list.

namespace Engine {

/// Separates the parts of a rule key; every key of the module holds it after the task's name.
inline const std::string kKeySeparator = "***";

/// The tag under which the file-watch task has the audit task install its watches.
inline const std::string kFileWatchRuleTag = "submodule";

/// The permissions of the audit watches on watched paths: writes and attribute changes (w and a),
/// whatever a subscriber's mask; the mask is applied to the notifications.
inline const std::string kFileWatchRulePerm = "wa";

/// The rule text of the audit watch on path ("PATH -p wa").
inline std::string FileWatchRuleText(const std::string& path)
{
    return path + " -p " + kFileWatchRulePerm;
}

/// The -F fields a system-call rule may filter on, each at the index of its parameter number in
/// the module; any other name is taken as pid.
inline const char* const kRuleFieldNames[] = {"pid",     "arch", "ppid", "key", "success", "exit",
                                              "a0",      "a1",   "a2",   "a3",  "path",    "perm"};

/// The key of a system-call subscription: task "***" tag, first system call, "pid", pid,
/// "ppid", ppid.
inline std::string SyscallRuleKey(const std::string& task, const std::string& tag, const std::string& firstSyscall,
                                  const std::string& pid, const std::string& ppid)
{
    return task + kKeySeparator + tag + firstSyscall + "pid" + pid + "ppid" + ppid;
}

/// The key of a file-system subscription: task "***" tag "***" path "***" perm, "pid", pid,
/// "ppid", ppid, then the rule's own -k key. KEPT: the two layouts differ; both begin with the
/// task's name and "***", which removing a task's rules relies on.
inline std::string FileRuleKey(const std::string& task, const std::string& tag, const std::string& path,
                               const std::string& perm, const std::string& pid = "", const std::string& ppid = "",
                               const std::string& key = "")
{
    return task + kKeySeparator + tag + kKeySeparator + path + kKeySeparator + perm + "pid" + pid + "ppid" + ppid + key;
}

/// The key of the file-watch task's audit watch on path.
inline std::string FileWatchRuleKey(const std::string& path)
{
    return FileRuleKey(kFileWatchTaskName, kFileWatchRuleTag, path, kFileWatchRulePerm);
}

}  // namespace Engine
