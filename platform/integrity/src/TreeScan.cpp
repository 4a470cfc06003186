#include "integrity/TreeScan.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

namespace Integrity {

namespace {

constexpr uint64_t kHashUnitBytes = 64 * 1024;

// The names in the open directory fd, sorted; fd stays open.
bool ListNames(int fd, std::vector<std::string>& names)
{
    const int copy = ::fcntl(fd, F_DUPFD_CLOEXEC, 0);
    DIR* dir = copy < 0 ? nullptr : ::fdopendir(copy);
    if (dir == nullptr) {
        if (copy >= 0) {
            ::close(copy);
        }
        return false;
    }
    while (const dirent* entry = ::readdir(dir)) {
        if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0) {
            names.emplace_back(entry->d_name);
        }
    }
    ::closedir(dir);
    std::sort(names.begin(), names.end());
    return true;
}

}  // namespace

TreeScan::TreeScan(Root root, Baseline& baseline, FactsReader& reader, bool report, bool record)
    : root_(std::move(root)), baseline_(baseline), reader_(reader), report_(report), record_(record)
{
}

TreeScan::~TreeScan()
{
    if (dirFd_ >= 0) {
        ::close(dirFd_);
    }
}

void TreeScan::Visit(int dirFd, const std::string& dir, const std::string& name, const FileFacts* recorded,
                     std::vector<Difference>& found)
{
    const std::string path = JoinPath(dir, name);
    FileFacts now;
    int error = 0;
    if (!reader_.Stat(dirFd, name.c_str(), now, error)) {
        return;  // gone since the listing: the live notifications tell of it
    }
    ++entries_;
    if (recorded != nullptr && SameVersion(*recorded, now) && HashHolds(*recorded, reader_.MaxHashBytes())) {
        now.hash = recorded->hash;
        now.sha256 = recorded->sha256;
    } else {
        reader_.Hash(dirFd, name.c_str(), now);
        hashed_ += now.hash == HashState::kDone && !now.IsDir() ? 1 : 0;
    }
    FileFacts current;
    if (recorded != nullptr && !(*recorded == now) && baseline_.Get(path, current)) {
        // A live notification may have recorded this version since the directory was opened.
        recorded = &current;
        if (*recorded == now) {
            return Descend(dirFd, path, now);
        }
    }
    if (report_) {
        Difference d;
        d.path = path;
        if (recorded == nullptr) {
            d.kind = Difference::Kind::kCreated;
            d.after = now;
            found.push_back(std::move(d));
        } else if (const uint32_t changes = Differences(*recorded, now); changes != 0) {
            d.kind = Difference::Kind::kChanged;
            d.before = *recorded;
            d.after = now;
            d.changes = changes;
            found.push_back(std::move(d));
        }
    }
    if (record_ && (recorded == nullptr || !(*recorded == now))) {
        baseline_.Put(path, now);
    }
    Descend(dirFd, path, now);
}

void TreeScan::Descend(int dirFd, const std::string& path, const FileFacts& now)
{
    const bool descend = dirFd == AT_FDCWD || root_.recursive;
    if (now.IsDir() && descend && (dirFd == AT_FDCWD || now.device == rootDevice_)) {
        queue_.push_back(Pending{path, now.device, now.inode});
    }
}

bool TreeScan::OpenNext()
{
    while (!queue_.empty()) {
        Pending next = std::move(queue_.back());
        queue_.pop_back();
        const int fd = ::open(next.path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        struct stat st {};
        if (fd < 0 || ::fstat(fd, &st) != 0 || st.st_ino != next.inode || st.st_dev != next.device) {
            if (fd >= 0) {
                ::close(fd);
            }
            skipped_ = true;  // replaced since it was listed (or unreadable): not compared
            continue;
        }
        names_.clear();
        if (!ListNames(fd, names_)) {
            ::close(fd);
            skipped_ = true;
            continue;
        }
        dirFd_ = fd;
        dirPath_ = std::move(next.path);
        next_ = 0;
        recorded_ = baseline_.Children(dirPath_);
        return true;
    }
    return false;
}

void TreeScan::CloseRoot(const FileFacts& recorded, std::vector<Difference>& found)
{
    if (report_) {
        Difference d;
        d.kind = Difference::Kind::kDeleted;
        d.path = root_.path;
        d.below = baseline_.CountBelow(root_.path);
        d.before = recorded;
        found.push_back(std::move(d));
    }
    if (record_) {
        baseline_.Erase(root_.path);
        baseline_.Flush();
    }
}

void TreeScan::CloseDir(std::vector<Difference>& found)
{
    // What the baseline holds and the directory no longer does. The live notifications may have
    // removed a record since the directory was opened; only what is still recorded counts.
    for (auto& [name, facts] : recorded_) {
        const std::string path = JoinPath(dirPath_, name);
        FileFacts still;
        if (!baseline_.Get(path, still)) {
            continue;
        }
        if (report_) {
            Difference d;
            d.kind = Difference::Kind::kDeleted;
            d.path = path;
            d.below = still.IsDir() ? baseline_.CountBelow(path) : 0;
            d.before = std::move(still);
            found.push_back(std::move(d));
        }
        if (record_) {
            baseline_.Erase(path);
        }
    }
    recorded_.clear();
    ::close(dirFd_);
    dirFd_ = -1;
}

bool TreeScan::Step(size_t budget, std::vector<Difference>& found)
{
    const uint64_t bytesAtStart = reader_.BytesHashed();
    size_t spent = 0;
    const auto used = [&] { return spent + (reader_.BytesHashed() - bytesAtStart) / kHashUnitBytes; };
    if (!started_) {
        started_ = true;
        FileFacts recorded;
        const bool known = baseline_.Get(root_.path, recorded);
        struct stat st {};
        rootDevice_ = ::lstat(root_.path.c_str(), &st) == 0 ? st.st_dev : 0;
        ++spent;
        if (st.st_dev == 0 && known) {
            // The watched path itself is gone.
            CloseRoot(recorded, found);
            return false;
        }
        Visit(AT_FDCWD, std::string(), root_.path, known ? &recorded : nullptr, found);
    }
    while (used() < budget) {
        if (entries_ >= most_) {
            // A user who may write in the tree must not grow the baseline without end.
            capped_ = true;
            queue_.clear();
            recorded_.clear();  // what lies beyond is not compared, so nothing counts as deleted
            if (dirFd_ >= 0) {
                ::close(dirFd_);
                dirFd_ = -1;
            }
            baseline_.Flush();
            return false;
        }
        if (dirFd_ < 0 && !OpenNext()) {
            baseline_.Flush();
            return false;
        }
        if (next_ == names_.size()) {
            CloseDir(found);
            continue;
        }
        const std::string& name = names_[next_++];
        const auto known = recorded_.find(name);
        if (known == recorded_.end()) {
            Visit(dirFd_, dirPath_, name, nullptr, found);
        } else {
            const FileFacts recorded = std::move(known->second);
            recorded_.erase(known);
            Visit(dirFd_, dirPath_, name, &recorded, found);
        }
        ++spent;
    }
    baseline_.Flush();
    return true;
}

}  // namespace Integrity
