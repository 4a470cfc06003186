#include "ContainerProc.h"

#include <algorithm>
#include <cstring>
#include <regex>
#include <sstream>

namespace Container {

namespace {

bool IsId(const std::string& text, size_t at)
{
    if (at + 64 > text.size()) {
        return false;
    }
    return std::all_of(text.begin() + static_cast<long>(at), text.begin() + static_cast<long>(at) + 64,
                       [](char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); });
}

// The container one path component names, given the component before it.
CgroupOwner OwnerFromComponent(const std::string& component, const std::string& parent)
{
    // prefix, suffix, runtime: the component is prefix + id + suffix.
    static const struct {
        const char* prefix;
        const char* suffix;
        const char* runtime;
    } kForms[] = {
        {"docker-", ".scope", "docker"},       {"cri-containerd-", ".scope", "containerd"},
        {"crio-", ".scope", "cri-o"},          {"libpod-", ".scope", "podman"},
        {"libpod-", "", "podman"},
    };
    for (const auto& form : kForms) {
        const std::string prefix = form.prefix;
        const std::string suffix = form.suffix;
        if (component.size() == prefix.size() + 64 + suffix.size() && component.compare(0, prefix.size(), prefix) == 0 &&
            component.compare(prefix.size() + 64, std::string::npos, suffix) == 0 && IsId(component, prefix.size())) {
            return {component.substr(prefix.size(), 64), form.runtime};
        }
    }
    // The systemd driver's notation in cgroup v1: "<slice>:cri-containerd:<id>".
    const size_t cri = component.find(":cri-containerd:");
    if (cri != std::string::npos && component.size() == cri + 16 + 64 && IsId(component, cri + 16)) {
        return {component.substr(cri + 16), "containerd"};
    }
    if (component.size() == 64 && IsId(component, 0)) {
        if (parent == "docker") {
            return {component, "docker"};
        }
        if (parent.compare(0, 3, "pod") == 0) {
            return {component, "cri"};  // kubepods with the cgroupfs driver: the runtime is not named
        }
    }
    return {};
}

// True when path lies where container runtimes make their cgroups: their own slices and cgroup
// roots, which only root can create in, or a rootless runtime's place under a user's own systemd
// instance (user@UID.service, delegated to that user: a container found there is one of that
// user's own processes). A directory of the runtimes' names anywhere else (under a login session,
// say) is no container.
bool PlacedByRuntime(const std::string& path)
{
    static const char* const kRoots[] = {"/system.slice/", "/machine.slice/", "/kubepods/", "/kubepods.slice/",
                                         "/docker/", "/libpod_parent/"};
    for (const char* root : kRoots) {
        if (path.compare(0, std::strlen(root), root) == 0) {
            return true;
        }
    }
    static const std::regex kRootless("^/user\\.slice/user-([0-9]+)\\.slice/user@\\1\\.service/.*");
    return std::regex_match(path, kRootless);
}

CgroupOwner OwnerFromPath(const std::string& path)
{
    CgroupOwner owner;
    if (!PlacedByRuntime(path)) {
        return owner;
    }
    std::string parent;
    std::istringstream components(path);
    for (std::string component; std::getline(components, component, '/');) {
        const CgroupOwner found = OwnerFromComponent(component, parent);
        if (!found.id.empty()) {
            owner = found;  // the deepest one names the container
        }
        parent = component;
    }
    return owner;
}

std::string Unescape(const std::string& text)
{
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && i + 3 < text.size() && std::all_of(text.begin() + static_cast<long>(i) + 1,
                                                                       text.begin() + static_cast<long>(i) + 4,
                                                                       [](char c) { return c >= '0' && c <= '7'; })) {
            out += static_cast<char>((text[i + 1] - '0') * 64 + (text[i + 2] - '0') * 8 + (text[i + 3] - '0'));
            i += 3;
        } else {
            out += text[i];
        }
    }
    return out;
}

// True when dir holds path (or is it), as directories: "/a" holds "/a/b", not "/ab".
size_t Depth(const std::string& path)
{
    return static_cast<size_t>(std::count(path.begin(), path.end(), '/')) - (path == "/" ? 1 : 0);
}

}  // namespace

CgroupOwner OwnerFromCgroup(const std::string& text)
{
    CgroupOwner v1;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        const size_t first = line.find(':');
        const size_t second = first == std::string::npos ? std::string::npos : line.find(':', first + 1);
        if (second == std::string::npos) {
            continue;
        }
        const CgroupOwner owner = OwnerFromPath(line.substr(second + 1));
        if (line.compare(0, second + 1, "0::") == 0 && !owner.id.empty()) {
            return owner;
        }
        if (v1.id.empty()) {
            v1 = owner;
        }
    }
    return v1;
}

std::vector<MountEntry> ParseMountInfo(const std::string& text)
{
    std::vector<MountEntry> mounts;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream fields(line);
        std::string id;
        std::string parent;
        MountEntry entry;
        if (!(fields >> id >> parent >> entry.device >> entry.root >> entry.mountPoint >> entry.options)) {
            continue;
        }
        std::string field;
        while (fields >> field && field != "-") {
            // optional fields (shared:, master:, ...)
        }
        if (field != "-" || !(fields >> entry.fsType >> entry.source)) {
            continue;
        }
        entry.root = Unescape(entry.root);
        entry.mountPoint = Unescape(entry.mountPoint);
        entry.source = Unescape(entry.source);
        mounts.push_back(std::move(entry));
    }
    return mounts;
}

HostMounts::HostMounts(const std::vector<MountEntry>& mounts)
{
    byDeviceAndRoot_.reserve(mounts.size());
    for (const MountEntry& mount : mounts) {
        byDeviceAndRoot_.emplace(mount.device + '\0' + mount.root, &mount);
    }
}

const MountEntry* HostMounts::Holding(const MountEntry& mount) const
{
    // The roots that hold mount's root are itself and its ancestors up to "/": longest first.
    std::string key = mount.device + '\0' + mount.root;
    const size_t rootAt = mount.device.size() + 1;
    while (key.size() > rootAt) {
        const auto found = byDeviceAndRoot_.find(key);
        if (found != byDeviceAndRoot_.end()) {
            return found->second;
        }
        const size_t slash = key.rfind('/');
        if (slash == std::string::npos || slash < rootAt) {
            return nullptr;  // not an absolute root
        }
        key.resize(slash == rootAt && key.size() > rootAt + 1 ? rootAt + 1 : slash);
    }
    return nullptr;
}

std::string HostPathOf(const MountEntry& mount, const HostMounts& hostMounts)
{
    const MountEntry* best = hostMounts.Holding(mount);
    if (best == nullptr) {
        return {};
    }
    const std::string rest = best->root == "/" ? mount.root : mount.root.substr(best->root.size());
    if (rest.empty() || rest == "/") {
        return best->mountPoint;
    }
    return (best->mountPoint == "/" ? "" : best->mountPoint) + rest;
}

void DescribeMounts(const std::vector<MountEntry>& containerMounts, const std::vector<MountEntry>& hostMounts,
                    const std::string& rootFallback, Framework::ContainerInfo& info)
{
    const HostMounts host(hostMounts);
    info.rootPath = rootFallback;
    std::vector<Framework::MountPoint> found;
    std::unordered_map<std::string, size_t> at;  // destination: its place in found
    for (const MountEntry& mount : containerMounts) {
        const std::string hostPath = HostPathOf(mount, host);
        if (mount.mountPoint == "/") {
            info.rootPath = hostPath.empty() ? rootFallback : hostPath;  // a later root mount hides the earlier one
            found.clear();
            at.clear();
            continue;
        }
        // A later mount on the same place hides the earlier one, whatever the host sees of it.
        if (const auto earlier = at.find(mount.mountPoint); earlier != at.end()) {
            found[earlier->second].destination.clear();  // hidden: left out below
            at.erase(earlier);
        }
        if (!hostPath.empty()) {
            at.emplace(mount.mountPoint, found.size());
            found.push_back(Framework::MountPoint{hostPath, mount.mountPoint, mount.options, mount.options.compare(0, 2, "rw") == 0});
        }
    }
    found.erase(std::remove_if(found.begin(), found.end(), [](const Framework::MountPoint& m) { return m.destination.empty(); }),
                found.end());
    // Deepest first: the first mount that holds a path is then the one that shows it.
    std::stable_sort(found.begin(), found.end(), [](const Framework::MountPoint& a, const Framework::MountPoint& b) {
        return Depth(a.destination) > Depth(b.destination);
    });
    info.mounts = std::move(found);
}

bool StartTimeFromStat(const std::string& text, unsigned long long& startTime, bool& running)
{
    // The command name, in parentheses, may hold blanks and parentheses: fields follow the last ")".
    const size_t close = text.rfind(')');
    if (close == std::string::npos) {
        return false;
    }
    std::istringstream fields(text.substr(close + 1));
    std::string state;
    std::string skip;
    if (!(fields >> state)) {
        return false;
    }
    for (int field = 4; field < 22; ++field) {
        if (!(fields >> skip)) {
            return false;
        }
    }
    if (!(fields >> startTime)) {
        return false;
    }
    running = state != "Z" && state != "X";
    return true;
}

}  // namespace Container
