#include "AuditMessages.h"

namespace Engine {

AuditFileSystemCtrlMessage::AuditFileSystemCtrlMessage(Framework::Task* from, const std::string& watchPath,
                                                       std::vector<unsigned int> eventCodes,
                                                       const _FileNotifyOpt& options)
    : sender(from)
{
    for (const unsigned int code : eventCodes) {
        events |= code;
    }
    path = watchPath;
    // Only these option bytes travel with the message; lists, counters and the other flags keep
    // their defaults whatever the caller set.
    unwatch = options.flag6;
    opt.recursive = options.recursive;
    opt.flag2 = options.flag2;
    opt.flag5 = options.flag5;
}

AuditEventMessage::AuditEventMessage(Framework::Task* from, const std::string& path, const std::string& destPath,
                                     int eventCode, bool isDir, const std::unordered_map<std::string, std::string>& extra)
{
    (void)from;
    result.path = path;
    result.destPath = destPath;
    result.event = eventCode;
    result.isDir = isDir;
    result.extra = extra;
}

}  // namespace Engine
