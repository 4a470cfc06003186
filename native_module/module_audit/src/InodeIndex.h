#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace Engine {

/// What the inode index knows of one path.
struct InodeInfo {
    uint64_t inode = 0;  ///< st_ino
    bool isDir = false;  ///< a directory when recorded
    uint64_t dev = 0;    ///< st_dev
};

/// The paths under the watched trees that exist, with their inode and device. Stored as a tree:
/// each entry holds its parent and its own name, so a deep path costs its last component only.
/// Paths are absolute; "/a//b/" and "/a/b" are one path. A second index by (inode, device)
/// names a deleted or moved file without a scan, giving what a scan would give: the first such
/// path in byte order.
///
/// The watched trees are marked as roots; each may hold at most a set number of entries, so
/// nobody can grow the index without bound by making files (or hard links) under a watch.
class InodeIndex {
public:
    InodeIndex();
    ~InodeIndex();
    InodeIndex(const InodeIndex&) = delete;
    InodeIndex& operator=(const InodeIndex&) = delete;

    /// The entry of path, or null.
    const InodeInfo* Find(std::string_view path) const;
    /// Sets (adds or replaces) the entry of path. False when path is not absolute, or when it
    /// is new and a root above it already holds its most entries; full then names that root when
    /// this is the first entry it refused since it last had room (else it is left empty).
    bool Set(std::string_view path, const InodeInfo& info, std::string* full = nullptr);
    /// Removes path; false when it was not there. What lies below it stays.
    bool Erase(std::string_view path);
    /// Removes every entry below dir (dir itself stays).
    void EraseBelow(std::string_view dir);
    /// True when a new entry at path would be refused: a root above it holds its most entries.
    bool Full(std::string_view path) const;

    /// The first path in byte order with this inode and device, or empty.
    std::string PathOf(uint64_t inode, uint64_t dev) const;
    /// The same answer found by building every path (for tests and measurements).
    std::string PathOfByScan(uint64_t inode, uint64_t dev) const;

    /// Marks path as the root of a watched tree (once per watch of it), or takes one mark away.
    void AddRoot(std::string_view path);
    void RemoveRoot(std::string_view path);
    /// The most entries below each root (the root itself not counted).
    void SetMaxEntriesPerRoot(size_t most) { maxPerRoot_ = most; }
    size_t MaxEntriesPerRoot() const { return maxPerRoot_; }

    /// Every entry by path, built anew (for tests and inspection).
    std::map<std::string, InodeInfo> Entries() const;
    /// The number of entries.
    size_t size() const { return known_; }

    /// path with empty components and trailing slashes gone ("/a//b/" is "/a/b"); "/" stays.
    static std::string Canonical(std::string_view path);

private:
    static constexpr uint32_t kNone = UINT32_MAX;
    struct Node {
        std::string name;           // the last component; empty for "/"
        InodeInfo info;
        uint32_t parent = kNone;
        uint32_t firstChild = kNone;
        uint32_t prevSibling = kNone;
        uint32_t nextSibling = kNone;
        uint32_t below = 0;         // known entries below
        uint16_t roots = 0;         // watches of this path
        bool known = false;         // an entry, not only the way to one
        bool overflowed = false;    // a root that has refused an entry since it last had room
        bool used = false;
    };
    struct ChildKey {
        uint32_t parent;
        std::string_view name;      // the child's own name, stored in its node
        bool operator==(const ChildKey& o) const { return parent == o.parent && name == o.name; }
    };
    struct ChildHash {
        size_t operator()(const ChildKey& k) const noexcept;  // noexcept: the map keeps no hash per entry
    };
    struct InodeKey {
        uint64_t inode;
        uint64_t dev;
        bool operator==(const InodeKey& o) const { return inode == o.inode && dev == o.dev; }
    };
    struct InodeHash {
        size_t operator()(const InodeKey& k) const noexcept;
    };
    // Orders nodes by their paths in byte order, without building them.
    struct PathOrder {
        const InodeIndex* index;
        bool operator()(uint32_t a, uint32_t b) const { return index->ComparePaths(a, b) < 0; }
    };
    // The entries of one inode: the first by path, and all of them once there are several.
    struct Links {
        uint32_t first = kNone;
        std::unique_ptr<std::set<uint32_t, PathOrder>> all;
    };

    uint32_t Lookup(std::string_view path) const;
    // The root above path (or path itself) that holds its most entries, or kNone.
    uint32_t FullRoot(std::string_view path) const;
    uint32_t Child(uint32_t parent, std::string_view name) const;
    uint32_t MakeChild(uint32_t parent, std::string_view name);
    // The node of path, made with the ways to it when missing; kNone when path is not absolute.
    uint32_t Make(std::string_view path);
    void Link(uint32_t id);
    void Unlink(uint32_t id);
    void Forget(uint32_t id);
    void Prune(uint32_t id);
    void CountBelow(uint32_t id, int64_t delta);
    std::string PathOfNode(uint32_t id) const;
    int ComparePaths(uint32_t a, uint32_t b) const;
    void Chain(uint32_t id, std::vector<uint32_t>& chain) const;

    std::deque<Node> nodes_;        // never move, so names can be keys; slot 0 is "/"
    std::vector<uint32_t> free_;
    std::unordered_map<ChildKey, uint32_t, ChildHash> children_;
    std::unordered_map<InodeKey, Links, InodeHash> byInode_;
    size_t known_ = 0;
    size_t maxPerRoot_ = SIZE_MAX;
};

}  // namespace Engine
