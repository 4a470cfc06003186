#include "ReadAuditLog.h"

#include "AuditConstants.h"
#include "AuditLog.h"
#include "AuditLogging.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace Engine {

namespace {

constexpr size_t kHeadSize = 64;
// KEPT: one poll hands over at most 201 lines (the bound counts from 0 to 200 inclusive).
constexpr int kPollLines = 200;
constexpr size_t kReadChunk = 64 * 1024;
constexpr size_t kMaxLine = 1024 * 1024;       // no audit record is this long: skipped and counted
constexpr int kRotatedNames = 99;              // log.1 ... log.99 are searched for skipped rotations
constexpr size_t kMaxOpenFiles = 16;
constexpr int32_t kSizeErrorsPerReport = 1000;

bool Later(const struct timespec& a, const struct timespec& b)
{
    return a.tv_sec != b.tv_sec ? a.tv_sec > b.tv_sec : a.tv_nsec >= b.tv_nsec;
}

// Opens a regular file for reading; a FIFO or device put at the log's name is never waited on.
int OpenRegular(const std::string& path, struct stat& st)
{
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        return -1;
    }
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        close(fd);
        return -1;
    }
    return fd;
}

}  // namespace

ReadAuditLog::~ReadAuditLog()
{
    Clear();
}

bool ReadAuditLog::ReadFileHead(int fd, std::string& head)
{
    char buffer[kHeadSize + 1] = {0};
    if (pread(fd, buffer, kHeadSize, 0) != static_cast<ssize_t>(kHeadSize)) {
        return false;
    }
    head = buffer;  // up to the first NUL byte
    return true;
}

void ReadAuditLog::SetAuditLogPath(const std::string& path)
{
    Clear();
    logPath = path;
    followed_ = true;
    FollowNewFile(true);
    if (files_.empty()) {
        AUDIT_LOG_ERROR("Get audit log size and head failed, errno(%d).", errno);
    }
}

void ReadAuditLog::Clear()
{
    while (!files_.empty()) {
        CloseFront();
    }
    buffer_.clear();
    logPath.clear();
    position = -1;
    sizeErrorCount = 0;
    followed_ = false;
    skipping_ = false;
}

void ReadAuditLog::CloseFront()
{
    File& front = files_.front();
    close(front.fd);
    files_.pop_front();
    buffer_.clear();
    skipping_ = false;
    position = files_.empty() ? -1 : 0;  // every later file is read from its start
}

bool ReadAuditLog::Known(dev_t dev, ino_t ino) const
{
    // Only open files: a closed file's inode number may already belong to a new file.
    return std::any_of(files_.begin(), files_.end(), [&](const File& file) { return file.dev == dev && file.ino == ino; });
}

void ReadAuditLog::CountSizeError()
{
    if (sizeErrorCount + 1 > kSizeErrorsPerReport - 1) {
        sizeErrorCount = 0;
        AUDIT_LOG_ERROR("Get audit log size failed, errno(%d).", errno);
    } else {
        ++sizeErrorCount;
    }
}

void ReadAuditLog::FollowNewFile(bool atEnd)
{
    struct stat st {};
    if (stat(logPath.c_str(), &st) != 0) {
        if (!files_.empty()) {
            CountSizeError();  // gone for now: what is open is still read
        }
        return;
    }
    if (Known(st.st_dev, st.st_ino)) {
        return;
    }
    const int fd = OpenRegular(logPath, st);
    if (fd < 0) {
        return;
    }
    File file{fd, st.st_dev, st.st_ino, {}};
    if (files_.empty()) {
        position = atEnd ? static_cast<int64_t>(st.st_size) : 0;
        ReadFileHead(fd, file.head);
        files_.push_back(std::move(file));
        return;
    }
    std::vector<File> skipped;
    FollowSkippedRotations(files_.back(), skipped);
    AUDIT_LOG_INFO("Audit log(%s) rotated: %d file(s) to finish before the new one.", logPath,
                   static_cast<int>(files_.size() + skipped.size()));
    for (File& rotated : skipped) {
        files_.push_back(std::move(rotated));
    }
    files_.push_back(std::move(file));
    while (files_.size() > kMaxOpenFiles) {
        ++rotationLosses;
        AUDIT_LOG_ERROR("Audit log(%s) rotated %d times faster than it was read; an unread file is dropped.", logPath,
                        static_cast<int>(kMaxOpenFiles));
        CloseFront();
    }
    unread_ = true;
}

void ReadAuditLog::FollowSkippedRotations(const File& newest, std::vector<File>& found)
{
    struct stat last {};
    if (fstat(newest.fd, &last) != 0) {
        return;
    }
    bool anchored = false;
    for (int n = 1; n <= kRotatedNames; ++n) {
        struct stat st {};
        const std::string name = logPath + "." + std::to_string(n);
        if (stat(name.c_str(), &st) != 0) {
            break;
        }
        // The file we read last, or one written before it ended (read already), closes the search.
        if (Known(st.st_dev, st.st_ino) || !Later(st.st_mtim, last.st_mtim)) {
            anchored = true;
            break;
        }
        const int fd = OpenRegular(name, st);
        if (fd >= 0) {
            found.push_back(File{fd, st.st_dev, st.st_ino, {}});
        }
    }
    std::reverse(found.begin(), found.end());  // oldest first
    if (!anchored && !found.empty() && last.st_nlink == 0) {
        ++rotationLosses;
        AUDIT_LOG_ERROR("Audit log(%s) rotated past its oldest kept file before it was read: 1 or more rotated "
                        "files are lost.", logPath);
    }
}

bool ReadAuditLog::ReadLines(AuditLog& auditLog, int& count)
{
    const int fd = files_.front().fd;
    size_t start = 0;
    for (;;) {
        const size_t newline = buffer_.find('\n', start);
        if (newline == std::string::npos) {
            buffer_.erase(0, start);
            start = 0;
            if (buffer_.size() >= kMaxLine) {
                position += static_cast<int64_t>(buffer_.size());
                buffer_.clear();
                if (!skipping_) {
                    ++droppedLines;
                    AUDIT_LOG_WARN("Audit log(%s) holds a line longer than %d bytes; it is skipped.", logPath,
                                   static_cast<int>(kMaxLine));
                }
                skipping_ = true;
            }
            const size_t held = buffer_.size();
            buffer_.resize(held + kReadChunk);
            const ssize_t got = pread(fd, &buffer_[held], kReadChunk, position + static_cast<int64_t>(held));
            buffer_.resize(held + static_cast<size_t>(std::max<ssize_t>(got, 0)));
            if (got < 0 && errno == EINTR) {
                continue;
            }
            if (got <= 0) {
                return false;
            }
            continue;
        }
        if (skipping_) {
            position += static_cast<int64_t>(newline + 1 - start);
            start = newline + 1;
            skipping_ = false;
            continue;
        }
        if (count > kPollLines) {
            unread_ = true;  // this line is handed over by the next poll
            break;
        }
        line_.assign(buffer_, start, newline - start);
        position += static_cast<int64_t>(newline + 1 - start);  // the line and its newline
        start = newline + 1;
        AUDIT_LOG_DEBUG("Read audit log(%s).", line_);
        auditLog.HandleOneLineLog(line_);
        ++count;
    }
    buffer_.erase(0, start);
    return true;
}

bool ReadAuditLog::AtEnd(AuditLog& auditLog, int& count)
{
    File& front = files_.front();
    if (files_.size() > 1) {
        // A newer file holds the log's name, so auditd has closed this one: it is complete,
        // and a last line without its newline will not get one.
        if (!buffer_.empty() && !skipping_) {
            line_ = buffer_;
            auditLog.HandleOneLineLog(line_);
            ++count;
        }
        CloseFront();
        return true;
    }
    struct stat st {};
    const int64_t readTo = position + static_cast<int64_t>(buffer_.size());
    if (fstat(front.fd, &st) != 0 || st.st_size >= readTo) {
        return false;
    }
    // Shorter than what was read: cut back in place, or copied elsewhere and emptied.
    buffer_.clear();
    skipping_ = false;
    struct stat copied {};
    const std::string predecessor = logPath + ".1";
    std::string head;
    const int copy = front.head.empty() ? -1 : OpenRegular(predecessor, copied);
    if (copy >= 0 && !Known(copied.st_dev, copied.st_ino) && copied.st_size >= readTo && ReadFileHead(copy, head) &&
        head == front.head) {
        AUDIT_LOG_INFO("Audit log(%s) was copied to %s and emptied: the copy is finished first.", logPath, predecessor);
        files_.push_front(File{copy, copied.st_dev, copied.st_ino, head});
        files_[1].head.clear();
        return true;  // the copy goes on at position; the emptied file follows from its start
    }
    if (copy >= 0) {
        close(copy);
    }
    if (ReadFileHead(front.fd, head) && head == front.head) {
        AUDIT_LOG_WARN("Audit log(%s) size changed smaller, but not rotated.", logPath);
        position = st.st_size;
        return false;
    }
    AUDIT_LOG_WARN("Audit log(%s) was truncated: it is read again from its start.", logPath);
    front.head.clear();
    position = 0;
    return true;
}

void ReadAuditLog::ReadOnceLog(AuditLog& auditLog, bool quietTurn)
{
    unread_ = false;
    if (!followed_) {
        return;
    }
    FollowNewFile(false);
    if (files_.empty()) {
        CountSizeError();
        return;
    }
    int count = 0;
    while (!ReadLines(auditLog, count)) {
        File& front = files_.front();
        if (front.head.empty() && position >= static_cast<int64_t>(kHeadSize)) {
            ReadFileHead(front.fd, front.head);  // known once the file is long enough
        }
        if (!AtEnd(auditLog, count)) {
            if (count == 0 && buffer_.empty() && quietTurn) {
                auditLog.HandleNoEofScenarios();
            }
            return;
        }
    }
}

}  // namespace Engine
