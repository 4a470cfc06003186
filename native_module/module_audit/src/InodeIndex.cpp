#include "InodeIndex.h"

#include <functional>

namespace Engine {

namespace {

// Calls visit with each non-empty component of path in order; false when path is not absolute.
template <typename Visit>
bool Components(std::string_view path, Visit&& visit)
{
    if (path.empty() || path.front() != '/') {
        return false;
    }
    size_t at = 0;
    while (at < path.size()) {
        const size_t end = std::min(path.find('/', at), path.size());
        if (end > at && !visit(path.substr(at, end - at))) {
            return true;
        }
        at = end + 1;
    }
    return true;
}

}  // namespace

size_t InodeIndex::ChildHash::operator()(const ChildKey& k) const noexcept
{
    return std::hash<std::string_view>()(k.name) ^ (static_cast<size_t>(k.parent) * 0x9e3779b97f4a7c15ULL);
}

size_t InodeIndex::InodeHash::operator()(const InodeKey& k) const noexcept
{
    return std::hash<uint64_t>()(k.inode) ^ (k.dev * 0x9e3779b97f4a7c15ULL);
}

InodeIndex::InodeIndex()
{
    nodes_.emplace_back();
    nodes_[0].used = true;
}

InodeIndex::~InodeIndex() = default;

std::string InodeIndex::Canonical(std::string_view path)
{
    std::string canonical;
    const bool absolute = Components(path, [&](std::string_view name) {
        canonical.append(1, '/').append(name);
        return true;
    });
    return !absolute ? std::string(path) : canonical.empty() ? std::string("/") : canonical;
}

uint32_t InodeIndex::Child(uint32_t parent, std::string_view name) const
{
    const auto found = children_.find(ChildKey{parent, name});
    return found == children_.end() ? kNone : found->second;
}

uint32_t InodeIndex::Lookup(std::string_view path) const
{
    uint32_t id = 0;
    const bool absolute = Components(path, [&](std::string_view name) {
        id = Child(id, name);
        return id != kNone;
    });
    return absolute ? id : kNone;
}

uint32_t InodeIndex::MakeChild(uint32_t parent, std::string_view name)
{
    uint32_t id = 0;
    if (!free_.empty()) {
        id = free_.back();
        free_.pop_back();
        nodes_[id] = Node();
    } else {
        id = static_cast<uint32_t>(nodes_.size());
        nodes_.emplace_back();
    }
    Node& node = nodes_[id];
    node.used = true;
    node.name = name;
    node.parent = parent;
    node.nextSibling = nodes_[parent].firstChild;
    if (node.nextSibling != kNone) {
        nodes_[node.nextSibling].prevSibling = id;
    }
    nodes_[parent].firstChild = id;
    children_.emplace(ChildKey{parent, node.name}, id);
    return id;
}

uint32_t InodeIndex::Make(std::string_view path)
{
    uint32_t id = 0;
    const bool absolute = Components(path, [&](std::string_view name) {
        const uint32_t child = Child(id, name);
        id = child != kNone ? child : MakeChild(id, name);
        return true;
    });
    return absolute ? id : kNone;
}

const InodeInfo* InodeIndex::Find(std::string_view path) const
{
    const uint32_t id = Lookup(path);
    return id != kNone && nodes_[id].known ? &nodes_[id].info : nullptr;
}

uint32_t InodeIndex::FullRoot(std::string_view path) const
{
    // The node of path or its nearest existing ancestor, then up to "/".
    uint32_t id = 0;
    if (!Components(path, [&](std::string_view name) {
            const uint32_t child = Child(id, name);
            id = child != kNone ? child : id;
            return child != kNone;
        })) {
        return kNone;
    }
    for (; id != kNone; id = nodes_[id].parent) {
        if (nodes_[id].roots > 0 && nodes_[id].below >= maxPerRoot_) {
            return id;
        }
    }
    return kNone;
}

bool InodeIndex::Full(std::string_view path) const
{
    return FullRoot(path) != kNone;
}

bool InodeIndex::Set(std::string_view path, const InodeInfo& info, std::string* full)
{
    if (full != nullptr) {
        full->clear();
    }
    uint32_t id = Lookup(path);
    if (id == kNone || !nodes_[id].known) {
        if (const uint32_t root = FullRoot(path); root != kNone) {
            // The root is named the first time it refuses, so its watchers hear of it once.
            if (!nodes_[root].overflowed && full != nullptr) {
                *full = PathOfNode(root);
            }
            nodes_[root].overflowed = true;
            return false;
        }
    }
    id = id != kNone ? id : Make(path);
    if (id == kNone) {
        return false;
    }
    Node& node = nodes_[id];
    if (node.known) {
        Unlink(id);  // its place in the second index depends on the old inode
    } else {
        node.known = true;
        ++known_;
        CountBelow(node.parent, 1);
    }
    node.info = info;
    Link(id);
    return true;
}

void InodeIndex::CountBelow(uint32_t id, int64_t delta)
{
    for (; id != kNone; id = nodes_[id].parent) {
        Node& node = nodes_[id];
        node.below = static_cast<uint32_t>(static_cast<int64_t>(node.below) + delta);
        if (delta < 0 && node.below < maxPerRoot_) {
            node.overflowed = false;
        }
    }
}

void InodeIndex::Link(uint32_t id)
{
    Links& links = byInode_[InodeKey{nodes_[id].info.inode, nodes_[id].info.dev}];
    if (links.first == kNone) {
        links.first = id;
        return;
    }
    if (!links.all) {
        links.all = std::make_unique<std::set<uint32_t, PathOrder>>(PathOrder{this});
        links.all->insert(links.first);
    }
    links.all->insert(id);
    links.first = *links.all->begin();
}

void InodeIndex::Unlink(uint32_t id)
{
    const auto found = byInode_.find(InodeKey{nodes_[id].info.inode, nodes_[id].info.dev});
    if (found == byInode_.end()) {
        return;
    }
    Links& links = found->second;
    if (!links.all) {
        if (links.first == id) {
            byInode_.erase(found);
        }
        return;
    }
    links.all->erase(id);
    if (links.all->empty()) {
        byInode_.erase(found);
        return;
    }
    links.first = *links.all->begin();
    if (links.all->size() == 1) {
        links.all.reset();
    }
}

void InodeIndex::Forget(uint32_t id)
{
    Node& node = nodes_[id];
    if (!node.known) {
        return;
    }
    Unlink(id);
    node.known = false;
    --known_;
    CountBelow(node.parent, -1);
}

void InodeIndex::Prune(uint32_t id)
{
    // A node that is no entry, no root and no way to one goes, and so may its parent then.
    while (id != 0 && id != kNone) {
        Node& node = nodes_[id];
        if (!node.used || node.known || node.roots > 0 || node.firstChild != kNone) {
            return;  // (unused: pruned already with a child of its)
        }
        const uint32_t parent = node.parent;
        children_.erase(ChildKey{parent, node.name});
        if (node.prevSibling != kNone) {
            nodes_[node.prevSibling].nextSibling = node.nextSibling;
        } else {
            nodes_[parent].firstChild = node.nextSibling;
        }
        if (node.nextSibling != kNone) {
            nodes_[node.nextSibling].prevSibling = node.prevSibling;
        }
        node = Node();
        free_.push_back(id);
        id = parent;
    }
}

bool InodeIndex::Erase(std::string_view path)
{
    const uint32_t id = Lookup(path);
    if (id == kNone || !nodes_[id].known) {
        return false;
    }
    Forget(id);
    Prune(id);
    return true;
}

void InodeIndex::EraseBelow(std::string_view dir)
{
    const uint32_t top = Lookup(dir);
    if (top == kNone) {
        return;
    }
    // Depth first, a node after its children, so each is pruned once it is empty (a root below
    // stays, as the way to its watch).
    std::vector<std::pair<uint32_t, bool>> stack;  // node, children pushed
    for (uint32_t child = nodes_[top].firstChild; child != kNone; child = nodes_[child].nextSibling) {
        stack.emplace_back(child, false);
    }
    while (!stack.empty()) {
        auto& [id, expanded] = stack.back();
        if (!expanded) {
            expanded = true;
            const uint32_t first = nodes_[id].firstChild;
            for (uint32_t child = first; child != kNone; child = nodes_[child].nextSibling) {
                stack.emplace_back(child, false);
            }
            continue;
        }
        const uint32_t done = id;
        stack.pop_back();
        Forget(done);
        Prune(done);
    }
}

void InodeIndex::AddRoot(std::string_view path)
{
    if (const uint32_t id = Make(path); id != kNone) {
        ++nodes_[id].roots;
    }
}

void InodeIndex::RemoveRoot(std::string_view path)
{
    const uint32_t id = Lookup(path);
    if (id != kNone && nodes_[id].roots > 0) {
        --nodes_[id].roots;
        Prune(id);
    }
}

void InodeIndex::Chain(uint32_t id, std::vector<uint32_t>& chain) const
{
    chain.clear();
    for (; id != kNone; id = nodes_[id].parent) {
        chain.push_back(id);
    }
}

std::string InodeIndex::PathOfNode(uint32_t id) const
{
    std::vector<uint32_t> chain;
    Chain(id, chain);
    size_t length = 0;
    for (const uint32_t at : chain) {
        length += nodes_[at].name.size() + 1;
    }
    std::string path;
    path.reserve(length);
    for (auto it = chain.rbegin() + 1; it < chain.rend(); ++it) {
        path.append(1, '/').append(nodes_[*it].name);
    }
    return path.empty() ? std::string("/") : path;
}

int InodeIndex::ComparePaths(uint32_t a, uint32_t b) const
{
    if (a == b) {
        return 0;
    }
    std::vector<uint32_t> ca;
    std::vector<uint32_t> cb;
    Chain(a, ca);
    Chain(b, cb);
    // From "/" down: the first components that differ decide, as the bytes of whole paths would.
    size_t i = ca.size();
    size_t j = cb.size();
    while (i > 0 && j > 0 && ca[i - 1] == cb[j - 1]) {
        --i;
        --j;
    }
    if (i == 0 || j == 0) {
        return i == 0 ? -1 : 1;  // one is an ancestor: its path is a prefix of the other's
    }
    const std::string& x = nodes_[ca[i - 1]].name;
    const std::string& y = nodes_[cb[j - 1]].name;
    const size_t n = std::min(x.size(), y.size());
    const int order = x.compare(0, n, y, 0, n);
    if (order != 0) {
        return order;
    }
    // One name begins the other: the shorter path goes on with '/' or ends there.
    const auto next = [n](const std::string& name, bool more) -> int {
        return name.size() > n ? static_cast<unsigned char>(name[n]) : more ? '/' : -1;
    };
    return next(x, i > 1) < next(y, j > 1) ? -1 : 1;
}

std::string InodeIndex::PathOf(uint64_t inode, uint64_t dev) const
{
    const auto found = byInode_.find(InodeKey{inode, dev});
    return found == byInode_.end() ? std::string() : PathOfNode(found->second.first);
}

std::string InodeIndex::PathOfByScan(uint64_t inode, uint64_t dev) const
{
    std::string first;
    for (uint32_t id = 0; id < nodes_.size(); ++id) {
        const Node& node = nodes_[id];
        if (node.used && node.known && node.info.inode == inode && node.info.dev == dev) {
            std::string path = PathOfNode(id);
            if (first.empty() || path < first) {
                first = std::move(path);
            }
        }
    }
    return first;
}

std::map<std::string, InodeInfo> InodeIndex::Entries() const
{
    std::map<std::string, InodeInfo> entries;
    for (uint32_t id = 0; id < nodes_.size(); ++id) {
        if (nodes_[id].used && nodes_[id].known) {
            entries.emplace(PathOfNode(id), nodes_[id].info);
        }
    }
    return entries;
}

}  // namespace Engine
