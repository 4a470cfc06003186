#include "CommandInput.h"

#include <iostream>

namespace Agent {

std::istream* OpenInput(const std::vector<std::string>& args, std::ifstream& file, const char* command,
                        std::ostream& err)
{
    if (args.empty() || args[0] == "-") {
        return &std::cin;
    }
    file.open(args[0]);
    if (!file) {
        err << "hostwarden " << command << ": cannot read " << args[0] << "\n";
        return nullptr;
    }
    return &file;
}

}  // namespace Agent
