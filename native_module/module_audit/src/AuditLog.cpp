#include "AuditLog.h"

#include "RuleKey.h"

#include "AuditConstants.h"
#include "AuditLogging.h"
#include "AuditMessages.h"
#include "AuditRules.h"
#include "AuditUtil.h"
#include "SyscallTables.h"

#include "container/ContainerMetaInfo.h"
#include "sdk/PathUtils.h"
#include "sdk/StrUtils.h"

#include <sys/socket.h>
#include <cctype>
#include <charconv>
#include <climits>
#include <cstdlib>

namespace Engine {

namespace {

template <typename Map>
void EraseTask(Map& routes, const Framework::Task* task)
{
    for (auto it = routes.begin(); it != routes.end();) {
        AUDIT_CPU_CHECK(kAuditTaskName);
        it = it->second.task == task ? routes.erase(it) : std::next(it);
    }
}

}  // namespace

bool setPermission(auditFileSystemDest& dest, std::string& perm)
{
    perm = SDK::StrUtils::Trim(perm);
    bool known = true;
    for (const char letter : perm) {
        switch (letter) {
        case 'r': dest.read = 1; break;
        case 'w': dest.write = 1; break;
        case 'x': dest.exec = 1; break;
        case 'a': dest.attr = 1; break;
        default: known = false; break;
        }
    }
    if (!known) {
        dest.read = dest.write = dest.exec = dest.attr = 1;
    }
    return known;
}

AuditLog::AuditLog(Framework::Task* owner, AuditRules* rules) : owner_(owner), rules_(rules) {}

AuditLog::~AuditLog() = default;  // events still open are dropped undelivered

SyscallRouteMap& AuditLog::GetSyscallMap(const SyscallRule& rule)
{
    return IsRuleArch32(rule.arch) ? syscallRoutes32 : syscallRoutes64;
}

namespace {

// The destination of the message's (sender, tag) among the routes under key, or the range's end.
template <typename Map, typename Key, typename Message>
bool FindDest(Map& routes, const Key& key, const Message& msg, typename Map::iterator& found)
{
    auto [it, end] = routes.equal_range(key);
    for (; it != end; ++it) {
        if (it->second.task == msg.sender && it->second.tag == msg.tag) {
            found = it;
            return true;
        }
    }
    found = end;
    return false;
}

}  // namespace

bool AuditLog::FindLogDest(int32_t number, SyscallRouteMap& routes, const AuditSyscallCtrlMessage& msg,
                           SyscallRouteMap::iterator& found)
{
    return FindDest(routes, number, msg, found);
}

bool AuditLog::FindLogDest(const std::string& path, const AuditFileSystemCtrlMessage& msg, PathRouteMap::iterator& found)
{
    return FindDest(pathRoutes, path, msg, found);
}

void AuditLog::AddLogRoute(const AuditSyscallCtrlMessage& msg, const SyscallRule& rule)
{
    SyscallRouteMap& routes = GetSyscallMap(rule);
    for (const std::string& name : rule.syscalls) {
        const int32_t number = LinuxAuditUtil::auditGetSyscallNumber(name, rule.arch);
        SyscallRouteMap::iterator it;
        if (!FindLogDest(number, routes, msg, it)) {
            auditSyscallDest dest;
            dest.task = msg.sender;
            dest.tag = msg.tag;
            dest.hasFilter = static_cast<uint8_t>(rule.hasFilter);
            dest.success = rule.success;
            dest.exit = rule.exit;
            dest.a0 = rule.a0;
            dest.a1 = rule.a1;
            dest.a2 = rule.a2;
            dest.a3 = rule.a3;
            AUDIT_LOG_TRACE("add syscall %d to route table %s %s", number, msg.rule, msg.tag);
            it = routes.emplace(number, std::move(dest));  // after existing entries of the number
        }
        // KEPT: an existing destination keeps the filters of the subscription that created it;
        // later ones of the same task and tag only add pids and ppids.
        auditSyscallDest& dest = it->second;
        AUDIT_LOG_TRACE("add audit route %d %s", number, dest.tag);
        if (!rule.pid.empty()) {
            dest.pids.insert(rule.pid);
        }
        if (!rule.ppid.empty()) {
            AUDIT_LOG_TRACE("add ppid %s cmd %s", rule.ppid, msg.rule);
            dest.ppids.insert(rule.ppid);
        }
    }
}

void AuditLog::AddLogRoute(const AuditFileSystemCtrlMessage& msg, const FileSystemRule& rule)
{
    PathRouteMap::iterator it;
    if (!FindLogDest(rule.path, msg, it)) {
        auditFileSystemDest dest;
        dest.task = msg.sender;
        dest.tag = msg.tag;
        std::string perm = rule.perm;
        setPermission(dest, perm);
        it = pathRoutes.emplace(rule.path, std::move(dest));
    }
    auditFileSystemDest& dest = it->second;
    if (!rule.pid.empty()) {
        dest.pids.insert(rule.pid);
    }
    if (!rule.ppid.empty()) {
        dest.ppids.insert(rule.ppid);
    }
    if (!rule.key.empty()) {
        dest.keys.insert(rule.key);
    }
}

void AuditLog::DeleteLogRoute(const AuditSyscallCtrlMessage& msg, const SyscallRule& rule)
{
    SyscallRouteMap& routes = GetSyscallMap(rule);
    const std::string who = SenderName(msg.sender) + msg.tag;
    for (const std::string& name : rule.syscalls) {
        const int32_t number = LinuxAuditUtil::auditGetSyscallNumber(name, rule.arch);
        SyscallRouteMap::iterator it;
        if (!FindLogDest(number, routes, msg, it)) {
            continue;
        }
        auditSyscallDest& dest = it->second;
        if (rule.pid.empty() && rule.ppid.empty()) {
            routes.erase(it);
            continue;
        }
        if (!rule.pid.empty() && dest.pids.erase(rule.pid) == 0) {
            AUDIT_LOG_TRACE("%s", who + " delete a syscall with pid " + rule.pid + ", but pid not found.");
        }
        if (!rule.ppid.empty()) {
            if (dest.ppids.erase(rule.ppid) == 0) {
                AUDIT_LOG_TRACE("%s", who + " delete a syscall with ppid " + rule.ppid + ", but ppid not found." +
                                          dest.tag + msg.rule);
            } else {
                AUDIT_LOG_TRACE("delete ppid %s, cmd %s", rule.ppid, msg.rule);
            }
        }
        if (dest.pids.empty() && dest.ppids.empty()) {
            routes.erase(it);
        }
    }
}

void AuditLog::DeleteLogRoute(const AuditFileSystemCtrlMessage& msg, const FileSystemRule& rule)
{
    PathRouteMap::iterator it;
    if (!FindLogDest(rule.path, msg, it)) {
        return;
    }
    auditFileSystemDest& dest = it->second;
    if (rule.pid.empty() && rule.ppid.empty() && rule.key.empty()) {
        pathRoutes.erase(it);
        return;
    }
    const std::string who = SenderName(msg.sender) + msg.tag;
    if (!rule.pid.empty() && dest.pids.erase(rule.pid) == 0) {
        AUDIT_LOG_TRACE("%s", who + " delete a path rule with pid " + rule.pid + ", but pid not found.");
    }
    // KEPT: "pathrule" without its space, as the log line has always read.
    if (!rule.ppid.empty() && dest.ppids.erase(rule.ppid) == 0) {
        AUDIT_LOG_TRACE("%s", who + " delete a pathrule with ppid " + rule.ppid + ", but ppid not found.");
    }
    if (!rule.key.empty() && dest.keys.erase(rule.key) == 0) {
        AUDIT_LOG_TRACE("%s", who + " delete a path with key " + rule.key + ", but key not found.");
    }
    if (dest.pids.empty() && dest.ppids.empty() && dest.keys.empty()) {
        pathRoutes.erase(it);
    }
}

void AuditLog::UnregisterTask(Framework::Task* task)
{
    EraseTask(syscallRoutes64, task);
    EraseTask(syscallRoutes32, task);
    EraseTask(pathRoutes, task);
}

void AuditLog::CleanLogRoute()
{
    syscallRoutes64.clear();
    syscallRoutes32.clear();
    pathRoutes.clear();
}


// ---------------------------------------------------------------------------------------------
// Record assembly
// ---------------------------------------------------------------------------------------------

namespace {

// The record types assembly collects: those of the call itself, the auxiliary ones the kernel
// writes after an event's SYSCALL record, and the two that end an event.
bool IsCollectedType(std::string_view type)
{
    static constexpr std::string_view kCollected[] = {
        "SYSCALL",   "PATH",        "CWD",       "SOCKADDR", "EXECVE",       "EOE",           "PROCTITLE",
        "BPRM_FCAPS", "CAPSET",     "FD_PAIR",   "OBJ_PID",  "IPC",          "SOCKETCALL",    "MQ_OPEN",
        "MQ_SENDRECV", "MQ_NOTIFY", "MQ_GETSETATTR", "MMAP", "KERN_MODULE",  "OPENAT2"};
    for (const std::string_view collected : kCollected) {
        if (collected == type) {
            return true;
        }
    }
    return false;
}

// The record's stamp: the text inside msg=audit(...), or empty without one.
std::string_view StampOf(const std::string& line)
{
    static constexpr std::string_view kOpen = "msg=audit(";
    const size_t begin = line.find(kOpen);
    if (begin == std::string::npos) {
        return {};
    }
    const size_t end = line.find(')', begin + kOpen.size());
    return end == std::string::npos ? std::string_view() : std::string_view(line).substr(begin + kOpen.size(), end - begin - kOpen.size());
}

}  // namespace

std::vector<AuditLog::OpenEvent>::iterator AuditLog::FindOpenEvent(std::string_view stamp)
{
    for (auto it = openEvents_.begin(); it != openEvents_.end(); ++it) {
        if (it->stamp == stamp) {
            return it;
        }
    }
    return openEvents_.end();
}

void AuditLog::CompleteEvent(std::vector<OpenEvent>::iterator open)
{
    const std::shared_ptr<AuditEvent> event = std::move(open->event);
    openEvents_.erase(open);
    ParseAndDeliverLogs(event);
}

void AuditLog::HandleOneLineLog(const std::string& line)
{
    const std::string type = LinuxAuditUtil::GetField("type", line);
    if (type == "CONFIG_CHANGE") {
        FixAuditConfigChange(line);
        AUDIT_CPU_CHECK(kAuditTaskName);
        return;
    }
    AUDIT_CPU_CHECK(kAuditTaskName);
    if (IsCollectedType(type)) {
        if (PackLogs(type, line) == 2) {
            const auto open = FindOpenEvent(StampOf(line));
            if (open == openEvents_.end()) {
                AUDIT_LOG_WARN("Find invalid audit log, finished but event is empty.");
            } else {
                CompleteEvent(open);
            }
        }
    } else {
        // A record of another kind ends the event of its stamp; the record itself is not ours.
        const auto open = FindOpenEvent(StampOf(line));
        if (open != openEvents_.end()) {
            CompleteEvent(open);
        }
    }
    AUDIT_CPU_CHECK(kAuditTaskName);
}

int AuditLog::PackLogs(std::string type, const std::string& line)
{
    const std::string_view stamp = StampOf(line);
    if (type == "SYSCALL") {
        if (const auto open = FindOpenEvent(stamp); open != openEvents_.end()) {
            CompleteEvent(open);  // the same stamp again: that event's end record never came
        }
        if (openEvents_.size() >= kMaxOpenEvents) {
            CompleteEvent(openEvents_.begin());
        }
        openEvents_.push_back({std::string(stamp), std::make_shared<AuditEvent>()});
        openEvents_.back().event->lines.reserve(8);
    }
    if (type == "PROCTITLE" || type == "EOE") {
        return 2;
    }
    if (const auto open = FindOpenEvent(stamp); open != openEvents_.end()) {
        open->event->lines.push_back(line);
        return 1;
    }
    AUDIT_LOG_WARN("Find invalid audit msg(%s), have expect log but event is empty.", line);
    return 1;
}

void AuditLog::HandleNoEofScenarios()
{
    std::vector<OpenEvent> completed;
    completed.swap(openEvents_);
    for (OpenEvent& open : completed) {
        ParseAndDeliverLogs(open.event);
    }
}

void AuditLog::FixAuditConfigChange(const std::string& line)
{
    if (rules_ == nullptr) {
        return;
    }
    // A rule of ours removed (by someone else, or by the kernel with its watched directory), or
    // an add that failed: the keeper compares with the kernel's list and puts back what is missing.
    const std::string op = LinuxAuditUtil::GetField("op", line);
    const bool removed = op == "remove_rule";
    if (removed || (op == "add_rule" && LinuxAuditUtil::GetField("res", line) == "0")) {
        const std::string key = LinuxAuditUtil::GetField("key", line);
        if (rules_->RuleExists(key)) {
            rules_->CheckRule(key, removed);
        }
    }
}

int AuditLog::ParseAndDeliverLogs(const std::shared_ptr<AuditEvent>& event)
{
    SDK::AuditParser parser;
    for (const std::string& line : event->lines) {
        parser.FeedLine(line);
    }
    parser.Flush();
    AUDIT_CPU_CHECK(kAuditTaskName);
    std::vector<SDK::AuditEvent> parsed = parser.TakeEvents();
    if (parsed.empty()) {
        AUDIT_LOG_WARN("Find parse audit log invalid.");
        return 2;
    }
    AUDIT_CPU_CHECK(kAuditTaskName);
    event->parsedEvent = std::move(parsed.front());
    if (!setSyscallInfo(event)) {
        AUDIT_LOG_WARN("Find parse audit log invalid, not find SYSCALL.");
        return 1;
    }
    setExecInfo(event);
    setFileSystemInfo(event);
    setSockaddrInfo(event);
    if (event->family != 0) {
        AUDIT_LOG_DEBUG("sockaddr family is %d, port is %d, saddr is %s", static_cast<int>(event->family),
                        static_cast<int>(event->port), event->saddr);
    }
    AUDIT_CPU_CHECK(kAuditTaskName);
    DeliverEvent(event);
    return 0;
}

// ---------------------------------------------------------------------------------------------
// Decoding
// ---------------------------------------------------------------------------------------------

int32_t DecimalOrMinusOne(std::string_view text)
{
    int32_t value = -1;
    const char* end = text.data() + text.size();
    const auto [at, error] = std::from_chars(text.data(), end, value);
    return text.empty() || error != std::errc() || at != end ? -1 : value;
}

namespace {

int DecValueFromHex(std::string_view hex)
{
    size_t i = 0;
    while (i < hex.size() && std::isspace(static_cast<unsigned char>(hex[i])) != 0) {
        ++i;
    }
    if (i < hex.size() && hex[i] == '+') {
        ++i;
    }
    if (i == hex.size()) {
        return 0;
    }
    uint32_t value = 0;
    for (; i < hex.size(); ++i) {
        const char c = hex[i];
        uint32_t digit = 0;
        if (c >= '0' && c <= '9') {
            digit = static_cast<uint32_t>(c - '0');
        } else if (c >= 'a' && c <= 'f') {
            digit = static_cast<uint32_t>(c - 'a' + 10);
        } else if (c >= 'A' && c <= 'F') {
            digit = static_cast<uint32_t>(c - 'A' + 10);
        } else {
            return 0;
        }
        if (value > 0x7ffffffU) {
            return 0;  // another digit would pass 31 bits
        }
        value = value * 16 + digit;
    }
    return value >= 0x80000000U ? 0 : static_cast<int>(value);
}

std::string StringValueFromHex(std::string_view hex)
{
    std::string text;
    text.reserve(hex.size() / 2 + 1);
    for (size_t i = 0; i < hex.size(); i += 2) {
        text.push_back(static_cast<char>(DecValueFromHex(hex.substr(i, 2))));
    }
    return text;
}

// Quotes removed when the value is quoted; otherwise the audit system's hex encoding, decoded.
std::string UnquotedOrHexDecoded(std::string_view raw)
{
    bool opened = false;
    std::string value = LinuxAuditUtil::UnquotedText(raw, &opened);
    return opened ? value : StringValueFromHex(value);
}

// The container of an event's process: the one its rule key names, else the one its parent or
// the process itself runs in; null on the host.
std::shared_ptr<Framework::ContainerInfo> ContainerOf(Framework::ContainerMetaInfo& provider, const AuditEvent& event,
                                                      int32_t pid, int32_t ppid)
{
    std::string id;
    getContainerId(event.key, id);
    std::shared_ptr<Framework::ContainerInfo> info;
    if (id.empty()) {
        if ((provider.GetContainerInfoByPid(ppid, info) || provider.GetContainerInfoByPid(pid, info)) && info) {
            AUDIT_LOG_TRACE("got a process in container, containerid %s, pid %d, ppid %d", info->id, pid, ppid);
            id = info->id;
        }
        if (id.empty()) {
            return nullptr;
        }
    }
    info.reset();
    if (!provider.GetContainerInfoById(id, info)) {
        return nullptr;
    }
    return info;
}

// The quoted text of raw without its quotes, when raw is exactly "...": a view into raw itself.
bool PlainQuoted(std::string_view raw, std::string_view& inner)
{
    if (raw.size() < 2 || raw.front() != '"' || raw.back() != '"' ||
        raw.find_first_of(" \t\r\n\v\f") != std::string_view::npos) {
        return false;
    }
    inner = raw.substr(1, raw.size() - 2);
    return true;
}

// The SYSCALL fields decoding reads, by position.
enum SyscallField { kSyscall, kItems, kPpid, kPid, kExit, kSuccess, kArch, kA0, kA1, kA2, kA3, kKey, kExe, kComm,
                    kSyscallFieldCount };

int SyscallFieldSlot(std::string_view name)
{
    switch (name.size()) {
    case 2:
        if (name[0] == 'a' && name[1] >= '0' && name[1] <= '3') {
            return kA0 + (name[1] - '0');
        }
        return -1;
    case 3:
        return name == "pid" ? kPid : name == "key" ? kKey : name == "exe" ? kExe : -1;
    case 4:
        return name == "ppid" ? kPpid : name == "exit" ? kExit : name == "arch" ? kArch : name == "comm" ? kComm : -1;
    case 5:
        return name == "items" ? kItems : -1;
    case 7:
        return name == "syscall" ? kSyscall : name == "success" ? kSuccess : -1;
    default:
        return -1;
    }
}

// The PATH fields decoding reads, by position.
enum PathField { kOuid, kOgid, kRdev, kDev, kInode, kMode, kName, kItem, kNametype, kObjtype, kPathFieldCount };

int PathFieldSlot(std::string_view name)
{
    switch (name.size()) {
    case 3:
        return name == "dev" ? kDev : -1;
    case 4:
        return name == "ouid" ? kOuid : name == "ogid" ? kOgid : name == "rdev" ? kRdev : name == "mode" ? kMode
               : name == "name" ? kName : name == "item" ? kItem : -1;
    case 5:
        return name == "inode" ? kInode : -1;
    case 7:
        return name == "objtype" ? kObjtype : -1;
    case 8:
        return name == "nametype" ? kNametype : -1;
    default:
        return -1;
    }
}

}  // namespace

int getDecValueFromHex(const std::string& hex)
{
    return DecValueFromHex(hex);
}

std::string getStringValueFromHex(const std::string& hex)
{
    return StringValueFromHex(hex);
}

bool AuditLog::setSyscallInfo(const std::shared_ptr<AuditEvent>& event)
{
    SDK::AuditFields* record = event->parsedEvent.FindRecord("SYSCALL");
    if (record == nullptr) {
        return false;
    }
    // One pass over the record; a repeated name keeps its first value, as lookups do.
    std::string_view views[kSyscallFieldCount];
    bool seen[kSyscallFieldCount] = {};
    for (const auto& [name, value] : *record) {
        const int slot = SyscallFieldSlot(name);
        if (slot >= 0 && !seen[slot]) {
            seen[slot] = true;
            views[slot] = value;
        }
    }
    std::string* const members[] = {nullptr,      nullptr,     &event->ppid, &event->pid, &event->exit,
                                    &event->success, &event->arch, &event->a0, &event->a1, &event->a2,
                                    &event->a3,   &event->key};
    for (int slot = kPpid; slot <= kKey; ++slot) {
        members[slot]->assign(views[slot]);
    }
    const std::string_view syscall = views[kSyscall];
    const std::string_view items = views[kItems];
    const std::string_view exe = views[kExe];
    const std::string_view comm = views[kComm];
    event->syscall = DecimalOrMinusOne(syscall);
    event->items = DecimalOrMinusOne(items);
    // The decoded texts go back into the record too. A plainly quoted value (the usual case) is
    // the record's own text without its quotes, so the record just points at it. Those re-points
    // come first: a decoded text is appended to the record, which may move its buffer and with it
    // every view into it.
    std::string_view exeInner;
    std::string_view commInner;
    const bool exeQuoted = PlainQuoted(exe, exeInner);
    const bool commQuoted = PlainQuoted(comm, commInner);
    event->exe = exeQuoted ? std::string(exeInner) : UnquotedOrHexDecoded(exe);
    event->comm = commQuoted ? std::string(commInner) : UnquotedOrHexDecoded(comm);
    if (exeQuoted) {
        record->Set("exe", exeInner);
    }
    if (commQuoted) {
        record->Set("comm", commInner);
    }
    if (!exeQuoted) {
        record->Set("exe", event->exe);
    }
    if (!commQuoted) {
        record->Set("comm", event->comm);
    }
    return true;
}

void AuditLog::setExecInfo(const std::shared_ptr<AuditEvent>& event)
{
    if (const SDK::AuditFields* record = event->parsedEvent.FindRecord("EXECVE")) {
        event->isExecve = true;
        event->execveFields = *record;
    }
}

int AuditLog::getCWD(const std::shared_ptr<AuditEvent>& event, std::string& cwd)
{
    const SDK::AuditFields* record = event->parsedEvent.FindRecord("CWD");
    if (record == nullptr) {
        return 3;
    }
    if (record->Has("cwd")) {
        cwd = record->Get("cwd");
    }
    return 0;
}

bool AuditLog::IsChangeMode(const std::shared_ptr<AuditEvent>& event)
{
    auto& table = SyscallNumbersOfRecordArch(event->arch);
    for (const char* name : {"chmod", "fchmod", "fchmodat"}) {
        int32_t number = 0;
        if (table.Find(name, number) && number == event->syscall) {
            return true;
        }
    }
    return false;
}

std::string DecodedAuditText(std::string_view raw)
{
    return raw == "(null)" ? std::string() : UnquotedOrHexDecoded(raw);
}

int AuditLog::setFileSystemInfo(const std::shared_ptr<AuditEvent>& event)
{
    std::string cwd;
    const int found = getCWD(event, cwd);
    event->cwd = DecodedAuditText(cwd);
    if (found == 3) {
        return 3;
    }
    const std::vector<const SDK::AuditFields*> records = event->parsedEvent.FindRecords("PATH");
    event->paths.reserve(records.size());
    containerOf_ = nullptr;
    for (const SDK::AuditFields* record : records) {
        if (GenerateLogPathForOneRecord(event, *record, event->cwd) != 0) {
            return -1;
        }
    }
    // KEPT: a single-object call counts as a read (or an attribute change for chmod), a call
    // touching several objects as a write, whatever the call's flags.
    if (event->items == 1) {
        if (IsChangeMode(event)) {
            event->attributeChange = true;
        } else {
            event->read = true;
        }
    } else {
        event->write = true;
    }
    if (event->isExecve) {
        event->execute = true;
    }
    return 0;
}

void AuditLog::setSockaddrInfo(const std::shared_ptr<AuditEvent>& event)
{
    const SDK::AuditFields* record = event->parsedEvent.FindRecord("SOCKADDR");
    if (record == nullptr) {
        AUDIT_LOG_TRACE("not found sockaddr record");
        return;
    }
    if (!record->Has("saddr")) {
        AUDIT_LOG_TRACE("not found saddr field");
        return;
    }
    const std::string_view hex = record->View("saddr");
    AUDIT_LOG_TRACE("saddr is %s, saddr len is %d", std::string(hex), static_cast<int>(hex.size()));
    const auto family = static_cast<uint16_t>(DecValueFromHex(hex.substr(0, 4)));
    event->family = static_cast<uint16_t>((family >> 8) | (family << 8));  // stored little-endian
    if (event->family == AF_INET && hex.size() >= 16) {
        event->port = static_cast<uint16_t>(DecValueFromHex(hex.substr(4, 4)));  // network order
        event->saddr = std::to_string(DecValueFromHex(hex.substr(8, 2))) + "." +
                       std::to_string(DecValueFromHex(hex.substr(10, 2))) + "." +
                       std::to_string(DecValueFromHex(hex.substr(12, 2))) + "." +
                       std::to_string(DecValueFromHex(hex.substr(14, 2)));
    } else if (event->family == AF_UNIX && hex.size() <= 220) {
        char path[110] = {0};  // sun_path and its terminator
        size_t length = 0;
        for (size_t i = 4; i < hex.size() && length < sizeof(path) - 1; i += 2) {
            const char byte = static_cast<char>(DecValueFromHex(hex.substr(i, 2)));
            path[length++] = byte;
            if (byte == '\0') {
                break;
            }
        }
        event->saddr = path;  // up to the first zero byte: an abstract name gives ""
    }
}

// ---------------------------------------------------------------------------------------------
// Paths and containers
// ---------------------------------------------------------------------------------------------

std::string getFilepath(const std::string& cwd, const std::string& name)
{
    if (name.empty()) {
        return {};
    }
    if (name.front() == '/') {
        return name;
    }
    return cwd + "/" + name;
}

void getContainerId(const std::string& key, std::string& out)
{
    const std::vector<std::string> pieces = SDK::StrUtils::Split(key, kKeySeparator);
    if (pieces.size() >= 3 && SDK::StrUtils::StartWith(pieces[1], "cid:")) {
        out = pieces[1].substr(4);
    }
}

bool StartsWith(const std::string& path, const std::string& prefix)
{
    return SDK::PathUtils::IsBelow(prefix, path);
}

int AuditLog::GenerateLogPathForOneRecord(const std::shared_ptr<AuditEvent>& event, const SDK::AuditFields& record,
                                          const std::string& cwd)
{
    AuditLogPath path;
    std::string_view views[kPathFieldCount];
    bool seen[kPathFieldCount] = {};
    for (const auto& [name, value] : record) {
        const int slot = PathFieldSlot(name);
        if (slot >= 0 && !seen[slot]) {
            seen[slot] = true;
            views[slot] = value;
        }
    }
    path.ouid.assign(views[kOuid]);
    path.ogid.assign(views[kOgid]);
    path.rdev.assign(views[kRdev]);
    path.dev.assign(views[kDev]);
    path.inode.assign(views[kInode]);
    path.mode.assign(views[kMode]);
    path.nametype.assign(seen[kObjtype] ? views[kObjtype] : views[kNametype]);
    const std::string_view item = views[kItem];
    path.name = LinuxAuditUtil::UnquotedText(views[kName]);  // as written: a hex-encoded name stays hex
    path.path = getFilepath(cwd, DecodedAuditText(views[kName]));
    path.hostPath = path.path;
    std::string root;
    if (LogPathProcForContainer(event, path, &root) != 0) {
        return -1;
    }
    // Only the directory is resolved: a symbolic link is named by itself, and a link swapped in
    // after the call redirects nothing. A container's directories resolve inside the container.
    if (!path.hostPath.empty()) {
        if (root.empty()) {
            path.hostPath = LinuxAuditUtil::RealPathOfParent(path.hostPath);
        } else if (const std::string inRoot = LinuxAuditUtil::RealPathInRoot(root, path.hostPath.substr(root.size()));
                   !inRoot.empty()) {
            path.hostPath = inRoot;
        }
    }
    if (path.nametype == "CREATE" && rules_ != nullptr && pathRoutes.count(path.hostPath) > 0) {
        rules_->PathCreated(path.hostPath);  // a watch that waited for this file
    }
    path.item = DecimalOrMinusOne(item);
    event->paths.push_back(std::move(path));
    return 0;
}

int AuditLog::LogPathProcForContainer(const std::shared_ptr<AuditEvent>& event, AuditLogPath& path, std::string* root)
{
    Framework::ContainerMetaInfo* provider = LinuxAuditUtil::GetContainerMeta();
    if (provider == nullptr) {
        return 0;
    }
    const int32_t ppid = DecimalOrMinusOne(event->ppid);
    const int32_t pid = DecimalOrMinusOne(event->pid);
    if ((ppid == -1 && event->ppid != "-1") || (pid == -1 && event->pid != "-1")) {
        return -1;
    }
    std::shared_ptr<Framework::ContainerInfo> info;
    if (containerOf_ == event.get()) {
        info = container_;
    } else {
        info = ContainerOf(*provider, *event, pid, ppid);
        containerOf_ = event.get();
        container_ = info;
    }
    if (!info) {
        return 0;
    }
    AUDIT_LOG_TRACE("got containerinfo");
    for (const Framework::MountPoint& mount : info->mounts) {
        AUDIT_LOG_TRACE("path %s, mount %s", path.path, mount.destination);
        if (StartsWith(path.path, mount.destination)) {
            path.hostPath = mount.source + path.path.substr(mount.destination.size());
            if (root != nullptr) {
                *root = mount.source;
            }
            return 0;
        }
    }
    path.hostPath = info->rootPath + path.hostPath;
    if (root != nullptr) {
        *root = info->rootPath;
    }
    return 0;
}

// ---------------------------------------------------------------------------------------------
// Delivery
// ---------------------------------------------------------------------------------------------

void AuditLog::DeliverEvent(std::shared_ptr<AuditEvent> event)
{
    DeliverSyscallEvent(event);
    DeliverFileSystemEvent(event);
}

bool AuditLog::CheckSyscallInfo(auditSyscallDest* dest, const std::shared_ptr<AuditEvent>& event)
{
    if (dest->hasFilter != 0) {
        const std::pair<const std::string*, const std::string*> filters[] = {
            {&dest->exit, &event->exit}, {&dest->success, &event->success}, {&dest->a0, &event->a0},
            {&dest->a1, &event->a1},     {&dest->a2, &event->a2},           {&dest->a3, &event->a3}};
        for (const auto& [wanted, actual] : filters) {
            if (!wanted->empty() && *wanted != *actual) {
                return false;
            }
        }
    }
    if (dest->pids.empty() && dest->ppids.empty()) {
        return true;
    }
    return dest->pids.count(event->pid) > 0 || dest->ppids.count(event->ppid) > 0;
}

bool AuditLog::CheckFileEventInfo(auditFileSystemDest* dest, const std::shared_ptr<AuditEvent>& event)
{
    // Passes when one access kind is the same on both sides, set or clear alike.
    const bool sameSomewhere = (dest->read != 0) == event->read || (dest->write != 0) == event->write ||
                               (dest->exec != 0) == event->execute || (dest->attr != 0) == event->attributeChange;
    if (!sameSomewhere) {
        return false;
    }
    if (dest->pids.empty() && dest->ppids.empty()) {
        return true;
    }
    return dest->pids.count(event->pid) > 0 || dest->ppids.count(event->ppid) > 0;
}

void AuditLog::DeliverSyscallEvent(const std::shared_ptr<AuditEvent>& event)
{
    SyscallRouteMap& routes = IsRecordArch64(event->arch) ? syscallRoutes64 : syscallRoutes32;
    AUDIT_LOG_TRACE("syscall arch is %s", event->arch);
    auto [it, end] = routes.equal_range(event->syscall);
    for (; it != end; ++it) {
        AUDIT_CPU_CHECK(kAuditTaskName);
        AUDIT_LOG_TRACE("got dest and start check %d", event->syscall);
        auditSyscallDest& dest = it->second;
        if (!CheckSyscallInfo(&dest, event)) {
            continue;
        }
        for (const std::string& line : event->lines) {
            AUDIT_LOG_TRACE("deliver syscall audit event to %s %s %s", SenderName(dest.task), dest.tag, line);
        }
        DeliverTo(dest.task, dest.tag, event);
    }
}

void AuditLog::DeliverFileSystemEvent(const std::shared_ptr<AuditEvent>& event)
{
    chosenFileDests_.clear();
    for (const AuditLogPath& record : event->paths) {
        AUDIT_CPU_CHECK(kAuditTaskName);
        if (record.nametype == "PARENT") {
            continue;
        }
        std::string path = record.hostPath;
        AUDIT_LOG_TRACE("trying to distribute filesystem event hostpath is %s, ppid is %s", path, event->ppid);
        if (path.empty()) {
            continue;
        }
        // The path and each of its ancestors; "/" last, for absolute paths only.
        bool reachedRoot = false;
        for (;;) {
            AUDIT_CPU_CHECK(kAuditTaskName);
            CheckFilepathAndDeliver(event, path);
            const size_t slash = path.rfind('/');
            if (slash == std::string::npos) {
                break;
            }
            if (slash == 0) {
                reachedRoot = true;
                break;
            }
            path.resize(slash);
        }
        if (reachedRoot) {
            static const std::string kRoot = "/";
        CheckFilepathAndDeliver(event, kRoot);
        }
    }
    // The key names the watch the kernel matched, which holds even where the records name the
    // file by another path (a call relative to a directory descriptor names the working directory).
    if (!pathRoutes.empty()) {
        if (const std::string watched = getFilepathFromKey(LinuxAuditUtil::UnquotedText(event->key)); !watched.empty()) {
            CheckFilepathAndDeliver(event, watched);
        }
    }
    for (const auto& [key, dest] : chosenFileDests_) {
        AUDIT_CPU_CHECK(kAuditTaskName);
        for (const std::string& line : event->lines) {
            AUDIT_LOG_TRACE("deliver filesystem audit event to %s %s", SenderName(dest->task), line);
        }
        DeliverTo(dest->task, dest->tag, event);
    }
}

void AuditLog::CheckFilepathAndDeliver(const std::shared_ptr<AuditEvent>& event, const std::string& path)
{
    auto [it, end] = pathRoutes.equal_range(path);
    for (; it != end; ++it) {
        AUDIT_CPU_CHECK(kAuditTaskName);
        auditFileSystemDest& dest = it->second;
        if (!CheckFileEventInfo(&dest, event)) {
            continue;
        }
        // One message per task and tag, however many paths and ancestors match.
        chosenFileDests_.emplace(SenderName(dest.task) + dest.tag, &dest);
    }
}

void AuditLog::DeliverTo(Framework::Task* dest, std::string tag, std::shared_ptr<AuditEvent> event)
{
    auto* message = new AuditEventMessage;
    message->event = std::move(event);
    message->tag = std::move(tag);
    if (owner_ == nullptr) {
        delete message;  // nothing to send with
        return;
    }
    owner_->SendAgileMsg(dest, message);
}

}  // namespace Engine
