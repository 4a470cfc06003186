#pragma once

#include "EventLines.h"

#include <iosfwd>
#include <string>
#include <vector>

namespace Agent {

/// hostwarden decode [FILE]: runs the audit module's own assembly, decoding and delivery over
/// audit log lines from FILE or standard input, with a route that accepts every system call, and
/// prints each delivered event as one JSON line (ECS, or the flat record as lines says). Returns 0, or 2 when FILE cannot be read.
int RunDecodeCommand(const std::vector<std::string>& args, const Export::LineOptions& lines, std::ostream& out,
                     std::ostream& err);

}  // namespace Agent
