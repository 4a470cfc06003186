#include "AuditLog.h"

#include "AuditConstants.h"
#include "AuditLogging.h"
#include "AuditMessages.h"
#include "AuditUtil.h"

#include "sdk/StrUtils.h"

namespace Engine {

namespace {

std::string NameOf(const Framework::Task* task)
{
    return task == nullptr ? std::string() : task->GetName();
}

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

AuditLog::~AuditLog() = default;

SyscallRouteMap& AuditLog::GetSyscallMap(const SyscallRule& rule)
{
    return rule.arch == "b32" ? syscallRoutes32 : syscallRoutes64;
}

bool AuditLog::FindLogDest(int32_t number, SyscallRouteMap& routes, const AuditSyscallCtrlMessage& msg,
                           SyscallRouteMap::iterator& found)
{
    auto [it, end] = routes.equal_range(number);
    for (; it != end; ++it) {
        if (it->second.task == msg.sender && it->second.tag == msg.tag) {
            found = it;
            return true;
        }
    }
    found = end;
    return false;
}

bool AuditLog::FindLogDest(const std::string& path, const AuditFileSystemCtrlMessage& msg, PathRouteMap::iterator& found)
{
    auto [it, end] = pathRoutes.equal_range(path);
    for (; it != end; ++it) {
        if (it->second.task == msg.sender && it->second.tag == msg.tag) {
            found = it;
            return true;
        }
    }
    found = end;
    return false;
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
        // An existing destination keeps the filters of the subscription that created it.
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
    const std::string who = NameOf(msg.sender) + msg.tag;
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
    const std::string who = NameOf(msg.sender) + msg.tag;
    if (!rule.pid.empty() && dest.pids.erase(rule.pid) == 0) {
        AUDIT_LOG_TRACE("%s", who + " delete a path rule with pid " + rule.pid + ", but pid not found.");
    }
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

}  // namespace Engine
