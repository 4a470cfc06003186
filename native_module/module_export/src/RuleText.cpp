#include "RuleText.h"

#include "AuditConstants.h"

#include "sdk/AuditRuleText.h"
#include "sdk/ExecuteCmdUtils.h"
#include "sdk/PathUtils.h"
#include "sdk/StrUtils.h"

#include <iterator>
#include <set>
#include <vector>

namespace Export {

namespace {

// The -F fields the module understands; any other name would be taken as pid.
const std::set<std::string> kFields(std::begin(Engine::kRuleFieldNames), std::end(Engine::kRuleFieldNames));
// auditctl's filter lists and actions (-a LIST,ACTION, either order).
const std::set<std::string> kLists = {"task", "exit", "user", "exclude", "filesystem", "io_uring"};
const std::set<std::string> kActions = {"never", "always"};

}  // namespace

bool LintSyscallRule(const std::string& text, RuleOutline& outline, std::string& problem)
{
    if (const std::string what = SDK::AuditRuleTextProblem(text); !what.empty()) {
        problem = "the rule holds " + what;
        return false;
    }
    std::vector<std::string> tokens;
    for (const std::string& piece : SDK::StrUtils::Split(text, " ")) {
        if (!SDK::StrUtils::Trim(piece).empty()) {
            tokens.push_back(SDK::StrUtils::Trim(piece));
        }
    }
    const std::vector<std::string> pair = tokens.empty() ? std::vector<std::string>() : SDK::StrUtils::Split(tokens[0], ",");
    const bool listFirst = pair.size() == 2 && kLists.count(pair[0]) > 0 && kActions.count(pair[1]) > 0;
    const bool actionFirst = pair.size() == 2 && kActions.count(pair[0]) > 0 && kLists.count(pair[1]) > 0;
    if (!listFirst && !actionFirst) {
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


}  // namespace Export

namespace Export {


bool ValidTag(const std::string& text)
{
    if (text.empty()) {
        return false;
    }
    for (const char c : text) {
        const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
                        c == '-' || c == '.';
        if (!ok) {
            return false;
        }
    }
    return true;
}

bool ListKernelRules(std::string& rules)
{
    return SDK::ExecuteCmdUtils::ExecuteInstalledAuditctl({"-l"}, rules, 1 << 22) == 0;
}

std::vector<std::string> MissingKeys(const std::string& rules, const std::vector<std::string>& keys)
{
    const std::set<std::string> listed = SDK::AuditRuleListingKeys(rules);
    std::vector<std::string> missing;
    for (const std::string& key : keys) {
        if (listed.count(key) == 0) {
            missing.push_back(key);
        }
    }
    return missing;
}

}  // namespace Export
