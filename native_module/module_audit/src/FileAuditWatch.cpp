#include "FileAuditWatch.h"

#include "AuditConstants.h"
#include "AuditLogging.h"
#include "RuleKey.h"
#include "AuditUtil.h"
#include "SyscallTables.h"

#include "framework/Task.h"
#include "sdk/PathUtils.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>
#include <libgen.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <deque>
#include <cstdlib>
#include <cstring>
#include <tuple>

namespace Engine {

namespace {

// Bounded like the kernel's paths: a child path longer than this is not recorded.
constexpr size_t kMaxPathLength = 4095;
// The walk holds a descriptor per level; deeper directories are recorded but not walked.
constexpr int kMaxWalkDepth = 256;

// The system calls of the file operations and their handlers.
const std::pair<const char*, FileAuditWatch::Handler> kFileOperationCalls[] = {
    {"open", &FileAuditWatch::CheckObjTypeOpen},   {"openat", &FileAuditWatch::HandleOpen},
    {"unlink", &FileAuditWatch::CheckObjTypeRm},   {"unlinkat", &FileAuditWatch::CheckObjTypeRm},
    {"rename", &FileAuditWatch::CheckObjTypeMove}, {"renameat", &FileAuditWatch::CheckObjTypeMove},
    {"chmod", &FileAuditWatch::HandleChmod},       {"fchmodat", &FileAuditWatch::HandleChmod},
    {"fchmod", &FileAuditWatch::HandleChmod},      {"link", &FileAuditWatch::HandleLink},
    {"chown", &FileAuditWatch::HandleChown},       {"chownat", &FileAuditWatch::HandleChown},
    {"fchownat", &FileAuditWatch::HandleChown},    {"fchown", &FileAuditWatch::HandleChown},
    {"mkdir", &FileAuditWatch::HandleMkdir},
};

// Newer forms of the same operations, which today's tools call (mv renameat2, ln linkat, ln -s
// symlinkat, rmdir rmdir). Their PATH records have the layout of the call each generalises.
const std::pair<const char*, FileAuditWatch::Handler> kNewerFormCalls[] = {
    {"renameat2", &FileAuditWatch::CheckObjTypeMove}, {"linkat", &FileAuditWatch::HandleLink},
    {"symlink", &FileAuditWatch::HandleLink},         {"symlinkat", &FileAuditWatch::HandleLink},
    {"mkdirat", &FileAuditWatch::HandleMkdir},        {"rmdir", &FileAuditWatch::CheckObjTypeRm},
    {"creat", &FileAuditWatch::CheckObjTypeOpen},     {"lchown", &FileAuditWatch::HandleChown},
};

// Further calls that change a watched file: attribute changes, truncation, the newest forms of
// chmod and open, and the creation of special files.
const std::pair<const char*, FileAuditWatch::Handler> kMoreChangingCalls[] = {
    {"truncate", &FileAuditWatch::HandleChangeByInode},    {"setxattr", &FileAuditWatch::HandleChangeByInode},
    {"lsetxattr", &FileAuditWatch::HandleChangeByInode},   {"removexattr", &FileAuditWatch::HandleChangeByInode},
    {"lremovexattr", &FileAuditWatch::HandleChangeByInode}, {"fchmodat2", &FileAuditWatch::HandleChmod},
    {"openat2", &FileAuditWatch::HandleOpen},        {"mknod", &FileAuditWatch::HandleMkdir},
    {"mknodat", &FileAuditWatch::HandleMkdir},
};

// Numbers in the event's text fields; text that does not parse reads as 0.
unsigned long Number(const std::string& text, int base)
{
    return std::strtoul(text.c_str(), nullptr, base);
}

// path made absolute against cwd (when relative) with its directory resolved; its last
// component stays, so a symbolic link is named by itself.
std::string Absolute(const std::string& path, const std::string& cwd)
{
    return LinuxAuditUtil::RealPathOfParent(path.front() == '/' ? path : cwd + "/" + path);
}


// Holds a watch lock for a scope when it could be taken.
class Locked {
public:
    explicit Locked(WatchLock& lock) : lock_(lock), held_(lock.Lock()) {}
    ~Locked()
    {
        if (held_) {
            lock_.Unlock();
        }
    }
    Locked(const Locked&) = delete;
    Locked& operator=(const Locked&) = delete;
    explicit operator bool() const { return held_; }

private:
    WatchLock& lock_;
    const bool held_;
};

}  // namespace

// ---------------------------------------------------------------------------------------------
// Locks
// ---------------------------------------------------------------------------------------------

bool WatchLock::Init()
{
    if (ready_) {
        return true;
    }
    ready_ = pthread_mutex_init(&mutex_, nullptr) == 0;
    return ready_;
}

void WatchLock::Destroy()
{
    if (ready_) {
        pthread_mutex_destroy(&mutex_);
        ready_ = false;
    }
}

bool WatchLock::Lock()
{
    return ready_ && pthread_mutex_lock(&mutex_) == 0;
}

void WatchLock::Unlock()
{
    pthread_mutex_unlock(&mutex_);
}

// ---------------------------------------------------------------------------------------------
// Rule table
// ---------------------------------------------------------------------------------------------

FileAuditWatch::FileAuditWatch()
{
    InitSyscallHandlers();
}

bool FileAuditWatch::InitFileWatchLock()
{
    if (!ruleLock_.Init()) {
        return false;
    }
    if (!thirdLock_.Init()) {
        ruleLock_.Destroy();
        return false;
    }
    if (!indexLock_.Init()) {
        thirdLock_.Destroy();
        ruleLock_.Destroy();
        return false;
    }
    return true;
}

uint32_t FileAuditWatch::AddFileNotifyRule(FileNotifyRule rule)
{
    Locked lock(ruleLock_);
    if (!lock) {
        return 0;
    }
    for (size_t slot = 0; slot < rules_.size(); ++slot) {
        if (!rules_[slot].valid) {
            rule.id = static_cast<uint32_t>(slot + 1);
            rules_[slot] = std::move(rule);
            return static_cast<uint32_t>(slot + 1);
        }
    }
    rule.id = static_cast<uint32_t>(rules_.size() + 1);
    rules_.push_back(std::move(rule));
    return rules_.back().id;
}

void FileAuditWatch::RmFileNotifyRule(uint32_t id)
{
    std::string path;
    {
        Locked lock(ruleLock_);
        if (!lock || id == 0 || id > rules_.size() || !rules_[id - 1].valid) {
            return;
        }
        rules_[id - 1].valid = false;
        path.swap(rules_[id - 1].path);
    }
    Locked lock(indexLock_);
    if (lock) {
        index_.RemoveRoot(path);
    }
}

bool FileAuditWatch::CompareRule(const FileNotifyRule& a, const FileNotifyRule& b)
{
    return a.mask == b.mask && a.path == b.path && a.recursive == b.recursive;
}

bool FileAuditWatch::CompareRuleWithTask(const FileNotifyRule& a, const FileNotifyRule& b)
{
    return CompareRule(a, b) && a.task == b.task;
}

bool FileAuditWatch::CheckRuleExist(const FileNotifyRule& rule) const
{
    for (const FileNotifyRule& held : rules_) {
        if (CompareRuleWithTask(held, rule)) {
            return true;
        }
    }
    return false;
}

bool FileAuditWatch::GetFileNotifyRuleByRule(FileNotifyRule rule, uint32_t& id)
{
    id = 0;
    Locked lock(ruleLock_);
    if (!lock) {
        return false;
    }
    for (const FileNotifyRule& held : rules_) {
        if (CompareRule(held, rule)) {
            id = held.id;
            return true;
        }
    }
    return false;
}

namespace {

FileNotifyRule RuleOf(const AuditFileSystemCtrlMessage& msg)
{
    FileNotifyRule rule;
    rule.path = msg.path;
    rule.mask = msg.events;
    rule.recursive = msg.opt.recursive;
    rule.task = msg.sender;
    rule.valid = true;
    return rule;
}

}  // namespace

uint32_t FileAuditWatch::AddFileWatch(const AuditFileSystemCtrlMessage& msg)
{
    const FileNotifyRule rule = RuleOf(msg);
    // Adds and removes come from the task's own thread only, so this unlocked look is safe.
    if (CheckRuleExist(rule)) {
        return 0;
    }
    const uint32_t id = AddFileNotifyRule(rule);
    {
        Locked lock(indexLock_);
        if (lock) {
            index_.AddRoot(rule.path);
        }
    }
    RecordInodeInfo(rule.path);
    return id;
}

uint32_t FileAuditWatch::RmFileWatch(const AuditFileSystemCtrlMessage& msg)
{
    uint32_t id = 0;
    if (GetFileNotifyRuleByRule(RuleOf(msg), id)) {
        RmFileNotifyRule(id);
    }
    return id;
}

std::vector<std::string> FileAuditWatch::RmFileWatchesOf(const Framework::Task* task)
{
    std::set<std::string> freed;
    std::vector<std::string> roots;
    {
        Locked lock(ruleLock_);
        if (!lock) {
            return {};
        }
        for (FileNotifyRule& rule : rules_) {
            if (rule.valid && rule.task == task) {
                freed.insert(rule.path);
                rule.valid = false;
                roots.push_back(std::move(rule.path));
                rule.path.clear();
            }
        }
        for (const FileNotifyRule& rule : rules_) {
            if (rule.valid) {
                freed.erase(rule.path);  // another subscriber still needs its audit watch
            }
        }
    }
    Locked lock(indexLock_);
    for (const std::string& root : roots) {
        if (lock) {
            index_.RemoveRoot(root);
        }
    }
    return {freed.begin(), freed.end()};
}

void FileAuditWatch::Send(const std::string& rule, const std::string& operate)
{
    auto* message = new AuditFileSystemCtrlMessage(task_, "", {}, _FileNotifyOpt{});
    message->tag = kFileWatchRuleTag;
    message->operate = operate;
    message->rule = rule;
    if (task_ == nullptr) {
        AUDIT_LOG_ERROR("File watch has no task, rule(%s) not sent.", rule);
        delete message;
        return;
    }
    task_->SendDirectMsg(kAuditTaskName, message);
}

void FileAuditWatch::RegisterFileRule(const std::string& rule)
{
    Send(rule, "-w");
}

void FileAuditWatch::UnregisterFileRule(const std::string& rule)
{
    Send(rule, "-W");
}

std::vector<FileNotifyRule> FileAuditWatch::Rules()
{
    Locked lock(ruleLock_);
    return lock ? rules_ : std::vector<FileNotifyRule>();
}

// ---------------------------------------------------------------------------------------------
// Inode index operations
// ---------------------------------------------------------------------------------------------

namespace {

InodeInfo InfoOf(const struct stat& st)
{
    return InodeInfo{static_cast<uint64_t>(st.st_ino), S_ISDIR(st.st_mode), static_cast<uint64_t>(st.st_dev)};
}

bool SameEntry(const InodeInfo* known, const InodeInfo& info)
{
    return known != nullptr && known->inode == info.inode && known->dev == info.dev && known->isDir == info.isDir;
}

}  // namespace

// The directories whose entries are still to be recorded, read one after the other: the one
// being read stays open between steps, the others wait by path with the inode they had. Each is
// opened without following a link and read only when it is still the directory it was when its
// entry was recorded (and the index still holds that entry), so a link or another directory
// swapped in leads nowhere outside the tree, and a tree moved away or deleted meanwhile is left.
struct FileAuditWatch::PendingScan {
    struct Directory {
        std::string path;
        InodeInfo info;
        int depth = 0;
    };
    std::deque<Directory> queue;
    DIR* reading = nullptr;  // the front's stream, once opened

    ~PendingScan() { Close(); }

    void Close()
    {
        if (reading != nullptr) {
            closedir(reading);
            reading = nullptr;
        }
    }

    // Records path; a directory not recorded with the same inode before waits to be read.
    void Add(const std::string& path, InodeIndex& index, std::vector<std::string>& full, int depth = 0)
    {
        struct stat st {};
        if (lstat(path.c_str(), &st) != 0) {
            return;
        }
        Record(path, InfoOf(st), index, full, depth);
    }

    void Record(const std::string& path, const InodeInfo& info, InodeIndex& index, std::vector<std::string>& full,
                int depth)
    {
        if (info.isDir && SameEntry(index.Find(path), info)) {
            return;  // recorded already: ends loops and repeated scans
        }
        std::string overflowed;
        if (!index.Set(path, info, &overflowed)) {
            if (!overflowed.empty()) {
                full.push_back(overflowed);
            }
            return;
        }
        if (info.isDir && depth < kMaxWalkDepth) {
            queue.push_back(Directory{path, info, depth});
        }
    }

    // Reads the front directory's entries, up to budget of them; the number read.
    size_t Step(size_t budget, InodeIndex& index, std::vector<std::string>& full)
    {
        size_t done = 0;
        while (done < budget && !queue.empty()) {
            const Directory& front = queue.front();
            if (reading == nullptr && !Open(front, index)) {
                queue.pop_front();
                continue;
            }
            const int fd = dirfd(reading);
            const dirent* entry = readdir(reading);
            if (entry == nullptr) {
                Close();
                queue.pop_front();
                continue;
            }
            ++done;
            if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) {
                continue;
            }
            std::string child = front.path == "/" ? "/" + std::string(entry->d_name) : front.path + "/" + entry->d_name;
            struct stat st {};
            if (child.size() > kMaxPathLength || fstatat(fd, entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
                continue;
            }
            Record(child, InfoOf(st), index, full, front.depth + 1);
        }
        return done;
    }

private:
    bool Open(const Directory& directory, InodeIndex& index)
    {
        if (!SameEntry(index.Find(directory.path), directory.info) || index.Full(directory.path)) {
            return false;  // gone from the index since, or its watch cannot take more
        }
        const int fd = open(directory.path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        struct stat st {};
        if (fd < 0 || fstat(fd, &st) != 0 || !SameEntry(&directory.info, InfoOf(st))) {
            if (fd >= 0) {
                close(fd);
            }
            return false;  // not the directory its entry was: known, but not walked
        }
        reading = fdopendir(fd);
        if (reading == nullptr) {
            close(fd);
            return false;
        }
        return true;
    }
};

FileAuditWatch::~FileAuditWatch() = default;

void FileAuditWatch::RecordInodeInfo(const std::string& path)
{
    std::vector<std::string> full;
    {
        Locked lock(indexLock_);
        if (!lock) {
            return;
        }
        if (!scan_) {
            scan_ = std::make_unique<PendingScan>();
        }
        scan_->Add(path, index_, full);
    }
    NotifyOverflow(full);
}

bool FileAuditWatch::ScanStep(size_t budget)
{
    std::vector<std::string> full;
    bool more = false;
    {
        Locked lock(indexLock_);
        if (!lock || !scan_) {
            return false;
        }
        scan_->Step(budget, index_, full);
        more = !scan_->queue.empty();
    }
    NotifyOverflow(full);
    return more;
}

bool FileAuditWatch::Scanning()
{
    Locked lock(indexLock_);
    return lock && scan_ && !scan_->queue.empty();
}

void FileAuditWatch::RecordInodeInfoRecursive(const std::string& path, InodeIndex& index)
{
    PendingScan scan;
    std::vector<std::string> full;
    scan.Add(path, index, full);
    while (!scan.queue.empty()) {
        scan.Step(SIZE_MAX, index, full);
    }
}

void FileAuditWatch::NotifyOverflow(const std::vector<std::string>& roots)
{
    for (const std::string& root : roots) {
        AUDIT_LOG_WARN("The file watch of %s holds its most entries (%s); what is made beyond them is named by the "
                       "audit records alone.", root, std::to_string(index_.MaxEntriesPerRoot()));
        for (const FileNotifyRule& rule : Rules()) {
            if (rule.valid && rule.task != nullptr && InodeIndex::Canonical(rule.path) == root) {
                rule.task->SendAgileMsg(rule.task, new AuditEventMessage(rule.task, rule.path, "", kNotifyOverflow,
                                                                         true, Extra()));
            }
        }
    }
}

void FileAuditWatch::EraseInodeInfo(const std::string& path)
{
    Locked lock(indexLock_);
    if (lock) {
        EraseInodeInfoEx(path);
    }
}

void FileAuditWatch::EraseInodeInfoEx(const std::string& path)
{
    const InodeInfo* info = index_.Find(path);
    if (info == nullptr) {
        return;
    }
    const bool isDir = info->isDir;
    index_.Erase(path);
    if (isDir) {
        index_.EraseBelow(path);
    }
}

std::string FileAuditWatch::GetFilePathByInode(unsigned long inode, unsigned long dev)
{
    Locked lock(indexLock_);
    return lock ? GetFilePathByInodeEx(inode, dev) : std::string();
}

std::string FileAuditWatch::GetFilePathByInodeEx(unsigned long inode, unsigned long dev)
{
    return index_.PathOf(inode, dev);
}

bool FileAuditWatch::IsDirFile(const std::string& path)
{
    Locked lock(indexLock_);
    return lock && IsDirFileEx(path);
}

bool FileAuditWatch::IsDirFileEx(const std::string& path)
{
    const InodeInfo* info = index_.Find(path);
    return info != nullptr && info->isDir;
}

unsigned long FileAuditWatch::GetDevFromStr(std::string dev)
{
    if (dev.size() <= 2) {
        return 0;
    }
    // The kernel writes major and minor in hexadecimal around a colon, two digits at least: the
    // colon is the third character unless the major needs three (259, NVMe disks, is "103").
    const size_t colon = dev.find(':');
    if (colon == std::string::npos) {
        dev.erase(2, 1);
        return Number(dev, 16);
    }
    return makedev(Number(dev.substr(0, colon), 16), Number(dev.substr(colon + 1), 16));
}

// ---------------------------------------------------------------------------------------------
// Path tests
// ---------------------------------------------------------------------------------------------

bool FileAuditWatch::IsChildFile(const FileNotifyRule& rule, const std::string& path)
{
    return !rule.path.empty() && path.size() > rule.path.size() && SDK::PathUtils::IsBelow(rule.path, path);
}

bool FileAuditWatch::CheckFileRecursiveEx(const std::string& path)
{
    Locked lock(ruleLock_);
    if (!lock) {
        return false;
    }
    for (const FileNotifyRule& rule : rules_) {
        if (!rule.valid) {
            continue;
        }
        if (rule.path == path || (rule.recursive ? IsChildFile(rule, path) : IsChildFileNoRecursive(rule.path, path))) {
            return true;
        }
    }
    return false;
}

bool FileAuditWatch::CheckFileRecursive(const std::string& path, const std::string& cwd)
{
    return !path.empty() && CheckFileRecursiveEx(Absolute(path, cwd));
}

// KEPT: the shorter directory is compared with the same-length prefix of the longer, so /a and
// /a/b count as the same directory.
bool FileAuditWatch::IsDirSame(const std::string& a, const std::string& b)
{
    // dirname may change its argument: it gets copies.
    std::string copyA = a;
    std::string copyB = b;
    const std::string dirA = dirname(copyA.data());
    const std::string dirB = dirname(copyB.data());
    const size_t length = std::min(dirA.size(), dirB.size());
    return dirA.compare(0, length, dirB, 0, length) == 0;
}

void FileAuditWatch::GetAbsPath(std::string& path, std::string& destPath, const std::string& cwd)
{
    if (path.empty() || destPath.empty()) {
        return;
    }
    path = Absolute(path, cwd);
    destPath = Absolute(destPath, cwd);
}

// ---------------------------------------------------------------------------------------------
// Notifications
// ---------------------------------------------------------------------------------------------

void FileAuditWatch::InitSyscallHandlers()
{
    for (const auto& [name, handler] : kFileOperationCalls) {
        handlers_.emplace(name, handler);
    }
    for (const auto& [name, handler] : kNewerFormCalls) {
        handlers_.emplace(name, handler);
    }
    for (const auto& [name, handler] : kMoreChangingCalls) {
        handlers_.emplace(name, handler);
    }
}

FileAuditWatch::Handler FileAuditWatch::FindHandler(const std::string& syscallName) const
{
    const auto it = handlers_.find(syscallName);
    return it == handlers_.end() ? nullptr : it->second;
}

void FileAuditWatch::CheckMessageInfo(const AuditEventMessage& msg)
{
    const AuditEvent* event = msg.event.get();
    if (event == nullptr || event->success == "no" || event->paths.empty()) {
        return;  // failed calls change nothing
    }
    auto& names = IsRecordArch64(event->arch) ? syscallNumberToName64 : syscallNumberToName32;
    const std::string name = names[event->syscall];
    if (name.empty()) {
        return;
    }
    // A call newer than every list still creates and deletes entries the kernel records.
    const Handler handler = FindHandler(name);
    (this->*(handler != nullptr ? handler : &FileAuditWatch::HandleCreatesAndDeletes))(msg, name);
    AUDIT_CPU_CHECK(kFileWatchTaskName);
}

void FileAuditWatch::TraceArguments(const std::string& syscallName, const AuditEvent& event, bool withA3)
{
    AUDIT_LOG_DEBUG("type=%s", syscallName);
    AUDIT_LOG_DEBUG("a1=%s", event.a1);
    AUDIT_LOG_DEBUG("a2=%s", event.a2);
    if (withA3) {
        AUDIT_LOG_DEBUG("a3=%s", event.a3);
    }
}

const AuditLogPath* FileAuditWatch::FirstRecord(const AuditEvent& event)
{
    return event.paths.empty() ? nullptr : &event.paths.back();
}

const AuditLogPath* FileAuditWatch::SecondRecord(const AuditEvent& event)
{
    return event.paths.size() < 2 ? nullptr : &event.paths[event.paths.size() - 2];
}

std::string FileAuditWatch::PathOfRecord(const AuditLogPath& record)
{
    return GetFilePathByInode(Number(record.inode, 10), GetDevFromStr(record.dev));
}

std::string FileAuditWatch::CreatedName(const AuditEvent& event, size_t at)
{
    // The kernel writes the directory of each name it looked up as a PARENT record, named by the
    // name's directory part (the working directory for a name without one) and carrying the
    // directory's inode: for a call relative to a directory descriptor that inode is the real
    // parent's, whatever the name says. The records come in the order the call copied its names
    // in (a rename's new name first on these kernels), so the entry's own PARENT is the one whose
    // name is its directory; failing that, the last PARENT before it.
    const AuditLogPath& created = event.paths[at];
    const auto [dir, name] = LinuxAuditUtil::SplitLastComponent(created.path);
    const AuditLogPath* parent = nullptr;
    for (size_t i = at; i-- > 0;) {
        const AuditLogPath& record = event.paths[i];
        if (record.nametype != "PARENT") {
            continue;
        }
        if (parent == nullptr) {
            parent = &record;
        }
        if (LinuxAuditUtil::WithoutTrailingSlashes(record.path) == dir) {
            parent = &record;
            break;
        }
    }
    const std::string parentPath = parent == nullptr ? std::string() : PathOfRecord(*parent);
    if (parentPath.empty() || name.empty()) {
        return created.hostPath;  // the working directory's form, its directory resolved
    }
    return (parentPath == "/" ? "" : parentPath) + "/" + name;
}

std::string FileAuditWatch::PathOrName(const AuditLogPath& record)
{
    const std::string path = PathOfRecord(record);
    return path.empty() ? record.hostPath : path;
}

bool FileAuditWatch::Prepare(const AuditEventMessage& msg, Extra& extra)
{
    if (!msg.event || msg.event->paths.empty()) {
        return false;
    }
    const SDK::AuditFields& fields = LinuxAuditUtil::getSyscallMsg(msg.event->parsedEvent);
    if (fields.empty()) {
        return false;
    }
    extra.reserve(fields.size() + 2);
    for (const auto& [name, value] : fields) {
        extra.emplace(name, value);
    }
    extra.emplace(kNotifyTimeMs, std::to_string(msg.event->parsedEvent.header[0]));
    extra.emplace(kNotifySerial, std::to_string(msg.event->parsedEvent.header[1]));
    return true;
}

void FileAuditWatch::CheckObjTypeOpen(const AuditEventMessage& msg, const std::string& syscallName)
{
    (void)syscallName;
    Extra extra;
    if (!Prepare(msg, extra)) {
        return;
    }
    const AuditEvent& event = *msg.event;
    for (size_t i = 0; i < event.paths.size(); ++i) {
        const AuditLogPath& record = event.paths[i];
        if (record.nametype == "NORMAL") {
            const bool touch = event.comm == "touch";
            MakeEvent(touch ? record.hostPath : PathOfRecord(record), touch ? kNotifyAttrib : kNotifyModify, "",
                      event.cwd, extra);
        } else if (record.nametype == "CREATE") {
            MakeEvent(CreatedName(event, i), kNotifyCreate, "", event.cwd, extra);
        }
    }
}

void FileAuditWatch::HandleOpen(const AuditEventMessage& msg, const std::string& syscallName)
{
    Extra extra;
    if (!Prepare(msg, extra)) {
        return;
    }
    const AuditEvent& event = *msg.event;
    TraceArguments(syscallName, event, false);
    unsigned long flags = Number(syscallName == "openat" ? event.a2 : event.a1, 16);
    if (syscallName == "openat2") {
        // openat2 passes its flags in a structure; the kernel writes them, in octal, as OPENAT2.
        const SDK::AuditFields* how = event.parsedEvent.FindRecord("OPENAT2");
        flags = how == nullptr ? 0 : Number(std::string(how->View("oflag")), 8);
    }
    const AuditLogPath* first = FirstRecord(event);
    if ((flags & static_cast<unsigned long>(O_CREAT)) != 0 && event.items == 2) {  // a new file
        const std::string path = CreatedName(event, event.paths.size() - 1);
        AUDIT_LOG_DEBUG("new file %s", path);
        MakeEvent(path, kNotifyCreate, "", event.cwd, extra);
    } else if ((flags & static_cast<unsigned long>(O_ACCMODE)) != O_RDONLY && event.items == 1) {  // for writing
        MakeEvent(PathOfRecord(*first), event.comm == "touch" ? kNotifyAttrib : kNotifyModify, "", event.cwd, extra);
    }
}

void FileAuditWatch::HandleMkdir(const AuditEventMessage& msg, const std::string& syscallName)
{
    (void)syscallName;
    Extra extra;
    if (!Prepare(msg, extra) || msg.event->items != 2) {
        return;
    }
    const AuditEvent& event = *msg.event;
    const std::string path = CreatedName(event, event.paths.size() - 1);
    AUDIT_LOG_DEBUG("new dir  %s", path);
    MakeEvent(path, kNotifyCreate, "", event.cwd, extra);
}

void FileAuditWatch::HandleLink(const AuditEventMessage& msg, const std::string& syscallName)
{
    (void)syscallName;
    Extra extra;
    if (!Prepare(msg, extra) || msg.event->items < 1) {
        return;
    }
    const AuditEvent& event = *msg.event;
    MakeEvent(CreatedName(event, event.paths.size() - 1), kNotifyCreate, "", event.cwd, extra);
}

void FileAuditWatch::CheckObjTypeRm(const AuditEventMessage& msg, const std::string& syscallName)
{
    (void)syscallName;
    Extra extra;
    if (!Prepare(msg, extra)) {
        return;
    }
    const AuditEvent& event = *msg.event;
    for (const AuditLogPath& record : event.paths) {
        if (record.nametype == "DELETE") {
            MakeEvent(PathOfRecord(record), kNotifyDelete, "", event.cwd, extra);
        }
    }
}

void FileAuditWatch::CheckObjTypeMove(const AuditEventMessage& msg, const std::string& syscallName)
{
    (void)syscallName;
    Extra extra;
    if (!Prepare(msg, extra) || msg.event->lines.size() < 5 || msg.event->paths.size() <= 1) {
        return;
    }
    const AuditEvent& event = *msg.event;
    // The source is the first DELETE record (a second one is the entry the rename replaced), the
    // destination the CREATE record, which comes last.
    const auto deleted = std::find_if(event.paths.begin(), event.paths.end(),
                                      [](const AuditLogPath& record) { return record.nametype == "DELETE"; });
    std::string source = PathOrName(deleted != event.paths.end() ? *deleted : *SecondRecord(event));
    std::string destination = CreatedName(event, event.paths.size() - 1);
    const bool sourceWatched = CheckFileRecursive(source, event.cwd);
    const bool destinationWatched = CheckFileRecursive(destination, event.cwd);
    if (!destinationWatched) {
        MakeEvent(source, kNotifyMovedFrom, destination, event.cwd, extra);  // moved out of view
    } else if (sourceWatched) {
        GetAbsPath(source, destination, event.cwd);
        if (IsDirSame(source, destination)) {
            MakeEvent(source, kNotifyMove, destination, event.cwd, extra);
        } else {
            MakeEvent(source, kNotifyMovedFrom, destination, event.cwd, extra);
            MakeEvent(destination, kNotifyMovedTo, "", event.cwd, extra);
        }
    } else {
        MakeEvent(destination, kNotifyMovedTo, "", event.cwd, extra);
    }
}

void FileAuditWatch::HandleChmod(const AuditEventMessage& msg, const std::string& syscallName)
{
    Extra extra;
    if (!Prepare(msg, extra)) {
        return;
    }
    const AuditEvent& event = *msg.event;
    TraceArguments(syscallName, event, false);
    const bool atForm = syscallName == "fchmodat" || syscallName == "fchmodat2";
    const unsigned long requested = Number(atForm ? event.a2 : event.a1, 16);
    if (event.items < 1) {
        return;
    }
    const AuditLogPath& first = *FirstRecord(event);
    const unsigned long mode = Number(first.mode, 8);
    const unsigned long oldMode = mode & (S_IFMT | 07777UL);
    const unsigned long newMode = (mode & S_IFMT) | (requested & 07777UL);
    AUDIT_LOG_DEBUG("old attr is %lu, new attr is %lu", newMode, oldMode);
    if (newMode == oldMode) {
        return;
    }
    extra["access"] = std::to_string(newMode);
    extra["oaccess"] = std::to_string(oldMode);
    MakeEvent(PathOfRecord(first), kNotifyAttrib, "", event.cwd, extra);
}

void FileAuditWatch::HandleChown(const AuditEventMessage& msg, const std::string& syscallName)
{
    Extra extra;
    if (!Prepare(msg, extra)) {
        return;
    }
    const AuditEvent& event = *msg.event;
    TraceArguments(syscallName, event, true);
    const bool atForm = syscallName == "chownat" || syscallName == "fchownat";
    const unsigned long uid = Number(atForm ? event.a2 : event.a1, 16);
    const unsigned long gid = Number(atForm ? event.a3 : event.a2, 16);
    if (event.items != 1) {
        return;
    }
    const AuditLogPath& first = *FirstRecord(event);
    constexpr unsigned long kUnchanged = 0xFFFFFFFFUL;  // -1: the caller leaves it as it is
    const bool uidChanged = uid != kUnchanged && uid != Number(first.ouid, 10);
    const bool gidChanged = gid != kUnchanged && gid != Number(first.ogid, 10);
    if (uidChanged) {
        extra["ouid"] = first.ouid;
        extra["cuid"] = std::to_string(uid);
    }
    if (gidChanged) {
        extra["ogid"] = first.ogid;
        extra["cgid"] = std::to_string(gid);
    }
    if (uidChanged || gidChanged) {
        MakeEvent(PathOfRecord(first), kNotifyAttrib, "", event.cwd, extra);
    }
}

void FileAuditWatch::HandleChangeByInode(const AuditEventMessage& msg, const std::string& syscallName)
{
    Extra extra;
    if (Prepare(msg, extra)) {
        const unsigned kind = syscallName == "truncate" ? kNotifyModify : kNotifyAttrib;
        MakeEvent(PathOfRecord(*FirstRecord(*msg.event)), kind, "", msg.event->cwd, extra);
    }
}

void FileAuditWatch::HandleCreatesAndDeletes(const AuditEventMessage& msg, const std::string& syscallName)
{
    (void)syscallName;
    Extra extra;
    if (!Prepare(msg, extra)) {
        return;
    }
    const AuditEvent& event = *msg.event;
    for (size_t i = 0; i < event.paths.size(); ++i) {
        if (event.paths[i].nametype == "CREATE") {
            MakeEvent(CreatedName(event, i), kNotifyCreate, "", event.cwd, extra);
        } else if (event.paths[i].nametype == "DELETE") {
            MakeEvent(PathOfRecord(event.paths[i]), kNotifyDelete, "", event.cwd, extra);
        }
    }
}

void FileAuditWatch::MakeEvent(const std::string& path, unsigned mask, const std::string& destPath,
                               const std::string& cwd, const Extra& extra)
{
    if (path.empty()) {
        return;
    }
    // Names formed from the index or the records are absolute and are not resolved again.
    const std::string target = path.front() == '/' ? path : Absolute(path, cwd);
    if (!CheckFileRecursive(target, cwd)) {
        return;
    }
    const std::string destination = destPath.empty() || destPath.front() == '/' ? destPath : Absolute(destPath, cwd);
    bool isDir = IsDirFile(target);
    switch (mask) {
    case kNotifyCreate:
    case kNotifyMovedTo:
        RecordInodeInfo(target);
        isDir = IsDirFile(target);
        break;
    case kNotifyMove:
        EraseInodeInfo(target);
        RecordInodeInfo(destination);
        isDir = IsDirFile(destination);
        break;
    case kNotifyMovedFrom:
    case kNotifyDelete:
        EraseInodeInfo(target);
        break;
    default:
        break;
    }
    NotifyEvent(target, mask, destination, isDir, extra);
}

void FileAuditWatch::NotifyEvent(const std::string& path, unsigned mask, const std::string& destPath, bool isDir,
                                 const Extra& extra)
{
    // Sent from a copy, so no lock is held while queues are filled.
    for (const FileNotifyRule& rule : Rules()) {
        // Every descendant counts here whatever the rule's recursive flag; MakeEvent has already
        // asked whether some rule covers the path.
        if (!rule.valid || (rule.mask & mask) == 0 || (path != rule.path && !IsChildFile(rule, path)) ||
            rule.task == nullptr) {
            continue;
        }
        rule.task->SendAgileMsg(rule.task, new AuditEventMessage(rule.task, path, destPath, static_cast<int>(mask),
                                                                 isDir, extra));
    }
}

}  // namespace Engine
