#pragma once

#include "sdk/AuditParser.h"

#include <iosfwd>
#include <string>
#include <vector>

namespace Agent {

/// One parsed audit event as a single JSON line: {"time_ms":..,"serial":..,"records":[{"type":..,
/// "fields":{name: raw value, ...}}, ...]}.
std::string EventToJson(const SDK::AuditEvent& event);

/// hostwarden parse [FILE]: reads audit log lines from FILE or standard input and prints each
/// event as one JSON line. Lines that are not audit records are reported on err with their line
/// number and skipped. Returns 0 when every line parsed, 1 when some did not, 2 when the file
/// cannot be read.
int RunParseCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

}  // namespace Agent
