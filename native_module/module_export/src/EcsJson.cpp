#include "EcsJson.h"

#include "FileIntegrity.h"

#include "EventJson.h"
#include "FileNotify.h"
#include "SyscallTables.h"

#include "sdk/JsonWriter.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <chrono>
#include <cstring>
#include <ctime>
#include <fstream>

namespace Export {

namespace {

constexpr uint32_t kUnsetId = 4294967295U;  // (uid_t)-1: never set, such as a login uid outside a session

bool ParseDecimal(std::string_view text, uint64_t& value)
{
    const auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    return ec == std::errc() && ptr == text.data() + text.size() && !text.empty();
}

int32_t ParsePid(std::string_view text)
{
    uint64_t value = 0;
    return ParseDecimal(text, value) && value <= INT32_MAX ? static_cast<int32_t>(value) : -1;
}

std::string_view ArchName(std::string_view arch)
{
    if (Engine::IsRecordArch64(arch)) {
        return "x86_64";
    }
    if (arch == Engine::kAuditArch32) {
        return "i386";
    }
    return arch;
}

std::string SyscallName(std::string_view arch, std::string_view number)
{
    uint64_t value = 0;
    std::string name;
    if (ParseDecimal(number, value) && value <= INT32_MAX) {
        const auto n = static_cast<int32_t>(value);
        if (Engine::IsRecordArch64(arch)) {
            Engine::syscallNumberToName64.Find(n, name);
        } else if (arch == Engine::kAuditArch32) {
            Engine::syscallNumberToName32.Find(n, name);
        }
    }
    return name.empty() ? std::string(number) : name;
}

// What ECS calls a system call's event: its category and types.
struct CallKind {
    const char* category;
    const char* type;
    const char* secondType;
};

CallKind KindOfCall(std::string_view name)
{
    struct Row {
        const char* names;  // blank-separated
        CallKind kind;
    };
    static const Row kRows[] = {
        {"execve execveat", {"process", "start", nullptr}},
        {"exit exit_group", {"process", "end", nullptr}},
        {"connect", {"network", "connection", "start"}},
        {"accept accept4", {"network", "connection", "start"}},
        {"bind listen sendto sendmsg sendmmsg recvfrom recvmsg recvmmsg", {"network", "info", nullptr}},
        {"mkdir mkdirat mknod mknodat creat link linkat symlink symlinkat", {"file", "creation", nullptr}},
        {"unlink unlinkat rmdir", {"file", "deletion", nullptr}},
        {"rename renameat renameat2 chmod fchmod fchmodat fchmodat2 chown fchown fchownat lchown truncate "
         "ftruncate setxattr lsetxattr fsetxattr removexattr lremovexattr fremovexattr utime utimes utimensat "
         "futimesat",
         {"file", "change", nullptr}},
        {"open openat openat2 open_by_handle_at", {"file", "access", nullptr}},
        {"ptrace process_vm_readv process_vm_writev", {"process", "access", nullptr}},
        {"setuid setgid setreuid setregid setresuid setresgid setfsuid setfsgid setgroups capset",
         {"process", "change", nullptr}},
    };
    for (const Row& row : kRows) {
        std::string_view names(row.names);
        while (!names.empty()) {
            const size_t end = names.find(' ');
            if (names.substr(0, end) == name) {
                return row.kind;
            }
            names = end == std::string_view::npos ? std::string_view() : names.substr(end + 1);
        }
    }
    return {"process", "info", nullptr};
}

// What ECS calls a file notification's event.
CallKind KindOfNotification(int kind)
{
    switch (kind) {
    case Engine::kNotifyCreate: return {"file", "creation", nullptr};
    case Engine::kNotifyDelete: return {"file", "deletion", nullptr};
    case Engine::kNotifyModify:
    case Engine::kNotifyAttrib:
    case Engine::kNotifyMovedFrom:
    case Engine::kNotifyMovedTo:
    case Engine::kNotifyMove: return {"file", "change", nullptr};
    default: return {"file", "info", nullptr};
    }
}

// A decimal id with its name (left out when unknown) as an object's id and name members.
void IdAndName(SDK::JsonWriter& json, std::string_view id, const std::string* name)
{
    json.Field("id", id);
    if (name != nullptr) {
        json.Field("name", *name);
    }
}

// The syscall record's view of the world, shared by events and notifications.
class ActorWriter {
public:
    ActorWriter(SDK::JsonWriter& json, const SDK::AuditFields& syscall, Enrichment& enrichment, const std::string& root)
        : json_(json), syscall_(syscall), enrichment_(enrichment), root_(root) {}

    // user.*: real, login, effective, saved and file-system ids, each with its group.
    void User()
    {
        json_.Key("user");
        json_.BeginObject();
        Id("uid", false);
        Group("gid");
        const std::string_view auid = syscall_.View("auid");
        uint64_t value = 0;
        if (ParseDecimal(auid, value) && value != kUnsetId) {
            json_.Key("audit");
            json_.BeginObject();
            Id("auid", false);
            json_.EndObject();
        }
        const char* kinds[][3] = {{"effective", "euid", "egid"}, {"saved", "suid", "sgid"}, {"filesystem", "fsuid", "fsgid"}};
        for (const auto& kind : kinds) {
            if (syscall_.Has(kind[1])) {
                json_.Key(kind[0]);
                json_.BeginObject();
                Id(kind[1], false);
                Group(kind[2]);
                json_.EndObject();
            }
        }
        json_.EndObject();
    }

    // process.parent.* of the process table, left out when the parent is not known.
    void Parent(int32_t ppid, uint64_t timeMs)
    {
        if (ppid <= 0) {
            return;
        }
        json_.Key("parent");
        json_.BeginObject();
        json_.Field("pid", ppid);
        if (const ProcessFacts* parent = enrichment_.Process(ppid, timeMs)) {
            if (!parent->executable.empty()) {
                json_.Field("executable", parent->executable);
            }
            json_.Field("name", parent->name);
            Args(parent->args);
        }
        json_.EndObject();
    }

    void Args(const std::vector<std::string>& args)
    {
        json_.Key("args");
        json_.BeginArray();
        for (const std::string& arg : args) {
            json_.String(arg);
        }
        json_.EndArray();
    }

private:
    void Id(const char* field, bool group)
    {
        const std::string_view id = syscall_.View(field);
        uint64_t value = 0;
        std::string name;
        const bool known = ParseDecimal(id, value) && value <= UINT32_MAX &&
                           (group ? enrichment_.GroupName(root_, static_cast<uint32_t>(value), name)
                                  : enrichment_.UserName(root_, static_cast<uint32_t>(value), name));
        IdAndName(json_, id, known ? &name : nullptr);
    }

    void Group(const char* field)
    {
        if (!syscall_.Has(field)) {
            return;
        }
        json_.Key("group");
        json_.BeginObject();
        Id(field, true);
        json_.EndObject();
    }

    SDK::JsonWriter& json_;
    const SDK::AuditFields& syscall_;
    Enrichment& enrichment_;
    const std::string& root_;
};

void Header(SDK::JsonWriter& json, const EcsSettings& settings, uint64_t timeMs, const std::string& tag)
{
    json.Field("@timestamp", Rfc3339Ms(timeMs));
    json.Key("ecs");
    json.BeginObject();
    json.Field("version", kEcsVersion);
    json.EndObject();
    json.Key("host");
    json.BeginObject();
    json.Field("name", settings.hostName);
    if (!settings.hostId.empty()) {
        json.Field("id", settings.hostId);
    }
    json.EndObject();
    json.Key("agent");
    json.BeginObject();
    json.Field("type", "hostwarden");
    json.Field("name", settings.hostName);
    json.Field("version", settings.agentVersion);
    json.EndObject();
    if (!tag.empty()) {
        json.Key("tags");
        json.BeginArray();
        json.String(tag);
        json.EndArray();
    }
}

void EventPart(SDK::JsonWriter& json, const CallKind& kind, std::string_view action, std::string_view outcome,
               std::string_view id, const std::string* original, const char* reason = nullptr)
{
    json.Key("event");
    json.BeginObject();
    json.Field("kind", "event");
    json.Key("category");
    json.BeginArray();
    json.String(kind.category);
    json.EndArray();
    json.Key("type");
    json.BeginArray();
    json.String(kind.type);
    if (kind.secondType != nullptr) {
        json.String(kind.secondType);
    }
    json.EndArray();
    json.Field("action", action);
    json.Field("outcome", outcome);
    if (!id.empty()) {
        json.Field("id", id);
    }
    if (original != nullptr) {
        json.Field("original", *original);
    }
    if (reason != nullptr) {
        json.Field("reason", reason);
    }
    json.EndObject();
}

std::string_view Outcome(std::string_view success)
{
    return success == "yes" ? "success" : success == "no" ? "failure" : "unknown";
}

// hostwarden.container: what ECS has no field for.
void ContainerRoot(SDK::JsonWriter& json, const ContainerFacts& container)
{
    json.Key("container");
    json.BeginObject();
    json.Field("root_path", container.rootPath);
    json.EndObject();
}

void ContainerPart(SDK::JsonWriter& json, const ContainerFacts& container)
{
    json.Key("container");
    json.BeginObject();
    json.Field("id", container.id);
    if (!container.runtime.empty()) {
        json.Key("runtime");
        json.String(container.runtime);
    }
    json.EndObject();
}

// The address of a SOCKADDR record: a local socket's path, or an IP address and port.
struct Address {
    std::string type;  // network.type: ipv4, ipv6, unix
    std::string ip;
    std::string address;
    int port = -1;
};

bool SocketAddress(const Engine::AuditEvent& event, Address& address)
{
    if (event.family == 2) {
        address = {"ipv4", event.saddr, event.saddr, event.port};
        return true;
    }
    if (event.family == 1) {
        address = {"unix", "", event.saddr, -1};
        return !event.saddr.empty();
    }
    const SDK::AuditFields* record = event.parsedEvent.FindRecord("SOCKADDR");
    if (event.family == 10 && record != nullptr) {
        const std::string bytes = SDK::AuditValueText(record->View("saddr"));
        if (bytes.size() >= 24) {
            char text[INET6_ADDRSTRLEN] = {};
            inet_ntop(AF_INET6, bytes.data() + 8, text, sizeof(text));
            address = {"ipv6", text, text, (static_cast<uint8_t>(bytes[2]) << 8) | static_cast<uint8_t>(bytes[3])};
            return true;
        }
    }
    return false;
}

void AddressPart(SDK::JsonWriter& json, std::string_view call, const Address& address)
{
    const bool outgoing = call == "connect" || call == "sendto" || call == "sendmsg" || call == "sendmmsg";
    json.Key(outgoing ? "destination" : "source");
    json.BeginObject();
    if (!address.ip.empty()) {
        json.Field("ip", address.ip);
    }
    if (address.port >= 0) {
        json.Field("port", address.port);
    }
    json.Field("address", address.address);
    json.EndObject();
    json.Key("network");
    json.BeginObject();
    json.Field("type", address.type);
    json.EndObject();
}

void AuditdPart(SDK::JsonWriter& json, const SDK::AuditFields& syscall, std::string_view call, uint64_t serial,
                const Engine::AuditEvent* event)
{
    json.Key("auditd");
    json.BeginObject();
    if (serial != 0) {
        json.Field("sequence", serial);
    }
    json.Field("result", Outcome(syscall.View("success")) == "success" ? "success" : "fail");
    json.Field("session", syscall.View("ses"));
    json.Key("data");
    json.BeginObject();
    json.Field("syscall", call);
    json.Field("arch", ArchName(syscall.View("arch")));
    for (const char* name : {"a0", "a1", "a2", "a3", "exit", "tty"}) {
        if (syscall.Has(name)) {
            json.Field(name, syscall.View(name));
        }
    }
    // The kernel rule's key, which names the agent's subscription; "(null)" when it has none.
    const std::string key = SDK::AuditValueText(syscall.View("key"));
    if (!key.empty() && key != "(null)") {
        json.Field("key", key);
    }
    json.EndObject();
    if (event != nullptr && !event->paths.empty()) {
        json.Key("paths");
        json.BeginArray();
        for (const Engine::AuditLogPath& path : event->paths) {
            json.BeginObject();
            json.Field("item", path.item);
            json.Field("name", SDK::AuditValueText(path.name));
            json.Field("nametype", path.nametype);
            json.Field("inode", path.inode);
            json.Field("dev", path.dev);
            json.Field("mode", path.mode);
            json.Field("ouid", path.ouid);
            json.Field("ogid", path.ogid);
            json.Field("rdev", path.rdev);
            json.EndObject();
        }
        json.EndArray();
    }
    json.EndObject();
}

std::string Octal(unsigned value)
{
    char text[16];
    std::snprintf(text, sizeof(text), "%04o", value);
    return text;
}

// A time before 1970 (a file's mtime can be set so) is written as the epoch.
std::string NsTime(int64_t ns)
{
    return Rfc3339Ms(ns < 0 ? 0 : static_cast<uint64_t>(ns / 1000000));
}

// The file.* attributes of facts: those of the changes bits only, or all of them.
void FileAttributes(SDK::JsonWriter& json, const Integrity::FileFacts& facts, Enrichment& enrichment, uint32_t only = ~0U)
{
    const auto wanted = [only](uint32_t bit) { return (only & bit) != 0; };
    if (wanted(Integrity::kChangedType)) {
        json.Field("type", Integrity::TypeName(facts.mode));
    }
    if (wanted(Integrity::kChangedInode)) {
        json.Field("inode", std::to_string(facts.inode));
        json.Field("device", std::to_string(major(facts.device)) + ":" + std::to_string(minor(facts.device)));
    }
    if (wanted(Integrity::kChangedMode)) {
        json.Field("mode", Octal(facts.mode & 07777));
    }
    std::string name;
    if (wanted(Integrity::kChangedOwner)) {
        json.Field("uid", std::to_string(facts.uid));
        if (enrichment.UserName("", facts.uid, name)) {
            json.Field("owner", name);
        }
    }
    if (wanted(Integrity::kChangedGroup)) {
        json.Field("gid", std::to_string(facts.gid));
        if (enrichment.GroupName("", facts.gid, name)) {
            json.Field("group", name);
        }
    }
    if (wanted(Integrity::kChangedSize)) {
        json.Field("size", facts.size);
    }
    if (wanted(Integrity::kChangedMtime)) {
        json.Field("mtime", NsTime(facts.mtimeNs));
    }
    if (only == ~0U) {
        json.Field("ctime", NsTime(facts.ctimeNs));
    }
    if (wanted(Integrity::kChangedContent) && facts.hash == Integrity::HashState::kDone) {
        json.Key("hash");
        json.BeginObject();
        json.Field("sha256", Integrity::Hex(facts.sha256));
        json.EndObject();
    }
}

// What the baseline adds to hostwarden.file: what changed, the values before, and why a file
// has no hash.
void ChangeFields(SDK::JsonWriter& json, const FileChange& change, Enrichment& enrichment)
{
    using Integrity::HashState;
    if (change.before && change.after) {
        json.Key("changes");
        json.BeginArray();
        for (const char* name : Integrity::ChangeNames(change.changes)) {
            json.String(name);
        }
        json.EndArray();
        if (change.before->hash == HashState::kDone && change.after->hash == HashState::kDone) {
            json.Field("content", (change.changes & Integrity::kChangedContent) != 0 ? "changed" : "unchanged");
        }
    }
    if (change.after) {
        static const char* const kStates[] = {nullptr, nullptr, "too_large", "unreadable", "unstable"};
        const auto state = static_cast<size_t>(change.after->hash);
        if (state < sizeof(kStates) / sizeof(kStates[0]) && kStates[state] != nullptr) {
            json.Field("hash_state", kStates[state]);
        }
    }
    // Before a change: what changed. Before a deletion: all that was known.
    const uint32_t only = change.after ? change.changes : ~0U;
    if (change.before && only != 0) {
        json.Key("before");
        json.BeginObject();
        FileAttributes(json, *change.before, enrichment, only);
        json.EndObject();
    }
    if (change.below > 0) {
        json.Field("entries_below", change.below);
    }
}

}  // namespace

EcsSettings HostEcsSettings()
{
    EcsSettings settings;
    char name[256] = {};
    if (gethostname(name, sizeof(name) - 1) == 0) {
        settings.hostName = name;
    }
    std::ifstream machineId("/etc/machine-id");
    std::getline(machineId, settings.hostId);
    settings.agentVersion = HW_AGENT_VERSION;
    return settings;
}

std::string Rfc3339Ms(uint64_t ms)
{
    const auto seconds = static_cast<time_t>(ms / 1000);
    tm utc{};
    gmtime_r(&seconds, &utc);
    char text[64];
    std::snprintf(text, sizeof(text), "%04d-%02d-%02dT%02d:%02d:%02d.%03uZ", utc.tm_year + 1900, utc.tm_mon + 1,
                  utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, static_cast<unsigned>(ms % 1000));
    return text;
}

ExecArgs DecodeExecArgs(const SDK::AuditEvent& event, size_t maxBytes)
{
    ExecArgs result;
    size_t kept = 0;
    bool over = false;     // the bound is reached: pieces from here on are counted only
    uint64_t laterArgs = 0;   // arguments after the one that crossed the bound
    uint64_t droppedBytes = 0;
    int64_t current = -1;  // the argument the last piece belonged to
    for (const SDK::AuditFields* record : event.FindRecords("EXECVE")) {
        for (const auto& [name, value] : *record) {
            if (name == "argc") {
                ParseDecimal(value, result.count);
                continue;
            }
            // aN, aN_len (the length of a split argument, not needed) or aN[i].
            if (name.size() < 2 || name[0] != 'a') {
                continue;
            }
            const size_t digitsEnd = std::min(name.find_first_not_of("0123456789", 1), name.size());
            uint64_t index = 0;
            if (!ParseDecimal(name.substr(1, digitsEnd - 1), index) || name.substr(digitsEnd) == "_len") {
                continue;
            }
            const bool newArgument = static_cast<int64_t>(index) != current;
            current = static_cast<int64_t>(index);
            if (over) {
                const bool quoted = value.size() >= 2 && value.front() == '"';
                droppedBytes += quoted ? value.size() - 2 : value.size() / 2;
                laterArgs += newArgument ? 1 : 0;
                continue;
            }
            std::string piece = SDK::AuditValueText(value);
            if (newArgument) {
                result.args.emplace_back();
            }
            if (kept + piece.size() > maxBytes) {
                // One byte past the bound shows CutArgs where to cut; the rest is counted here.
                const size_t room = maxBytes - kept + 1;
                droppedBytes += piece.size() - room;
                piece.resize(room);
                over = true;
            }
            kept += piece.size();
            result.args.back() += piece;
        }
    }
    if (over) {
        CutArgs(result.args, maxBytes, laterArgs, droppedBytes);
    }
    return result;
}

std::string ProcessTitle(std::string_view raw)
{
    std::string title = SDK::AuditValueText(raw);
    while (!title.empty() && title.back() == '\0') {
        title.pop_back();
    }
    std::replace(title.begin(), title.end(), '\0', ' ');
    return title;
}

EcsEncoder::EcsEncoder(EcsSettings settings, Enrichment& enrichment)
    : settings_(std::move(settings)), enrichment_(enrichment) {}

void EcsEncoder::AppendEvent(std::string& line, const Engine::AuditEvent& event, const std::string& tag)
{
    static const SDK::AuditFields kNoFields;
    const SDK::AuditFields* found = event.parsedEvent.FindRecord("SYSCALL");
    const SDK::AuditFields& syscall = found != nullptr ? *found : kNoFields;
    const uint64_t timeMs = event.parsedEvent.header[0];
    const std::string call = SyscallName(syscall.View("arch"), syscall.View("syscall"));
    const int32_t pid = ParsePid(event.pid);
    const int32_t ppid = ParsePid(event.ppid);
    ContainerFacts container;
    const bool inContainer = enrichment_.Container(pid, ppid, container);

    SDK::JsonWriter json(line);
    json.BeginObject();
    Header(json, settings_, timeMs, tag);
    std::string original;
    if (settings_.original) {
        for (const std::string& raw : event.lines) {
            original += original.empty() ? "" : "\n";
            original += raw;
        }
    }
    EventPart(json, KindOfCall(call), call, Outcome(event.success), std::to_string(event.parsedEvent.header[1]),
              settings_.original ? &original : nullptr);
    ActorWriter actor(json, syscall, enrichment_, container.rootPath);
    actor.User();

    json.Key("process");
    json.BeginObject();
    json.Field("pid", pid);
    json.Field("executable", event.exe);
    json.Field("name", event.comm);
    const bool started = event.isExecve && event.success == "yes";
    ExecArgs exec;
    if (event.isExecve) {
        exec = DecodeExecArgs(event.parsedEvent, settings_.maxArgBytes);
        actor.Args(exec.args);
        json.Field("args_count", exec.count);
    } else if (const ProcessFacts* known = enrichment_.Process(pid, timeMs)) {
        actor.Args(known->args);
        json.Field("args_count", known->args.size());
    }
    if (const SDK::AuditFields* title = event.parsedEvent.FindRecord("PROCTITLE")) {
        json.Field("title", ProcessTitle(title->View("proctitle")));
    }
    if (!event.cwd.empty()) {
        json.Field("working_directory", event.cwd);
    }
    actor.Parent(ppid, timeMs);
    json.EndObject();

    Address address;
    if (SocketAddress(event, address)) {
        AddressPart(json, call, address);
    }
    if (inContainer) {
        ContainerPart(json, container);
    }
    AuditdPart(json, syscall, call, 0, &event);

    if (inContainer || !event.paths.empty()) {
        json.Key("hostwarden");
        json.BeginObject();
        if (inContainer) {
            ContainerRoot(json, container);
        }
        if (!event.paths.empty()) {
            json.Key("paths");
            json.BeginArray();
            for (const Engine::AuditLogPath& path : event.paths) {
                json.BeginObject();
                json.Field("path", path.path);
                json.Field("host_path", path.hostPath);
                json.EndObject();
            }
            json.EndArray();
        }
        json.EndObject();
    }
    json.EndObject();

    if (started && pid > 0) {
        ProcessFacts facts;
        facts.ppid = ppid;
        facts.executable = event.exe;
        facts.name = event.comm;
        facts.args = std::move(exec.args);
        enrichment_.Exec(pid, timeMs, std::move(facts));
    }
}

void EcsEncoder::AppendNotice(std::string& line, const AgentNotice& notice, uint64_t timeMs)
{
    SDK::JsonWriter json(line);
    json.BeginObject();
    Header(json, settings_, timeMs, notice.tag);
    json.Key("event");
    json.BeginObject();
    json.Field("kind", "metric");
    json.Field("action", notice.action);
    json.EndObject();
    AppendNoticeFields(json, notice);
    json.EndObject();
}

void EcsEncoder::AppendNotification(std::string& line, const Engine::AuditEventResult& result, const std::string& tag,
                                    const FileChange* change)
{
    SDK::AuditFields syscall;
    for (const auto& [name, value] : result.extra) {
        syscall.Add(name, value);
    }
    uint64_t timeMs = 0;
    if (!ParseDecimal(syscall.View(Engine::kNotifyTimeMs), timeMs)) {
        timeMs = static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                           std::chrono::system_clock::now().time_since_epoch())
                                           .count());
    }
    uint64_t serial = 0;
    ParseDecimal(syscall.View(Engine::kNotifySerial), serial);
    const std::string call = SyscallName(syscall.View("arch"), syscall.View("syscall"));
    const int32_t pid = ParsePid(syscall.View("pid"));
    const int32_t ppid = ParsePid(syscall.View("ppid"));
    ContainerFacts container;
    const bool inContainer = enrichment_.Container(pid, ppid, container);
    const std::string kind = NotificationKindName(result.event);
    // The file where it is now: a move's destination, when the move left one.
    const bool moved = !result.destPath.empty();
    const std::string& now = moved ? result.destPath : result.path;

    SDK::JsonWriter json(line);
    json.BeginObject();
    Header(json, settings_, timeMs, tag);
    EventPart(json, KindOfNotification(result.event), kind,
              Outcome(syscall.View("success")), serial != 0 ? std::to_string(serial) : std::string(), nullptr,
              change != nullptr ? change->reason : nullptr);

    json.Key("file");
    json.BeginObject();
    json.Field("path", now);
    Integrity::FileFacts facts;
    int error = 0;
    if (change != nullptr ? change->after.has_value() : Integrity::StatFacts(AT_FDCWD, now.c_str(), facts, error)) {
        FileAttributes(json, change != nullptr ? *change->after : facts, enrichment_);
    } else {
        json.Field("type", result.isDir ? "dir" : "file");
    }
    json.EndObject();

    if (syscall.Has("pid")) {
        ActorWriter actor(json, syscall, enrichment_, container.rootPath);
        actor.User();
        json.Key("process");
        json.BeginObject();
        json.Field("pid", pid);
        json.Field("executable", syscall.View("exe"));
        json.Field("name", syscall.View("comm"));
        if (const ProcessFacts* known = enrichment_.Process(pid, timeMs)) {
            actor.Args(known->args);
            json.Field("args_count", known->args.size());
        }
        actor.Parent(ppid, timeMs);
        json.EndObject();
        if (inContainer) {
            ContainerPart(json, container);
        }
        AuditdPart(json, syscall, call, serial, nullptr);
    }
    json.Key("hostwarden");
    json.BeginObject();
    json.Key("file");
    json.BeginObject();
    if (moved) {
        json.Field("old_path", result.path);
    }
    json.Field("is_dir", result.isDir);
    for (const char* name : {"access", "oaccess", "ouid", "cuid", "ogid", "cgid"}) {
        if (syscall.Has(name)) {
            json.Field(name, syscall.View(name));
        }
    }
    if (change != nullptr) {
        ChangeFields(json, *change, enrichment_);
    }
    json.EndObject();
    if (inContainer) {
        ContainerRoot(json, container);
    }
    json.EndObject();
    json.EndObject();
}

}  // namespace Export
