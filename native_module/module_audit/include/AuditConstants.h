#pragma once

#include <set>
#include <string>

namespace Engine {

// Defined here, so that other modules name the tasks without linking the module's code; each
// library that uses them builds its own copy when it is loaded.

/// Name the module gives the framework.
inline const std::string kAuditModuleName = "audit_module";
/// Feature name of the module's tasks.
inline const std::string kAuditFeatureName = "audit_feature";
/// The audit task: installs rules, follows the log, routes events.
inline const std::string kAuditTaskName = "audit_task";
/// The file-watch task: turns audit events into file notifications.
inline const std::string kFileWatchTaskName = "filewatch_audit_task";
/// Labels used by the file-notification side.
inline const std::string kFileNotifyName = "filenotify";
inline const std::string kFileWatchName = "filewatch";
/// Linux namespace kinds.
inline const std::set<std::string> kNamespaceKinds = {"ipc", "mnt", "net", "pid", "user", "uts"};

}  // namespace Engine
