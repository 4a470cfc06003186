#include "GetAuditConfAndStatus.h"

#include "AuditLogging.h"

#include "sdk/ProcessUtils.h"
#include "sdk/StrUtils.h"

#include <poll.h>

#include <cerrno>
#include <cstring>
#include <fstream>

namespace Engine {

namespace {

constexpr int kStatusAttempts = 40;
constexpr int kPollTimeoutMs = 200;
constexpr int kNetlinkError = 2;  // NLMSG_ERROR
constexpr int kNetlinkDone = 3;   // NLMSG_DONE
constexpr int kAuditGet = 1000;   // AUDIT_GET: the status reply

}  // namespace

int AuditReplySource::Open()
{
    return audit_open();
}

int AuditReplySource::RequestStatus(int fd)
{
    return audit_request_status(fd);
}

int AuditReplySource::Poll(int fd, int timeoutMs)
{
    pollfd pfd{fd, POLLIN, 0};
    return poll(&pfd, 1, timeoutMs);
}

int AuditReplySource::GetReply(int fd, audit_reply& reply)
{
    return audit_get_reply(fd, &reply, GET_REPLY_NONBLOCKING, 0);
}

void AuditReplySource::Close(int fd)
{
    audit_close(fd);
}

GetAuditConfAndStatus::GetAuditConfAndStatus(std::string confPath, AuditReplySource* source)
    : confPath_(std::move(confPath)), source_(source != nullptr ? source : &defaultSource_)
{
}

bool GetAuditConfAndStatus::IsAuditEnabled()
{
    audit_status status{};
    if (!GetAuditStatus(status)) {
        AUDIT_LOG_ERROR("Get audit status failed.");
        return false;
    }
    // KEPT: 2 (rules locked) counts as disabled too.
    if (status.enabled != 1) {
        AUDIT_LOG_ERROR("Audit status is disabled.");
        return false;
    }
    const int pid = static_cast<int>(status.pid);
    if (pid == 0) {
        AUDIT_LOG_ERROR("Auditd pid(%d) is invalid.", pid);
        return false;
    }
    AUDIT_LOG_INFO("Auditd pid is (%d).", pid);
    std::string exePath;
    if (SDK::ProcessUtils::GetProcessExePath(status.pid, exePath) != 0) {
        AUDIT_LOG_ERROR("Get auditd exe path failed, errno(%d).", errno);
        return false;
    }
    if (exePath.find("auditd") == std::string::npos) {
        AUDIT_LOG_ERROR("Auditd exe path(%s) is invalid.", exePath);
        return false;
    }
    return GetAuditLogPath();
}

bool GetAuditConfAndStatus::GetAuditStatus(audit_status& status)
{
    const int fd = source_->Open();
    if (fd < 0) {
        AUDIT_LOG_ERROR("Open audit socket failed.");
        return false;
    }
    const int sent = source_->RequestStatus(fd);
    if (sent <= 0) {
        AUDIT_LOG_ERROR("Request status of the audit failed, ret(%d).", sent);
        source_->Close(fd);
        return false;
    }
    for (int attempt = 0; attempt < kStatusAttempts; ++attempt) {
        while (source_->Poll(fd, kPollTimeoutMs) < 0 && errno == EINTR) {
        }
        audit_reply reply{};
        if (source_->GetReply(fd, reply) <= 0) {
            AUDIT_LOG_INFO("Get the audit system's reply failed, errno(%d), try again.", errno);
            continue;
        }
        if (reply.type == kNetlinkError || reply.type == kNetlinkDone) {
            AUDIT_LOG_ERROR("Get the audit system's reply type(%d), get status falied.", reply.type);
            source_->Close(fd);
            return false;
        }
        if (reply.type == kAuditGet && reply.status != nullptr) {
            source_->Close(fd);
            std::memcpy(&status, reply.status, sizeof(status));
            return true;
        }
        AUDIT_LOG_INFO("Get the audit system's reply type(%d), try again.", reply.type);
    }
    source_->Close(fd);
    return false;
}

bool GetAuditConfAndStatus::GetAuditLogPath()
{
    std::ifstream conf(confPath_);
    if (!conf.is_open()) {
        AUDIT_LOG_INFO("Open /etc/audit/auditd.conf falied.");
        return false;
    }
    bool pathFound = false;
    bool formatOk = false;
    std::string path;
    for (std::string raw; std::getline(conf, raw);) {
        const std::string line = SDK::StrUtils::Trim(raw);
        if (line.empty() || line[0] == '#') {
            continue;
        }
        const std::vector<std::string> pieces = SDK::StrUtils::Split(line, "=");
        if (pieces.size() != 2) {
            continue;  // "log_file = a = b" is not a setting
        }
        // auditd writes "key = value": the blanks around the sign are not part of either.
        const std::string key = SDK::StrUtils::Trim(pieces[0]);
        const std::string value = SDK::StrUtils::Trim(pieces[1]);
        if (key == "log_file") {
            path = value;
            pathFound = true;
        }
        if (key == "log_format" && value != "NOLOG") {
            formatOk = true;
        }
        if (pathFound && formatOk) {
            logPath_ = path;  // later lines are not read
            return true;
        }
    }
    if (!pathFound) {
        AUDIT_LOG_ERROR("Not find log path in /etc/audit/auditd.conf.");
    }
    if (!formatOk) {
        AUDIT_LOG_ERROR("Audit log format is invalid.");
    }
    return false;
}

void GetAuditConfAndStatus::GetAuditLogPath(std::string& path) const
{
    path.clear();
    if (!logPath_.empty()) {
        path = logPath_;
    }
}

}  // namespace Engine
