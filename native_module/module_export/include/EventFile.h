#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace Export {

/// A rotation size: "never" (0), or a number of bytes with an optional K, M or G ("10 M",
/// "500K", "1048576"). False when the text is none of these, or under 4 K.
bool ParseRotateSize(const std::string& text, uint64_t& bytes);

/// The agent's JSON lines file. It only ever holds whole lines: a write the file system cannot
/// take whole (a full disk, a quota) is cut back to the last whole line and what did not fit is
/// counted, and the next write tries again. It rotates by size (path.1 is the newest archive,
/// path.keep the oldest), so its files never take much more than (keep + 1) * rotateBytes.
/// Files it makes are 0640. Used from one thread.
class EventFile {
public:
    /// rotateBytes 0: never rotated.
    EventFile(std::string path, uint64_t rotateBytes, int keep);
    ~EventFile();
    EventFile(const EventFile&) = delete;
    EventFile& operator=(const EventFile&) = delete;

    /// Opens (or creates) the file for appending, closing the one open before (logrotate may
    /// have moved it away). False, with the reason, when it cannot.
    bool Open(std::string& error);
    void Close();

    /// Appends lines (each ending in a newline); the number of lines that could not be written
    /// whole, 0 when all were.
    size_t Write(std::string_view lines);

    /// Why the last write lost lines ("No space left on device").
    const std::string& LastError() const { return lastError_; }
    const std::string& Path() const { return path_; }

private:
    bool WriteAll(std::string_view bytes);
    void CutBack(uint64_t size);
    void Rotate();

    std::string path_;
    uint64_t rotateBytes_;
    int keep_;
    int fd_ = -1;
    std::string lastError_;
};

}  // namespace Export
