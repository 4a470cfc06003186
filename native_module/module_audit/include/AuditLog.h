#pragma once

#include "AuditRoute.h"
#include "AuditRule.h"

#include <map>
#include <string>

namespace Framework {
class Task;
}

namespace Engine {

class AuditRules;
class AuditSyscallCtrlMessage;
class AuditFileSystemCtrlMessage;

/// Syscall routes by number; several destinations per number, in insertion order.
using SyscallRouteMap = std::multimap<int32_t, auditSyscallDest>;
/// File-system routes by watched path (without trailing slash).
using PathRouteMap = std::multimap<std::string, auditFileSystemDest>;

/// The audit task's event machinery: the route table from system calls and paths to subscriber
/// tasks. Used on the audit task's thread only.
class AuditLog {
public:
    /// owner sends the event messages; rules is the owner's registry. Either may be null in tests.
    AuditLog(Framework::Task* owner, AuditRules* rules);
    ~AuditLog();
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

    SyscallRouteMap syscallRoutes64;
    SyscallRouteMap syscallRoutes32;
    PathRouteMap pathRoutes;

private:
    Framework::Task* owner_;
    AuditRules* rules_;
    std::map<std::string, auditFileSystemDest*> chosenFileDests_;  // per delivery, by task name + tag
};

}  // namespace Engine
