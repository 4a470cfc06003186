#include "AuditConstants.h"

namespace Engine {

const std::string kAuditModuleName = "audit_module";
const std::string kAuditFeatureName = "audit_feature";
const std::string kAuditTaskName = "audit_task";
const std::string kFileWatchTaskName = "filewatch_audit_task";
const std::string kFileNotifyName = "filenotify";
const std::string kFileWatchName = "filewatch";
const std::set<std::string> kNamespaceKinds = {"ipc", "mnt", "net", "pid", "user", "uts"};

}  // namespace Engine
