#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace Agent {

/// hostwarden baseline check [PATH...] | update: the file-integrity baseline of the watched trees
/// of the configuration (configFile, or the installation's), for operators.
///   check   compares the trees (or only the PATHs, each inside a watched tree) with the baseline
///           without changing it, and prints each difference as a line: "created PATH",
///           "deleted PATH", or "changed PATH: WHAT" (content, size, mode, owner, group, mtime,
///           inode, type). 0 when there is none, 1 when there are, 2 when it cannot compare.
///   update  records the trees as they are now, accepting every difference. 0, or 2 when the
///           baseline cannot be written.
/// Both read the files themselves, not through the running agent, and may run beside it: the
/// baseline is an SQLite database that takes one writer at a time.
int RunBaselineCommand(const std::vector<std::string>& args, std::string configFile, std::ostream& out,
                       std::ostream& err);

/// A path as one printable line: control bytes, DEL and backslash as \xHH.
std::string PrintablePath(const std::string& path);

}  // namespace Agent
