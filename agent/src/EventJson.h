#pragma once

#include "AuditEvent.h"
#include "AuditMessages.h"

#include <string>

namespace Agent {

/// A decoded audit event as one JSON line: the stamp, the syscall part, cwd, EXECVE fields,
/// socket address, paths (with host paths), access flags and the raw lines. tag names the
/// subscription it matched (omitted when empty).
std::string DecodedEventToJson(const Engine::AuditEvent& event, const std::string& tag = "");

/// A file notification as one JSON line: tag, path, event (the kind's number), kind (its name:
/// modify, attrib, moved_from, moved_to, move, create, delete), isDir, destPath and extra (the
/// map as sent, in key order).
std::string NotificationToJson(const Engine::AuditEventResult& result, const std::string& tag);

/// The name of a notification kind, or its number as text.
std::string NotificationKindName(int kind);

}  // namespace Agent
