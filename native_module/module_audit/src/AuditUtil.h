#pragma once

#include "AuditRule.h"

#include "sdk/AuditParser.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Framework {
class ContainerMetaInfo;
}

namespace Engine {

class AuditSyscallCtrlMessage;
class AuditFileSystemCtrlMessage;

/// Helpers for running auditctl and reading audit record fields. Stateless apart from the
/// container provider cache of GetContainerMeta.
class LinuxAuditUtil {
public:
    /// Parses the message's rule text ("exit,always -F arch=b64 -S open -k k") into rule.
    /// Returns a RuleParseResult. A non-numeric a0..a3 value throws std::invalid_argument (one
    /// beyond 32 bits std::out_of_range), as toHexString does; callers catch it.
    static int auditDistractSyscallRule(const AuditSyscallCtrlMessage& msg, SyscallRule& rule);
    /// Parses the message's rule text ("/etc -p wa -k k") into rule. Returns a RuleParseResult.
    static int auditDistractFilesystemRule(const AuditFileSystemCtrlMessage& msg, FileSystemRule& rule);
    /// Applies one name=value field of a file-system rule. Returns 0, or 2 when it is not name=value.
    static int setFileSystemParameter(std::string parameter, FileSystemRule& rule);
    /// The number of a system call on the arch ("b32" for i386, else x86_64); an unknown name is
    /// added to the table with 0 and gives 0.
    static int32_t auditGetSyscallNumber(const std::string& name, const std::string& arch);
    /// The rule text with every -S name that the installed libaudit (and so auditctl) does not know
    /// written as its number from the kernel's table: auditctl takes numbers for calls newer than it.
    static std::string SyscallNamesForAuditctl(const std::string& ruleText, const std::string& arch);

    /// Runs the installation's bin/auditctl with args as its argument vector (with the
    /// installation's lib/ on the loader path), capturing its output. True when it ran and exited 0.
    static bool ExecAuditCmd(const std::vector<std::string>& args, std::string& output, size_t maxOutput = 4096);
    /// As above, discarding the output.
    static bool ExecAuditCmd(const std::vector<std::string>& args);
    /// The words of a rule text, split on blanks (a rule with any other control character is
    /// refused when parsed, so this is the split the rule was checked with).
    static std::vector<std::string> RuleWords(const std::string& text);
    /// The words joined by blanks, for logs and messages.
    static std::string JoinWords(const std::vector<std::string>& words);

    /// Writes "LD_LIBRARY_PATH=<installation>lib" into buffer (bounded by 4096). False on a null or
    /// empty buffer, an unknown installation, or an overlong result.
    static bool getLibraryPathEnv(char* buffer, size_t length);

    /// The value of name= in a record line (first plain substring match, so "uid" also matches
    /// inside "auid="), up to the next space, 0x1d or the end, with surrounding quotes removed.
    static std::string GetField(const std::string& name, const std::string& line);
    /// Trims text and blanks a leading and a trailing double quote; true when a leading one was
    /// removed (only then is the text trimmed again).
    static bool TrimQuotation(std::string& text);
    /// What TrimQuotation makes of raw, as a new text; opened (when given) tells whether a
    /// leading quote was removed.
    static std::string UnquotedText(std::string_view raw, bool* opened = nullptr);
    /// Drops prefix from the start of text when it is there.
    static void TrimPrefix(std::string& text, const std::string& prefix);
    /// "0x..." loses its prefix (digits unchanged); a decimal 32-bit integer becomes lower-case
    /// hexadecimal (two's complement for negatives). Throws std::invalid_argument or
    /// std::out_of_range for text that is not such a number.
    static void toHexString(std::string& text);
    /// The fields of the event's SYSCALL record; a shared empty map (and an error line) without one.
    static SDK::AuditFields& getSyscallMsg(SDK::AuditEvent& event);

    /// The container metadata provider ("container_collect_task"), or null. Looked up on the
    /// first nine calls at most; the answer is kept for the life of the process.
    static Framework::ContainerMetaInfo* GetContainerMeta();
    /// Forgets the cached provider and the call count (for a new engine in the same process).
    static void ResetContainerMetaCache();

    /// path with its directory resolved and its last component kept as it is, so a symbolic link is
    /// named by itself; path itself when its directory does not resolve.
    static std::string RealPathOfParent(const std::string& path);
    /// path without its trailing slashes ("/" stays "/").
    static std::string WithoutTrailingSlashes(std::string path);
    /// path split at its last component, trailing slashes ignored: ("/a", "b") for "/a/b/",
    /// ("/", "b") for "/b", ("", "b") for "b".
    static std::pair<std::string, std::string> SplitLastComponent(const std::string& path);
    /// path (absolute, as the process inside a container named it) resolved inside base, the
    /// directory on the host that holds the container's view of it, as openat2's RESOLVE_IN_ROOT
    /// does: no link leads out of base. Its last component is kept; empty when it cannot resolve.
    static std::string RealPathInRoot(const std::string& base, const std::string& path);
};

/// True when file is an immediate child of dir ("/etc", "/etc/passwd"); a dir given with a
/// trailing slash never matches.
bool IsChildFileNoRecursive(const std::string& dir, const std::string& file);

}  // namespace Engine
