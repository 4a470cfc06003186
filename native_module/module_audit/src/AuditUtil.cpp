#include "AuditUtil.h"

#include "RuleKey.h"

#include "AuditLogging.h"
#include "AuditMessages.h"
#include "SyscallTables.h"

#include "container/ContainerMetaInfo.h"
#include "framework/Engine.h"
#include "framework/Task.h"
#include "sdk/AuditRuleText.h"
#include "sdk/BoundedStr.h"
#include "sdk/ExecuteCmdUtils.h"
#include "sdk/FileUtils.h"
#include "sdk/PathUtils.h"
#include "sdk/StrUtils.h"

#include <libaudit.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>

namespace Engine {

namespace {

std::map<std::string, ParameterNumber> ParameterNumbers()
{
    static_assert(sizeof(kRuleFieldNames) / sizeof(kRuleFieldNames[0]) == kParamPerm + 1, "a name for every parameter");
    std::map<std::string, ParameterNumber> numbers;
    for (size_t i = 0; i < sizeof(kRuleFieldNames) / sizeof(kRuleFieldNames[0]); ++i) {
        numbers.emplace(kRuleFieldNames[i], static_cast<ParameterNumber>(i));
    }
    return numbers;
}

}  // namespace

// KEPT: looked up with insert-on-miss, so an unknown field name counts as pid (a uid= filter is
// stored as a pid).
SharedLookupTable<std::string, ParameterNumber> parameterNumberMap(ParameterNumbers());


namespace {

constexpr size_t kPathBufferSize = 4096;

// Process-wide container provider cache; see GetContainerMeta.
Framework::ContainerMetaInfo* g_containerMeta = nullptr;
int g_containerMetaCalls = 0;

// True when a comma-separated piece of token is "exclude" or "never".
bool IsNeverOrExcludeAction(const std::string& token)
{
    for (const std::string& piece : SDK::StrUtils::Split(token, ",")) {
        if (piece == "exclude" || piece == "never") {
            return true;
        }
    }
    return false;
}

// Stores value in member when it is still empty; a field may be given once.
bool SetOnce(std::string& member, const std::string& value)
{
    if (!member.empty()) {
        return false;
    }
    member = value;
    return true;
}

// Applies one -F name=value of a syscall rule; false rejects the rule.
bool ApplySyscallField(const std::string& token, SyscallRule& rule)
{
    const std::vector<std::string> pair = SDK::StrUtils::Split(token, "=");
    if (pair.size() != 2) {
        return false;
    }
    const std::string& value = pair[1];
    const ParameterNumber field = parameterNumberMap[pair[0]];
    switch (field) {
    case kParamPid:
        return SetOnce(rule.pid, value);
    case kParamArch:
        return SetOnce(rule.arch, value);
    case kParamPpid:
        return SetOnce(rule.ppid, value);
    case kParamKey:
        return SetOnce(rule.key, value);
    case kParamSuccess:
        if (!rule.success.empty()) {
            return false;
        }
        rule.hasFilter = 1;
        if (value == "1") {
            rule.success = "yes";
        } else if (value == "0") {
            rule.success = "no";
        } else {
            return false;
        }
        return true;
    case kParamExit:
        rule.hasFilter = rule.exit.empty() ? 1 : rule.hasFilter;
        return SetOnce(rule.exit, value);
    case kParamA0:
    case kParamA1:
    case kParamA2:
    case kParamA3: {
        std::string* const args[] = {&rule.a0, &rule.a1, &rule.a2, &rule.a3};
        std::string& member = *args[field - kParamA0];
        if (!member.empty()) {
            return false;
        }
        rule.hasFilter = 1;
        member = value;
        LinuxAuditUtil::toHexString(member);
        return true;
    }
    case kParamPath:
    case kParamPerm:
        return true;
    }
    return true;
}

// The token machine both rule kinds share. first(token) reads the first token and tells whether
// it makes the rule a never/exclude one; listOption ("-S" or "-p") hands its token to list;
// -F tokens go to field (false rejects at once); complete() says whether the rule has what it
// must have. Tokens after an unknown option reject the rule, though the scan goes on.
template <typename First, typename List, typename Field, typename Complete>
int ParseRuleText(const std::string& text, const char* listOption, std::string& key, First first, List list,
                  Field field, Complete complete)
{
    enum class State { kFirst, kOption, kList, kField, kKey, kDead };
    if (const std::string problem = SDK::AuditRuleTextProblem(text); !problem.empty()) {
        AUDIT_LOG_WARN("A rule text is refused: it holds %s.", problem);
        return kRuleRejected;  // it would be run or keyed otherwise than it was checked
    }
    int result = kRuleParsed;
    State state = State::kFirst;
    for (const std::string& token : LinuxAuditUtil::RuleWords(text)) {
        switch (state) {
        case State::kFirst:
            if (first(token)) {
                result = kRuleNeverOrExclude;
            }
            state = State::kOption;
            break;
        case State::kOption:
            state = token == listOption ? State::kList
                    : token == "-F"     ? State::kField
                    : token == "-k"     ? State::kKey
                                        : State::kDead;
            break;
        case State::kList:
            list(token);
            state = State::kOption;
            break;
        case State::kKey:
            key = token;  // a later -k overwrites an earlier key
            state = State::kOption;
            break;
        case State::kField:
            if (!field(token)) {
                return kRuleRejected;
            }
            state = State::kOption;
            break;
        case State::kDead:
            result = kRuleRejected;
            break;
        }
    }
    if (result == kRuleNeverOrExclude) {
        return result;  // such a rule needs nothing more
    }
    return complete() ? result : kRuleRejected;
}

}  // namespace

std::string LinuxAuditUtil::SyscallNamesForAuditctl(const std::string& ruleText, const std::string& arch)
{
    const int machine = IsRuleArch32(arch) ? MACH_X86 : MACH_86_64;
    std::string out;
    bool list = false;
    for (const std::string& token : RuleWords(ruleText)) {
        std::string word = token;
        if (list) {
            word.clear();
            for (const std::string& name : SDK::StrUtils::Split(token, ",")) {
                int32_t number = 0;
                const bool newer = audit_name_to_syscall(name.c_str(), machine) < 0 &&
                                   (machine == MACH_X86 ? syscallNameToNumber32 : syscallNameToNumber64).Find(name, number);
                word += (word.empty() ? "" : ",") + (newer ? std::to_string(number) : name);
            }
        }
        list = token == "-S";
        out += (out.empty() ? "" : " ") + word;
    }
    return out;
}

int LinuxAuditUtil::auditDistractSyscallRule(const AuditSyscallCtrlMessage& msg, SyscallRule& rule)
{
    return ParseRuleText(
        msg.rule, "-S", rule.key, [](const std::string& token) { return IsNeverOrExcludeAction(token); },
        [&rule](const std::string& token) {
            for (std::string& name : SDK::StrUtils::Split(token, ",")) {
                rule.syscalls.push_back(std::move(name));
            }
        },
        [&rule](const std::string& token) { return ApplySyscallField(token, rule); },
        [&rule] { return !rule.syscalls.empty(); });
}

int LinuxAuditUtil::auditDistractFilesystemRule(const AuditFileSystemCtrlMessage& msg, FileSystemRule& rule)
{
    return ParseRuleText(
        msg.rule, "-p", rule.key,
        [&rule](const std::string& token) {
            rule.path = token.front() == '/' ? token : std::string();
            if (!rule.path.empty() && rule.path.back() == '/') {
                rule.path.pop_back();
            }
            return rule.path.empty() && IsNeverOrExcludeAction(token);
        },
        [&rule](const std::string& token) { rule.perm = token; },
        [&rule](const std::string& token) { return setFileSystemParameter(token, rule) != kRuleRejected; },
        [&rule] { return !rule.path.empty(); });
}

int LinuxAuditUtil::setFileSystemParameter(std::string parameter, FileSystemRule& rule)
{
    const std::vector<std::string> pair = SDK::StrUtils::Split(parameter, "=");
    if (pair.size() != 2) {
        return kRuleRejected;
    }
    const std::string& value = pair[1];
    switch (parameterNumberMap[pair[0]]) {
    case kParamPid:
        rule.pid = value;
        break;
    case kParamPpid:
        rule.ppid = value;
        break;
    case kParamPerm:
        rule.perm = value;
        break;
    case kParamPath:
        rule.path = value;
        if (!rule.path.empty() && rule.path.back() == '/') {
            rule.path.pop_back();
        }
        break;
    case kParamKey:
        // KEPT: the key= field stores the second character of the whole parameter, not its value.
        rule.key = std::string(1, parameter[1]);
        break;
    default:
        break;
    }
    return kRuleParsed;
}

int32_t LinuxAuditUtil::auditGetSyscallNumber(const std::string& name, const std::string& arch)
{
    // KEPT: an unknown name is added with number 0 and 0 is returned; callers do not check.
    return SyscallNumbersOfRuleArch(arch)[name];
}

bool LinuxAuditUtil::getLibraryPathEnv(char* buffer, size_t length)
{
    if (buffer == nullptr || length == 0) {
        return false;
    }
    std::string home;
    if (SDK::PathUtils::GetInstallationPath(home) != 0) {
        return false;
    }
    const std::string assignment = "LD_LIBRARY_PATH=" + home + "lib";
    // Callers always hand a buffer of kPathBufferSize bytes; that is the bound.
    return SDK::strcpy_s(buffer, kPathBufferSize, assignment.c_str()) == 0;
}

bool LinuxAuditUtil::ExecAuditCmd(const std::vector<std::string>& args, std::string& output, size_t maxOutput)
{
    std::vector<std::string> argv{SDK::ExecuteCmdUtils::InstalledAuditctl()};
    if (argv.front().empty()) {
        return false;
    }
    char libraryPath[kPathBufferSize] = {0};
    if (!getLibraryPathEnv(libraryPath, sizeof(libraryPath))) {
        AUDIT_LOG_ERROR("Get audit library path failed.");
        return false;
    }
    argv.insert(argv.end(), args.begin(), args.end());
    const int status = SDK::ExecuteCmdUtils::ExecuteInstalledAuditctl(args, output, maxOutput);
    AUDIT_LOG_INFO("Execute cmd audit(%s), ret(%d), result(%s), library path(%s).", JoinWords(argv), status, output,
                   std::string(libraryPath));
    return status == 0;
}

bool LinuxAuditUtil::ExecAuditCmd(const std::vector<std::string>& args)
{
    std::string scratch;
    return ExecAuditCmd(args, scratch);
}

std::vector<std::string> LinuxAuditUtil::RuleWords(const std::string& text)
{
    std::vector<std::string> words;
    for (const std::string& piece : SDK::StrUtils::Split(text, " ")) {
        std::string word = SDK::StrUtils::Trim(piece);
        if (!word.empty()) {
            words.push_back(std::move(word));
        }
    }
    return words;
}

std::string LinuxAuditUtil::JoinWords(const std::vector<std::string>& words)
{
    std::string text;
    for (const std::string& word : words) {
        text += (text.empty() ? "" : " ") + word;
    }
    return text;
}

namespace {

constexpr std::string_view kBlanks = " \t\r\n\v\f";

std::string_view TrimView(std::string_view text)
{
    const size_t first = text.find_first_not_of(kBlanks);
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

}  // namespace

std::string LinuxAuditUtil::UnquotedText(std::string_view raw, bool* opened)
{
    std::string_view text = TrimView(raw);
    const bool leading = !text.empty() && text.front() == '"';
    if (opened != nullptr) {
        *opened = leading;
    }
    if (text.empty()) {
        return {};
    }
    if (leading) {
        text.remove_prefix(1);
        if (!text.empty() && text.back() == '"') {
            text.remove_suffix(1);
        }
        return std::string(TrimView(text));
    }
    if (text.back() == '"') {
        // A closing quote alone becomes a blank that stays (only an opened text is trimmed again).
        std::string value(text);
        value.back() = ' ';
        return value;
    }
    return std::string(text);
}

std::string LinuxAuditUtil::GetField(const std::string& name, const std::string& line)
{
    // name + "=" as a plain substring, searched without building the needle.
    size_t at = line.find(name);
    while (at != std::string::npos && (at + name.size() >= line.size() || line[at + name.size()] != '=')) {
        at = line.find(name, at + 1);
    }
    if (at == std::string::npos) {
        return {};
    }
    const size_t start = at + name.size() + 1;
    // The value ends at a space, at the 0x1d that starts auditd's ENRICHED interpretation, or at
    // the end of the line (searched from the match start, as the field's own text has neither).
    size_t end = start;
    while (end < line.size() && line[end] != ' ' && line[end] != '\x1d') {
        ++end;
    }
    return UnquotedText(std::string_view(line).substr(start, end - start));
}

// KEPT: the second trim runs only after a closing quote was taken, so a text with a closing
// quote alone keeps a trailing blank.
bool LinuxAuditUtil::TrimQuotation(std::string& text)
{
    bool opened = false;
    text = UnquotedText(text, &opened);
    return opened;
}

void LinuxAuditUtil::TrimPrefix(std::string& text, const std::string& prefix)
{
    if (SDK::StrUtils::StartWith(text, prefix)) {
        text.erase(0, prefix.size());
    }
}

void LinuxAuditUtil::toHexString(std::string& text)
{
    if (SDK::StrUtils::StartWith(text, "0x")) {
        text.erase(0, 2);
        return;
    }
    const long value = std::stol(text, nullptr, 10);
    if (value < INT32_MIN || value > INT32_MAX) {
        throw std::out_of_range("toHexString: " + text);
    }
    char buffer[16] = {0};
    SDK::snprintf_s(buffer, sizeof(buffer), "%x", static_cast<uint32_t>(static_cast<int32_t>(value)));
    text = buffer;
}

SDK::AuditFields& LinuxAuditUtil::getSyscallMsg(SDK::AuditEvent& event)
{
    static SDK::AuditFields empty;
    if (SDK::AuditFields* fields = event.FindRecord("SYSCALL")) {
        return *fields;
    }
    AUDIT_LOG_ERROR("can not get syscall record");
    // Both task threads come here; the map is only written when a caller filled it.
    if (!empty.empty()) {
        empty.Clear();
    }
    return empty;
}

Framework::ContainerMetaInfo* LinuxAuditUtil::GetContainerMeta()
{
    ++g_containerMetaCalls;
    if (g_containerMeta != nullptr || g_containerMetaCalls > 9) {
        return g_containerMeta;
    }
    Framework::Engine* engine = Framework::Engine::Current();
    Framework::Task* task = engine == nullptr ? nullptr : engine->FindTask(Framework::kContainerCollectTaskName);
    g_containerMeta = dynamic_cast<Framework::ContainerMetaInfo*>(task);
    return g_containerMeta;
}

void LinuxAuditUtil::ResetContainerMetaCache()
{
    g_containerMeta = nullptr;
    g_containerMetaCalls = 0;
}

std::string LinuxAuditUtil::WithoutTrailingSlashes(std::string path)
{
    while (path.size() > 1 && path.back() == '/') {
        path.pop_back();
    }
    return path;
}

std::pair<std::string, std::string> LinuxAuditUtil::SplitLastComponent(const std::string& path)
{
    std::string whole = WithoutTrailingSlashes(path);
    const size_t slash = whole.rfind('/');
    if (slash == std::string::npos) {
        return {std::string(), whole};
    }
    return {slash == 0 ? std::string("/") : whole.substr(0, slash), whole.substr(slash + 1)};
}

namespace {

std::string Joined(const std::string& dir, const std::string& name)
{
    return dir.back() == '/' ? dir + name : dir + "/" + name;
}

}  // namespace

std::string LinuxAuditUtil::RealPathOfParent(const std::string& path)
{
    // Only a directory that resolves whole counts: the prefix realpath leaves behind for a missing
    // component would drop the components after it.
    const auto [dir, name] = SplitLastComponent(path);
    const bool whole = dir.empty() || name.empty() || name == "." || name == "..";
    char resolved[PATH_MAX + 1] = {0};
    if (realpath(whole ? path.c_str() : dir.c_str(), resolved) == nullptr) {
        return path;
    }
    return whole ? std::string(resolved) : Joined(resolved, name);
}

std::string LinuxAuditUtil::RealPathInRoot(const std::string& base, const std::string& path)
{
    const auto [dir, name] = SplitLastComponent(path);
    if (dir.empty() || name.empty() || name == "." || name == "..") {
        return {};
    }
    const int root = open(base.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (root < 0) {
        return {};
    }
    open_how how{};
    how.flags = O_PATH | O_DIRECTORY | O_CLOEXEC;
    how.resolve = RESOLVE_IN_ROOT | RESOLVE_NO_MAGICLINKS;
    const int fd = static_cast<int>(syscall(SYS_openat2, root, dir.c_str(), &how, sizeof(how)));
    close(root);
    if (fd < 0) {
        return {};
    }
    char resolved[PATH_MAX + 1] = {0};
    const std::string link = "/proc/self/fd/" + std::to_string(fd);
    const ssize_t length = readlink(link.c_str(), resolved, PATH_MAX);
    close(fd);
    return length <= 0 ? std::string() : Joined(std::string(resolved, static_cast<size_t>(length)), name);
}

bool IsChildFileNoRecursive(const std::string& dir, const std::string& file)
{
    // KEPT: a directory given with a trailing slash never has children here, though it has below
    // it (IsChildFile); rule paths are canonical, without one.
    return !dir.empty() && dir.back() != '/' && SDK::PathUtils::IsBelow(dir, file) &&
           file.find('/', dir.size() + 1) == std::string::npos;
}

}  // namespace Engine
