#pragma once

#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

namespace Engine {

class AuditLog;

/// Follows the audit daemon's log from its end, in bounded polls, across truncation and rotation.
/// Files are followed by what they are (device and inode), not by name: the file being read stays
/// open until it is read to its end and a newer file has taken the log's name, so a rotated file
/// is finished wherever rotations move it (".1", ".2", or removed). Files rotated more than once
/// between two polls are found among the log's numbered names. Used on the audit task's thread only.
class ReadAuditLog {
public:
    ReadAuditLog() = default;
    ReadAuditLog(const ReadAuditLog&) = delete;
    ReadAuditLog& operator=(const ReadAuditLog&) = delete;
    ~ReadAuditLog();

    /// Starts following path at its current end (lines already there are never read). A log that
    /// does not exist yet is read from its first line once it does.
    void SetAuditLogPath(const std::string& path);
    /// One poll: reads up to 201 new lines into auditLog, or handles end of data, a shrink or a
    /// rotation. End of data completes the pending event only after a quiet turn: a poll that a
    /// growing log woke early may come while auditd is still writing the event's records.
    void ReadOnceLog(AuditLog& auditLog, bool quietTurn = true);
    /// Forgets everything: no path, no open file, position -1.
    void Clear();
    /// True when the last poll stopped at its line bound or left a rotated file for a newer one:
    /// lines are waiting, so the next poll should come at once.
    bool HasUnread() const { return unread_; }

    /// Reads the first 64 bytes of the file at fd (cut at the first NUL) into head; false when
    /// the file is shorter than 64 bytes (head unchanged).
    static bool ReadFileHead(int fd, std::string& head);

    int64_t position = -1;        ///< next read offset in the file being read; -1 when none is open
    std::string logPath;          ///< the followed log
    int32_t sizeErrorCount = 0;   ///< failed looks at the log's name since the last report (one in 1,000)
    uint64_t rotationLosses = 0;  ///< rotated files that were gone before they could be read
    uint64_t droppedLines = 0;    ///< lines longer than the line bound, skipped

private:
    struct File {
        int fd = -1;
        dev_t dev = 0;
        ino_t ino = 0;
        std::string head;  // first 64 bytes once known, to tell a copy of this file
    };

    // Opens the log's name as the newest file when it is one we do not follow yet.
    void FollowNewFile(bool atEnd);
    // Rotated files between the newest one we follow and the one now at the log's name.
    void FollowSkippedRotations(const File& newest, std::vector<File>& found);
    // Hands over whole lines of the file being read; returns false at its end.
    bool ReadLines(AuditLog& auditLog, int& count);
    // The file being read has no more data: go on with the next one (handing over a last line
    // without its newline), or handle a shrink. True when there is more to read.
    bool AtEnd(AuditLog& auditLog, int& count);
    bool Known(dev_t dev, ino_t ino) const;
    void CloseFront();
    void CountSizeError();

    std::deque<File> files_;            // oldest first; the last is the one at the log's name
    std::string buffer_;                // read from position on, not yet handed over
    std::string line_;                  // the line being handed over (its capacity is reused)
    bool skipping_ = false;             // inside an overlong line, dropped up to its newline
    bool followed_ = false;             // SetAuditLogPath was called and Clear was not
    bool unread_ = false;
};

}  // namespace Engine
