#pragma once

#include "AuditEvent.h"
#include "AuditRoute.h"
#include "AuditRule.h"

#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace Framework {
class Task;
struct ContainerInfo;
}

namespace Engine {

class AuditRules;
class AuditSyscallCtrlMessage;
class AuditFileSystemCtrlMessage;

/// Syscall routes by number; several destinations per number, in insertion order.
using SyscallRouteMap = std::multimap<int32_t, auditSyscallDest>;
/// File-system routes by watched path (without trailing slash).
using PathRouteMap = std::multimap<std::string, auditFileSystemDest>;

/// The audit task's event machinery: it assembles log lines into events, decodes them, and
/// routes each to the subscribers whose routes and filters it matches. Used on the audit task's
/// thread only; events leave it as shared, read-only AuditEvents inside AuditEventMessages.
class AuditLog {
public:
    /// owner sends the event messages; rules is the owner's registry. Either may be null in tests.
    AuditLog(Framework::Task* owner, AuditRules* rules);
    virtual ~AuditLog();
    AuditLog(const AuditLog&) = delete;
    AuditLog& operator=(const AuditLog&) = delete;

    /// Adds (or extends) the destination of the message's (sender, tag) under each syscall.
    void AddLogRoute(const AuditSyscallCtrlMessage& msg, const SyscallRule& rule);
    /// Adds (or extends) the destination of the message's (sender, tag) under the rule's path.
    void AddLogRoute(const AuditFileSystemCtrlMessage& msg, const FileSystemRule& rule);
    /// Removes the subscription's filters, and the destination once none is left (or when the
    /// rule carries no filter at all).
    void DeleteLogRoute(const AuditSyscallCtrlMessage& msg, const SyscallRule& rule);
    void DeleteLogRoute(const AuditFileSystemCtrlMessage& msg, const FileSystemRule& rule);
    /// Finds the destination of (sender, tag) under a number of a syscall table.
    bool FindLogDest(int32_t number, SyscallRouteMap& routes, const AuditSyscallCtrlMessage& msg,
                     SyscallRouteMap::iterator& found);
    /// Finds the destination of (sender, tag) under a path.
    bool FindLogDest(const std::string& path, const AuditFileSystemCtrlMessage& msg, PathRouteMap::iterator& found);
    /// The syscall table of a rule: 32-bit for arch "b32", else 64-bit.
    SyscallRouteMap& GetSyscallMap(const SyscallRule& rule);
    /// Removes every destination of a task from all three tables.
    void UnregisterTask(Framework::Task* task);
    /// Empties all three tables.
    void CleanLogRoute();

    // ---- record assembly ----
    /// Takes one log line: collects the lines of each event by their stamp and hands complete
    /// events on. (Virtual, like HandleNoEofScenarios, so a test can watch what the reader hands over.)
    virtual void HandleOneLineLog(const std::string& line);
    /// Adds a collected record to the open event of its stamp (a SYSCALL record opens one).
    /// 1: line taken (or dropped), 2: end of event.
    int PackLogs(std::string type, const std::string& line);
    /// A poll found no new data: completes every open event, in the order they were opened.
    virtual void HandleNoEofScenarios();
    /// Puts back a rule of ours that was removed, or waits for the path of one the kernel refused.
    void FixAuditConfigChange(const std::string& line);
    /// Parses, decodes and delivers one event. 0 delivered, 1 no SYSCALL record, 2 nothing parsed.
    int ParseAndDeliverLogs(const std::shared_ptr<AuditEvent>& event);

    // ---- decoding ----
    /// Fills the syscall part from the SYSCALL record; false without one.
    bool setSyscallInfo(const std::shared_ptr<AuditEvent>& event);
    /// Copies the EXECVE record's fields.
    void setExecInfo(const std::shared_ptr<AuditEvent>& event);
    /// Working directory, PATH records and access flags. 0 ok, 3 no CWD record, -1 a PATH failed.
    int setFileSystemInfo(const std::shared_ptr<AuditEvent>& event);
    /// Socket address family, IPv4 port and address or local socket path.
    void setSockaddrInfo(const std::shared_ptr<AuditEvent>& event);
    /// The CWD record's cwd (as written) into cwd; 3 when there is no CWD record, else 0.
    int getCWD(const std::shared_ptr<AuditEvent>& event, std::string& cwd);
    /// True for chmod, fchmod and fchmodat on the event's architecture.
    bool IsChangeMode(const std::shared_ptr<AuditEvent>& event);

    // ---- paths and containers ----
    /// Builds and appends the AuditLogPath of one PATH record. 0, or -1 when the container
    /// translation cannot convert the process ids.
    int GenerateLogPathForOneRecord(const std::shared_ptr<AuditEvent>& event, const SDK::AuditFields& record,
                                    const std::string& cwd);
    /// Translates path.hostPath for a process in a container. 0, or -1 for unconvertible pids.
    /// root, when given, receives the host directory the translated path lies in (the mount's
    /// source or the container's root), inside which its links must be resolved.
    int LogPathProcForContainer(const std::shared_ptr<AuditEvent>& event, AuditLogPath& path,
                                std::string* root = nullptr);

    // ---- delivery ----
    /// Sends the event to every matching syscall route, then to every matching path route.
    void DeliverEvent(std::shared_ptr<AuditEvent> event);
    void DeliverSyscallEvent(const std::shared_ptr<AuditEvent>& event);
    void DeliverFileSystemEvent(const std::shared_ptr<AuditEvent>& event);
    /// True when the event passes the route's argument and process filters.
    bool CheckSyscallInfo(auditSyscallDest* dest, const std::shared_ptr<AuditEvent>& event);
    /// True when the event passes the route's access and process filters.
    bool CheckFileEventInfo(auditFileSystemDest* dest, const std::shared_ptr<AuditEvent>& event);
    /// Chooses the passing destinations registered under exactly path (one per task and tag).
    void CheckFilepathAndDeliver(const std::shared_ptr<AuditEvent>& event, const std::string& path);
    /// Sends one AuditEventMessage sharing the event to dest.
    void DeliverTo(Framework::Task* dest, std::string tag, std::shared_ptr<AuditEvent> event);

    SyscallRouteMap syscallRoutes64;
    SyscallRouteMap syscallRoutes32;
    PathRouteMap pathRoutes;

    /// Events open at once at most; opening one more completes the oldest.
    static constexpr size_t kMaxOpenEvents = 16;

private:
    // An event whose records are still arriving, under its stamp (the msg=audit(...) text).
    struct OpenEvent {
        std::string stamp;
        std::shared_ptr<AuditEvent> event;
    };
    std::vector<OpenEvent>::iterator FindOpenEvent(std::string_view stamp);
    // Takes the event out of the open ones and runs ParseAndDeliverLogs on it.
    void CompleteEvent(std::vector<OpenEvent>::iterator open);

    Framework::Task* owner_;
    AuditRules* rules_;
    std::map<std::string, auditFileSystemDest*> chosenFileDests_;  // per delivery, by task name + tag
    // The events being collected, in the order they were opened. The kernel writes auxiliary
    // records between a SYSCALL and its CWD and PATH records, and auditd interleaves the records
    // of events that end on different processors, so several are open at once. Each is shared
    // from the start so handing it on needs no second allocation.
    std::vector<OpenEvent> openEvents_;
    // The container of the event whose paths are being made: asked once per event, not per path.
    const AuditEvent* containerOf_ = nullptr;
    std::shared_ptr<Framework::ContainerInfo> container_;
};

/// Decimal text to int32; -1 for empty, non-numeric or out-of-range text.
int32_t DecimalOrMinusOne(std::string_view text);
/// Hexadecimal text (optional leading blanks and "+") to int; 0 for anything invalid or at
/// least 0x80000000.
int getDecValueFromHex(const std::string& hex);
/// Decodes pairs of hex digits into bytes (a lone last digit alone); invalid pairs give 0 bytes.
std::string getStringValueFromHex(const std::string& hex);
/// A name or directory as the kernel meant it: a quoted value without its quotes, the audit
/// system's hex encoding decoded, and "(null)" as no name.
std::string DecodedAuditText(std::string_view raw);
/// name made absolute against cwd, without normalisation; an empty name gives "".
std::string getFilepath(const std::string& cwd, const std::string& name);
/// The container id of a rule key whose second "***" piece starts with "cid:"; out unchanged otherwise.
void getContainerId(const std::string& key, std::string& out);
/// True when path lies below the directory prefix (path equal to prefix only when prefix ends in '/').
bool StartsWith(const std::string& path, const std::string& prefix);

}  // namespace Engine
