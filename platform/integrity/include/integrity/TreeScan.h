#pragma once

#include "integrity/Baseline.h"
#include "integrity/FileFacts.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace Integrity {

/// One entry that differs from its baseline.
struct Difference {
    enum class Kind { kCreated, kDeleted, kChanged };
    Kind kind = Kind::kChanged;
    std::string path;
    std::optional<FileFacts> before;  ///< the baseline's; none for a created entry
    std::optional<FileFacts> after;   ///< now; none for a deleted entry
    uint32_t changes = 0;             ///< Change bits of a changed entry
    uint64_t below = 0;               ///< a deleted directory: the entries recorded below it
};

/// Compares one watched tree with its baseline, a bounded amount of work at a time, and records
/// what it finds. Directories are opened without following links and read only while they are
/// still the directory their parent listed; entries are named relative to the open directory.
/// An entry whose inode, size, mtime and ctime match its record keeps its recorded hash and is
/// not read. The scan stays on the root's file system, as `find -xdev` does.
class TreeScan {
public:
    /// report false: record without reporting (a tree recorded for the first time).
    /// record false: compare only, leaving the baseline as it is.
    TreeScan(Root root, Baseline& baseline, FactsReader& reader, bool report, bool record);
    ~TreeScan();
    TreeScan(const TreeScan&) = delete;
    TreeScan& operator=(const TreeScan&) = delete;

    /// Looks at no more than most entries: the rest of a larger tree is neither recorded nor
    /// compared (Capped says so).
    void SetMostEntries(uint64_t most) { most_ = most; }
    /// True when the tree held more entries than the scan may look at.
    bool Capped() const { return capped_; }
    /// Does about budget units of work (an entry is one, and every 64 KiB hashed another) and
    /// appends the differences found. False once the whole tree is done.
    bool Step(size_t budget, std::vector<Difference>& found);
    const Root& GetRoot() const { return root_; }
    /// Entries looked at so far.
    uint64_t Entries() const { return entries_; }
    /// Entries read for their hash so far.
    uint64_t Hashed() const { return hashed_; }
    /// True when a directory could not be compared (replaced while queued, or unreadable): the
    /// tree was not seen whole.
    bool Skipped() const { return skipped_; }

private:
    struct Pending {
        std::string path;
        uint64_t device;
        uint64_t inode;
    };
    // Compares the entry name of the open directory (the root itself when dirFd is AT_FDCWD).
    void Visit(int dirFd, const std::string& dir, const std::string& name, const FileFacts* recorded,
               std::vector<Difference>& found);
    // Queues a directory the scan goes into.
    void Descend(int dirFd, const std::string& path, const FileFacts& now);
    bool OpenNext();
    void CloseDir(std::vector<Difference>& found);
    // Reports the root itself gone.
    void CloseRoot(const FileFacts& recorded, std::vector<Difference>& found);

    Root root_;
    Baseline& baseline_;
    FactsReader& reader_;
    bool report_;
    bool record_;
    bool started_ = false;
    uint64_t rootDevice_ = 0;
    std::vector<Pending> queue_;
    int dirFd_ = -1;
    std::string dirPath_;
    std::vector<std::string> names_;
    size_t next_ = 0;
    std::map<std::string, FileFacts> recorded_;  // the open directory's baseline children not yet seen
    uint64_t entries_ = 0;
    uint64_t hashed_ = 0;
    bool skipped_ = false;
    uint64_t most_ = UINT64_MAX;
    bool capped_ = false;
};

}  // namespace Integrity
