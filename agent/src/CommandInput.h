#pragma once

#include <fstream>
#include <iosfwd>
#include <string>
#include <vector>

namespace Agent {

/// The input of a command that reads a log: args[0] as a file, or standard input when there is
/// no argument or it is "-". Null, with a message naming the command on err, when the file
/// cannot be read.
std::istream* OpenInput(const std::vector<std::string>& args, std::ifstream& file, const char* command,
                        std::ostream& err);

}  // namespace Agent
