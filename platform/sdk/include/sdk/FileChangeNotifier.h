#pragma once

#include <string>

namespace SDK {

/// Tells, through a descriptor a poll can wait on, that a file was written, created, replaced or
/// removed: inotify on the file's directory, which reports its entries' changes by name (so a
/// file that rotation replaces is still followed). Used by one thread.
class FileChangeNotifier {
public:
    FileChangeNotifier() = default;
    ~FileChangeNotifier();
    FileChangeNotifier(const FileChangeNotifier&) = delete;
    FileChangeNotifier& operator=(const FileChangeNotifier&) = delete;

    /// Starts following path (its directory must exist). False when inotify refuses.
    bool Start(const std::string& path);
    /// Stops following; the descriptor is closed.
    void Stop();
    /// The descriptor that becomes readable on a change, or -1 when not started.
    int Fd() const { return fd_; }
    /// Reads every queued change; true when one concerned the file.
    bool Drain();

private:
    int fd_ = -1;
    std::string name_;  // the file's name within its directory
};

}  // namespace SDK
