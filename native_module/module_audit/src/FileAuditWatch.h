#pragma once

#include "AuditMessages.h"
#include "FileNotify.h"
#include "InodeIndex.h"

#include <pthread.h>

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

namespace Framework {
class Task;
}

namespace Engine {

/// One file-watch subscription.
struct FileNotifyRule {
    std::string path;                 ///< watched path, as the subscriber sent it
    uint32_t mask = 0;                ///< notification kinds wanted
    bool recursive = false;           ///< every descendant counts, not only direct children
    std::string name;                 ///< empty for rules from control messages
    bool valid = false;               ///< the slot is in use
    uint32_t id = 0;                  ///< slot index + 1, never changes
    Framework::Task* task = nullptr;  ///< receives the notifications; not owned
};

/// A pthread mutex that exists between Init and Destroy. Taking one that does not exist fails,
/// so the watch refuses work before its locks are set up instead of touching a dead mutex.
class WatchLock {
public:
    WatchLock() = default;
    ~WatchLock() { Destroy(); }
    WatchLock(const WatchLock&) = delete;
    WatchLock& operator=(const WatchLock&) = delete;

    bool Init();
    void Destroy();
    bool Lock();
    void Unlock();

private:
    pthread_mutex_t mutex_{};
    bool ready_ = false;
};

/// The file-watch engine of the file-watch task: who watches what (the rule table), which paths
/// exist under the watched trees (the inode index), and the turning of audit events into
/// notifications in the inotify vocabulary. Everything runs on the file-watch task's thread; the
/// rule lock and the index lock are taken inside the operations, never both at once.
class FileAuditWatch {
public:
    /// Extra attributes of a notification: the SYSCALL record's fields, plus what a handler adds.
    using Extra = std::unordered_map<std::string, std::string>;
    /// A handler of one system call.
    using Handler = void (FileAuditWatch::*)(const AuditEventMessage& msg, const std::string& syscallName);

    /// Fills the handler table.
    FileAuditWatch();
    ~FileAuditWatch();
    FileAuditWatch(const FileAuditWatch&) = delete;
    FileAuditWatch& operator=(const FileAuditWatch&) = delete;

    // ---- rule table ----
    /// Stores rule in the lowest free slot (or a new one); returns its id, 0 when the rule lock
    /// cannot be taken.
    uint32_t AddFileNotifyRule(FileNotifyRule rule);
    /// Frees the slot of id; 0 or an id beyond the table does nothing.
    void RmFileNotifyRule(uint32_t id);
    /// Same mask, path and recursive flag.
    static bool CompareRule(const FileNotifyRule& a, const FileNotifyRule& b);
    /// As CompareRule, and the same task.
    static bool CompareRuleWithTask(const FileNotifyRule& a, const FileNotifyRule& b);
    /// True when some slot, free or not, holds the same rule of the same task (no lock).
    bool CheckRuleExist(const FileNotifyRule& rule) const;
    /// Sets id to the id of the first slot equal by CompareRule (0 when none); true when found.
    bool GetFileNotifyRuleByRule(FileNotifyRule rule, uint32_t& id);
    /// Adds the message's watch and records the index of its tree. The id, or 0 when the same
    /// task already has the same rule.
    uint32_t AddFileWatch(const AuditFileSystemCtrlMessage& msg);
    /// Removes the first rule equal to the message's, whichever task holds it. Its id, or 0.
    uint32_t RmFileWatch(const AuditFileSystemCtrlMessage& msg);
    /// Removes every rule of task; returns the paths that no remaining rule watches.
    std::vector<std::string> RmFileWatchesOf(const Framework::Task* task);
    /// Asks the audit task to install (RegisterFileRule) or remove (UnregisterFileRule) the audit
    /// watch rule ("PATH -p wa") under the tag "submodule".
    void RegisterFileRule(const std::string& rule);
    void UnregisterFileRule(const std::string& rule);
    /// Sets up the rule lock, the third lock and the index lock; false (and none kept) on failure.
    bool InitFileWatchLock();
    /// The task that owns the watch and sends its messages.
    void SetTask(Framework::Task* task) { task_ = task; }

    // ---- inode index (the plain names take the index lock, the Ex names expect it held) ----
    /// Records path; a directory's tree is queued and recorded by ScanStep, a bounded number of
    /// entries at a time, so a large tree moved in does not hold up the notifications.
    void RecordInodeInfo(const std::string& path);
    /// Records up to budget entries of the queued trees; true while more remain. A watch whose
    /// tree reaches the index's most entries gets an overflow notification.
    bool ScanStep(size_t budget);
    /// True while trees wait to be recorded.
    bool Scanning();
    /// Records path and everything below it into index at once, without following symbolic
    /// links (for tools and measurements).
    static void RecordInodeInfoRecursive(const std::string& path, InodeIndex& index);
    /// Forgets path and, when it was a directory, everything recorded below it.
    void EraseInodeInfo(const std::string& path);
    void EraseInodeInfoEx(const std::string& path);
    /// The first path in path order with this inode and device, or empty.
    std::string GetFilePathByInode(unsigned long inode, unsigned long dev);
    std::string GetFilePathByInodeEx(unsigned long inode, unsigned long dev);
    /// The recorded isDir of path; false for an unknown path.
    bool IsDirFile(const std::string& path);
    bool IsDirFileEx(const std::string& path);
    /// The st_dev of an audit device text "major:minor" (hexadecimal fields): fd:01 is 0xfd01.
    /// Text of two characters or fewer gives 0.
    static unsigned long GetDevFromStr(std::string dev);

    // ---- path tests ----
    /// True when path lies below the rule's path (the rule's path, then "/" or the rule's own
    /// trailing "/", then more).
    static bool IsChildFile(const FileNotifyRule& rule, const std::string& path);
    /// True when a rule in use covers path: equal, a direct child of a non-recursive rule, or any
    /// descendant of a recursive one.
    bool CheckFileRecursiveEx(const std::string& path);
    /// CheckFileRecursiveEx of path made absolute against cwd and resolved; false for "".
    bool CheckFileRecursive(const std::string& path, const std::string& cwd);
    /// True when the directories of a and b agree over the shorter one's length (so /a and /a/b
    /// count as the same directory).
    static bool IsDirSame(const std::string& a, const std::string& b);
    /// When both are non-empty, makes path and destPath absolute against cwd and resolves them.
    static void GetAbsPath(std::string& path, std::string& destPath, const std::string& cwd);

    // ---- notifications ----
    /// Fills the handler table: the system calls of the file operations, the newer calls the
    /// standard tools use for the same operations, and further calls that change files.
    void InitSyscallHandlers();
    /// Turns one audit event into notifications.
    void CheckMessageInfo(const AuditEventMessage& msg);
    void CheckObjTypeOpen(const AuditEventMessage& msg, const std::string& syscallName);
    void HandleOpen(const AuditEventMessage& msg, const std::string& syscallName);
    void HandleMkdir(const AuditEventMessage& msg, const std::string& syscallName);
    void HandleLink(const AuditEventMessage& msg, const std::string& syscallName);
    void CheckObjTypeRm(const AuditEventMessage& msg, const std::string& syscallName);
    void CheckObjTypeMove(const AuditEventMessage& msg, const std::string& syscallName);
    void HandleChmod(const AuditEventMessage& msg, const std::string& syscallName);
    void HandleChown(const AuditEventMessage& msg, const std::string& syscallName);
    /// A truncation (a modify) or an extended attribute set or removed (an attribute change) of
    /// the file, named by inode.
    void HandleChangeByInode(const AuditEventMessage& msg, const std::string& syscallName);
    /// A call no list names: creates and deletes for its CREATE and DELETE records.
    void HandleCreatesAndDeletes(const AuditEventMessage& msg, const std::string& syscallName);
    /// Resolves path (and destPath), keeps the index in step with what happened to it and
    /// notifies; nothing when no rule covers path.
    void MakeEvent(const std::string& path, unsigned mask, const std::string& destPath, const std::string& cwd,
                   const Extra& extra);
    /// Sends a notification to every rule in use whose mask shares a bit with mask and whose path
    /// is path or an ancestor of it.
    void NotifyEvent(const std::string& path, unsigned mask, const std::string& destPath, bool isDir,
                     const Extra& extra);

    /// A copy of the rule table (for inspection).
    std::vector<FileNotifyRule> Rules();
    /// The handler of a system call name, or null.
    Handler FindHandler(const std::string& syscallName) const;
    /// The inode index itself; the caller must not use it while the task runs.
    InodeIndex& Index() { return index_; }

private:
    // The PATH record the handlers call "first" (the last in record order, where the kernel puts
    // the created, deleted or renamed entry) and "second" (the one before it), or null.
    static const AuditLogPath* FirstRecord(const AuditEvent& event);
    static const AuditLogPath* SecondRecord(const AuditEvent& event);
    // The debug lines of a handler's arguments: the call's name, a1, a2 (and a3).
    static void TraceArguments(const std::string& syscallName, const AuditEvent& event, bool withA3);
    // The index's path of a PATH record's inode and device.
    std::string PathOfRecord(const AuditLogPath& record);
    // The index's path of the record, or else its own name (its directory resolved).
    std::string PathOrName(const AuditLogPath& record);
    // The name of the entry the record at index at created: the index's path of its PARENT record
    // (the one named by its directory, else the last before it), "/", and the entry's own last
    // component; the record's own name when the index does not know that directory.
    std::string CreatedName(const AuditEvent& event, size_t at);
    // Tells the watchers of each root that its index is full.
    void NotifyOverflow(const std::vector<std::string>& roots);
    // Every handler's start: false (nothing to do) without an event, PATH records or a SYSCALL
    // record; otherwise extra holds the SYSCALL record's fields, the notification's extra map.
    static bool Prepare(const AuditEventMessage& msg, Extra& extra);
    void Send(const std::string& rule, const std::string& operate);

    WatchLock ruleLock_;
    WatchLock thirdLock_;
    WatchLock indexLock_;
    std::vector<FileNotifyRule> rules_;  // guarded by ruleLock_; changed on the task thread only
    InodeIndex index_;                   // guarded by indexLock_
    struct PendingScan;
    std::unique_ptr<PendingScan> scan_;  // the trees still to record; guarded by indexLock_
    std::unordered_map<std::string, Handler> handlers_;
    Framework::Task* task_ = nullptr;
};

}  // namespace Engine
