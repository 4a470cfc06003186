#pragma once

#include "AgentNotice.h"

#include "AuditEvent.h"
#include "AuditMessages.h"

#include <string>

namespace Export {

struct FileChange;

/// A decoded audit event as one JSON object: the stamp, the syscall part, cwd, EXECVE fields,
/// socket address, paths (with host paths), access flags and the raw lines; tag names the
/// subscription it matched (left out when empty). Appended to line.
void AppendDecodedEvent(std::string& line, const Engine::AuditEvent& event, const std::string& tag = "");
/// The same as a text of its own.
std::string DecodedEventToJson(const Engine::AuditEvent& event, const std::string& tag = "");

/// A file notification as one JSON object: tag, path, event (the kind's number), kind (its name:
/// modify, attrib, moved_from, moved_to, move, create, delete), isDir, destPath and extra (the
/// map as sent, in key order). Appended to line.
void AppendNotification(std::string& line, const Engine::AuditEventResult& result, const std::string& tag,
                        const FileChange* change = nullptr);

/// The agent's own notice at timeMs as one JSON object: tag, time_ms, and the notice's members.
void AppendNotice(std::string& line, const AgentNotice& notice, uint64_t timeMs);

/// The name of a notification kind, or its number as text.
std::string NotificationKindName(int kind);

}  // namespace Export
