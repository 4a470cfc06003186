#pragma once

#include "SharedLookupTable.h"

#include <cstdint>
#include <string>
#include <vector>

namespace Engine {

/// Field names accepted after -F in a subscriber's rule text.
enum ParameterNumber {
    kParamPid = 0,
    kParamArch = 1,
    kParamPpid = 2,
    kParamKey = 3,
    kParamSuccess = 4,
    kParamExit = 5,
    kParamA0 = 6,
    kParamA1 = 7,
    kParamA2 = 8,
    kParamA3 = 9,
    kParamPath = 10,
    kParamPerm = 11,
};

/// Field name to ParameterNumber, looked up with insert-on-miss: an unknown name is added with
/// value 0 and so counts as pid.
extern SharedLookupTable<std::string, ParameterNumber> parameterNumberMap;

/// A parsed system-call subscription.
struct SyscallRule {
    std::string arch;                   ///< "b32" selects the i386 tables; anything else x86_64
    std::vector<std::string> syscalls;  ///< names from every -S, in order, duplicates kept
    int32_t reserved = 0;               ///< not used by the parser
    std::string pid;
    std::string ppid;
    std::string key;                    ///< -k or key= value
    int hasFilter = 0;                  ///< 1 when success, exit or a0..a3 was given
    std::string success;                ///< "yes" or "no"
    std::string exit;
    std::string a0;                     ///< argument filters, lower-case hexadecimal without 0x
    std::string a1;
    std::string a2;
    std::string a3;
};

/// A parsed file-system subscription (a watch).
struct FileSystemRule {
    std::string path;      ///< the watched path, one trailing '/' removed
    int32_t reserved = 0;  ///< not used by the parser
    std::string pid;
    std::string ppid;
    std::string key;
    std::string perm;      ///< access letters r, w, x, a
};

/// Parser results.
enum RuleParseResult {
    kRuleParsed = 0,         ///< accepted
    kRuleNeverOrExclude = 1, ///< accepted; the action is never or exclude
    kRuleRejected = 2,       ///< rejected
};

}  // namespace Engine
