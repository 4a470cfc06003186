#pragma once

#include <libaudit.h>

#include <string>

namespace Engine {

/// Where the probe's netlink traffic goes: libaudit by default, a fake in tests.
class AuditReplySource {
public:
    virtual ~AuditReplySource() = default;
    /// audit_open: a descriptor, or negative.
    virtual int Open();
    /// audit_request_status: positive when sent.
    virtual int RequestStatus(int fd);
    /// poll for input; returns as poll does (EINTR is retried by the caller).
    virtual int Poll(int fd, int timeoutMs);
    /// audit_get_reply, not blocking, not peeking.
    virtual int GetReply(int fd, audit_reply& reply);
    /// audit_close.
    virtual void Close(int fd);
};

/// Decides whether the host's audit system can be used and where its log is: the kernel's audit
/// status over netlink, the audit daemon's process, and the daemon's configuration file.
class GetAuditConfAndStatus {
public:
    /// confPath is the audit daemon's configuration; source talks to the kernel (libaudit when null;
    /// not owned).
    explicit GetAuditConfAndStatus(std::string confPath = "/etc/audit/auditd.conf", AuditReplySource* source = nullptr);

    /// True when audit is enabled (exactly 1), auditd runs as a process whose executable path
    /// contains "auditd", and its configuration names a log and a usable format. Fills logPath.
    bool IsAuditEnabled();
    /// Asks the kernel for its audit status (at most 40 replies, 200 ms each). True with status filled.
    bool GetAuditStatus(audit_status& status);
    /// Reads log_file and log_format from the configuration. True when both are usable.
    bool GetAuditLogPath();
    /// Empties path, then copies the log path found, if any.
    void GetAuditLogPath(std::string& path) const;

private:
    std::string confPath_;
    AuditReplySource defaultSource_;
    AuditReplySource* source_;
    std::string logPath_;
};

}  // namespace Engine
