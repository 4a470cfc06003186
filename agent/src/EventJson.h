#pragma once

#include "AuditEvent.h"

#include <string>

namespace Agent {

/// A decoded audit event as one JSON line: the stamp, the syscall part, cwd, EXECVE fields,
/// socket address, paths (with host paths), access flags and the raw lines. tag names the
/// subscription it matched (omitted when empty).
std::string DecodedEventToJson(const Engine::AuditEvent& event, const std::string& tag = "");

}  // namespace Agent
