#pragma once

#include <cstdint>
#include <string>

namespace Engine {

class AuditLog;

/// Follows the audit daemon's log from its end, in bounded polls, across truncation and rotation
/// (the predecessor is the log path with ".1" appended). Remembers the file's first 64 bytes to
/// tell a rotated file from a truncated one. Keeps no file open between polls. Used on the audit
/// task's thread only.
class ReadAuditLog {
public:
    /// Starts following path at its current end (lines already there are never read).
    void SetAuditLogPath(const std::string& path);
    /// One poll: reads up to 201 new lines into auditLog, or handles end of data, a shrink or a
    /// rotation, or resynchronises. End of data completes the pending event only after a quiet
    /// turn: a poll that a growing log woke early may come while auditd is still writing the
    /// event's records.
    void ReadOnceLog(AuditLog& auditLog, bool quietTurn = true);
    /// Forgets everything: no path, position -1, no head.
    void Clear();
    /// True when the last poll stopped at its line bound, or just after a rotation: lines are
    /// waiting, so the next poll should come at once.
    bool HasUnread() const { return unread_; }
    /// True when the log is now shorter than the position and than a head: just replaced by a
    /// rotation, before the new file holds its first line.
    bool WaitsForNewHead() const;

    /// Reads lines from position in path, handing each to auditLog (at most maxLines + 1).
    void ReadLog(std::string path, int maxLines, AuditLog& auditLog);
    /// Reads the first 64 bytes of path (cut at the first NUL) into head; false when the file
    /// cannot be opened or is shorter than 64 bytes (head unchanged).
    bool ReadFileHead(std::string path, std::string& head);
    /// Reads the followed file's head; sets headRead on success.
    void GetLogHead();
    /// position is negative: jump to the current end of the file.
    void HandleInvalidPositionScenarios();
    /// The file is shorter than position: truncated in place, or rotated.
    void HandleRotatedScenarios(long size, AuditLog& auditLog);
    /// The file was rotated: finish the predecessor when it is the file we were reading.
    void HandleRotatedLog(long size, AuditLog& auditLog);

    int64_t position = -1;      ///< next read offset in the current file; -1 resynchronises
    std::string logHead;        ///< first 64 bytes of the current file
    bool headRead = false;      ///< logHead belongs to the current file
    std::string logPath;        ///< the followed log
    int32_t sizeErrorCount = 0; ///< failed size queries since the last report (one in 1,000)
    uint64_t rotationLosses = 0; ///< rotations whose remainder was longer than a poll reads

private:
    // Counts a failed size query; reports one in a thousand.
    void CountSizeError();
    bool unread_ = false;
};

}  // namespace Engine
