#pragma once

#include <set>
#include <string>

namespace Engine {

/// Name the module gives the framework.
extern const std::string kAuditModuleName;       // "audit_module"
/// Feature name of the module's tasks.
extern const std::string kAuditFeatureName;      // "audit_feature"
/// The audit task: installs rules, follows the log, routes events.
extern const std::string kAuditTaskName;         // "audit_task"
/// The file-watch task: turns audit events into file notifications.
extern const std::string kFileWatchTaskName;     // "filewatch_audit_task"
/// Labels used by the file-notification side.
extern const std::string kFileNotifyName;        // "filenotify"
extern const std::string kFileWatchName;         // "filewatch"
/// Linux namespace kinds.
extern const std::set<std::string> kNamespaceKinds;  // ipc, mnt, net, pid, user, uts

}  // namespace Engine
