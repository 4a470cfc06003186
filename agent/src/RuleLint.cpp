#include "RuleLint.h"

#include "sdk/StrUtils.h"

#include <set>
#include <vector>

namespace Agent {

namespace {

// The -F fields the module understands: its process and argument filters, and arch, key, path
// and perm. Any other name would be taken as pid.
const std::set<std::string> kFields = {"pid", "ppid", "arch", "key", "success", "exit",
                                       "a0", "a1", "a2", "a3", "path", "perm"};

}  // namespace

bool LintSyscallRule(const std::string& text, RuleOutline& outline, std::string& problem)
{
    std::vector<std::string> tokens;
    for (const std::string& piece : SDK::StrUtils::Split(text, " ")) {
        if (!SDK::StrUtils::Trim(piece).empty()) {
            tokens.push_back(SDK::StrUtils::Trim(piece));
        }
    }
    if (tokens.empty() || tokens[0].find(',') == std::string::npos || tokens[0][0] == '-') {
        problem = "a rule begins with its list and action, such as exit,always (without -a)";
        return false;
    }
    for (size_t i = 1; i < tokens.size(); i += 2) {
        const std::string& option = tokens[i];
        if (option != "-S" && option != "-F" && option != "-k") {
            problem = "unknown option '" + option + "' (use -S NAME[,NAME], -F NAME=VALUE and -k KEY)";
            return false;
        }
        if (i + 1 == tokens.size()) {
            problem = "option " + option + " needs a value";
            return false;
        }
        const std::string& value = tokens[i + 1];
        if (option == "-S" && outline.firstSyscall.empty()) {
            outline.firstSyscall = value.substr(0, value.find(','));
        }
        if (option != "-F") {
            continue;
        }
        const size_t eq = value.find('=');
        const std::string name = value.substr(0, eq);
        if (eq == std::string::npos || kFields.count(name) == 0) {
            problem = "field '" + name + "' is not one the module filters on: it would take it as a pid filter, "
                      "and no event would ever match (fields: pid, ppid, success, exit, a0..a3, arch, key)";
            return false;
        }
        if (name == "pid") {
            outline.pid = value.substr(eq + 1);
        } else if (name == "ppid") {
            outline.ppid = value.substr(eq + 1);
        }
    }
    if (outline.firstSyscall.empty()) {
        problem = "no system call (-S NAME)";
        return false;
    }
    return true;
}

std::string SyscallRuleKey(const std::string& task, const std::string& tag, const RuleOutline& outline)
{
    return task + "***" + tag + outline.firstSyscall + "pid" + outline.pid + "ppid" + outline.ppid;
}

}  // namespace Agent
