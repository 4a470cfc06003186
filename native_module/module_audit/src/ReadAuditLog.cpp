#include "ReadAuditLog.h"

#include "AuditConstants.h"
#include "AuditLog.h"
#include "AuditLogging.h"

#include "sdk/FileUtils.h"

#include <cerrno>
#include <cstdio>
#include <fstream>

namespace Engine {

namespace {

constexpr size_t kHeadSize = 64;
constexpr int kPollLines = 200;          // one poll hands over at most 201 lines
constexpr int kPredecessorLines = 500;   // finishing a rotated file: at most 501
constexpr int32_t kSizeErrorsPerReport = 1000;

std::string ErrnoText()
{
    return std::to_string(errno);
}

}  // namespace

bool ReadAuditLog::ReadFileHead(std::string path, std::string& head)
{
    FILE* file = std::fopen(path.c_str(), "r");
    if (file == nullptr) {
        AUDIT_LOG_DEBUG("Read log(%s) head failed, errno(%s).", path, ErrnoText());
        return false;
    }
    char buffer[kHeadSize + 1] = {0};
    const size_t got = std::fread(buffer, 1, kHeadSize, file);
    std::fclose(file);
    if (got != kHeadSize) {
        AUDIT_LOG_DEBUG("Read log(%s) head failed, head too small.", path);
        return false;
    }
    head = buffer;  // up to the first NUL byte
    return true;
}

void ReadAuditLog::GetLogHead()
{
    if (ReadFileHead(logPath, logHead)) {
        AUDIT_LOG_INFO("Read audit log(%s) head(%s) success.", logPath, logHead);
        headRead = true;
    }
}

void ReadAuditLog::SetAuditLogPath(const std::string& path)
{
    logPath = path;
    long size = 0;
    if (SDK::FileUtils::GetFileSize(logPath, size) != 0) {
        AUDIT_LOG_ERROR("Get audit log size and head failed, errno(%d).", errno);
        return;
    }
    position = size;
    GetLogHead();
}

bool ReadAuditLog::WaitsForNewHead() const
{
    long size = 0;
    return position >= 0 && SDK::FileUtils::GetFileSize(logPath, size) == 0 && size < position &&
           size < static_cast<long>(kHeadSize);
}

void ReadAuditLog::Clear()
{
    logPath.clear();
    logHead.clear();
    position = -1;
    headRead = false;
    sizeErrorCount = 0;
}

void ReadAuditLog::CountSizeError()
{
    const std::string error = ErrnoText();
    if (sizeErrorCount + 1 > kSizeErrorsPerReport - 1) {
        sizeErrorCount = 0;
        AUDIT_LOG_ERROR("Get audit log size failed, errno(%s).", error);
    } else {
        ++sizeErrorCount;
    }
}

void ReadAuditLog::ReadOnceLog(AuditLog& auditLog, bool quietTurn)
{
    unread_ = false;
    if (position < 0) {
        HandleInvalidPositionScenarios();
        return;
    }
    long size = 0;
    if (SDK::FileUtils::GetFileSize(logPath, size) != 0) {
        CountSizeError();
        return;
    }
    if (position < size) {
        ReadLog(logPath, kPollLines, auditLog);
    } else if (position == size) {
        if (quietTurn) {
            auditLog.HandleNoEofScenarios();
        }
    } else {
        HandleRotatedScenarios(size, auditLog);
    }
}

void ReadAuditLog::ReadLog(std::string path, int maxLines, AuditLog& auditLog)
{
    std::ifstream in(path, std::ios::in);
    if (!in.is_open()) {
        AUDIT_LOG_DEBUG("Open audit log(%s) failed.", path);
        return;
    }
    in.seekg(position, std::ios::beg);
    int count = 0;
    std::string line;
    for (;;) {
        std::getline(in, line);
        if (in.fail() || in.bad()) {
            break;
        }
        if (maxLines < count) {
            unread_ = true;  // this line is read again by the next call
            break;
        }
        if (in.eof()) {
            // No newline yet: auditd's write of this line is still going on (a reader can see a
            // write cut at a page boundary). It is read whole by a later poll; reading it now
            // would lose it, and the stream gives no offset after it.
            break;
        }
        position += static_cast<int64_t>(line.size()) + 1;  // the line and its newline, without asking the stream
        AUDIT_LOG_DEBUG("Read audit log(%s).", line);
        auditLog.HandleOneLineLog(line);
        ++count;
    }
}

void ReadAuditLog::HandleInvalidPositionScenarios()
{
    long size = 0;
    if (SDK::FileUtils::GetFileSize(logPath, size) != 0) {
        CountSizeError();
        return;
    }
    position = size;
    headRead = false;
    GetLogHead();
}

void ReadAuditLog::HandleRotatedScenarios(long size, AuditLog& auditLog)
{
    if (!headRead) {
        AUDIT_LOG_DEBUG("Audit log(%s) head not get, can not check whether rotated.", logPath);
        position = size;
        headRead = false;
        GetLogHead();
        return;
    }
    std::string head;
    if (!ReadFileHead(logPath, head)) {
        position = -1;
        return;
    }
    AUDIT_CPU_CHECK(kAuditTaskName);
    if (head == logHead) {
        AUDIT_LOG_WARN("Audit log(%s) size changed smaller, but not rotated.", logPath);
        position = size;
        return;
    }
    AUDIT_LOG_INFO("Audit log(%s) maybe rotated.", logPath);
    HandleRotatedLog(size, auditLog);
}

void ReadAuditLog::HandleRotatedLog(long size, AuditLog& auditLog)
{
    const std::string predecessor = logPath + ".1";
    long oldSize = 0;
    if (SDK::FileUtils::GetFileSize(predecessor, oldSize) != 0) {
        position = size;
        headRead = false;
        GetLogHead();
        return;
    }
    if (position == oldSize) {
        // The old file was read to its end: start the new one from its beginning now.
        headRead = false;
        GetLogHead();
        position = 0;
        ReadLog(logPath, kPollLines, auditLog);
        return;
    }
    std::string oldHead;
    if (!ReadFileHead(predecessor, oldHead)) {
        AUDIT_LOG_ERROR("Get audit log(%s) head failed.", predecessor);
        position = size;
        headRead = false;
        GetLogHead();
        return;
    }
    AUDIT_CPU_CHECK(kAuditTaskName);
    if (oldHead == logHead) {
        // The predecessor is the file we were reading: finish it, then the new one from its start.
        ReadLog(predecessor, kPredecessorLines, auditLog);
        if (unread_) {
            ++rotationLosses;
            AUDIT_LOG_WARN("Audit log(%s) rotated with more than %d lines unread; the rest of it is lost.", logPath,
                           kPredecessorLines + 1);
        }
        headRead = false;
        GetLogHead();
        position = 0;
        unread_ = true;  // the new file is read at the next poll
        return;
    }
    AUDIT_LOG_ERROR("Get audit log(%s) head failed.", predecessor);
    position = size;
    headRead = false;
    GetLogHead();
}

}  // namespace Engine
