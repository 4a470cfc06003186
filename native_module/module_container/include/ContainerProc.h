#pragma once

#include "container/ContainerMetaInfo.h"

#include <string>
#include <unordered_map>
#include <vector>

namespace Container {

/// The container a cgroup membership names: its id (64 hexadecimal digits) and runtime; both
/// empty for a process of the host.
struct CgroupOwner {
    std::string id;
    std::string runtime;
};

/// Reads /proc/PID/cgroup text (cgroup v1 and v2 lines). The cgroup v2 line wins when it names a
/// container, else the first v1 line that does. Recognised: Docker (`/docker/<id>`,
/// `docker-<id>.scope`), containerd and CRI (`cri-containerd-<id>.scope`, `:cri-containerd:<id>`,
/// a bare id under a kubepods `pod...` directory), CRI-O (`crio-<id>.scope`), Podman
/// (`libpod-<id>.scope`, `libpod_parent/libpod-<id>`, rootless ones under user.slice). Conmon's
/// own cgroups (`crio-conmon-`, `libpod-conmon-`) and the host's units are no container.
CgroupOwner OwnerFromCgroup(const std::string& text);

/// One line of /proc/PID/mountinfo.
struct MountEntry {
    std::string device;      ///< major:minor of the file system
    std::string root;        ///< the directory of that file system mounted here
    std::string mountPoint;  ///< where, as the process sees it
    std::string options;     ///< per-mount options
    std::string fsType;
    std::string source;
};

/// Reads /proc/PID/mountinfo text; octal escapes (\040 for a blank) are undone. Lines that do not
/// parse are skipped.
std::vector<MountEntry> ParseMountInfo(const std::string& text);

/// The host's mounts by file system and root, so each of a container's mounts is placed with a
/// lookup per component of its root instead of a pass over every host mount.
class HostMounts {
public:
    /// Of mounts with the same file system and root, the first is kept. mounts must outlive this.
    explicit HostMounts(const std::vector<MountEntry>& mounts);
    /// The host mount of mount's file system whose root holds mount's root, the longest such;
    /// null when there is none.
    const MountEntry* Holding(const MountEntry& mount) const;

private:
    std::unordered_map<std::string, const MountEntry*> byDeviceAndRoot_;  // device, NUL, root
};

/// Where the host sees what mount shows: a host mount of the same file system whose root holds
/// mount's root, the longest such. Empty when the host has none (a proc, a tmpfs of the
/// container's own).
std::string HostPathOf(const MountEntry& mount, const HostMounts& hostMounts);

/// The container's root path on the host and its mounts of host directories and files, from its
/// process's mountinfo and the host's. Mounts come deepest first, so the first that holds a path is
/// the one that shows it. The root falls back to rootFallback (the process's /proc/PID/root) when
/// the host does not see the root file system.
void DescribeMounts(const std::vector<MountEntry>& containerMounts, const std::vector<MountEntry>& hostMounts,
                    const std::string& rootFallback, Framework::ContainerInfo& info);

/// The process's start time (clock ticks after boot, field 22 of /proc/PID/stat) and whether it
/// still runs (not a zombie); false when the text does not parse.
bool StartTimeFromStat(const std::string& text, unsigned long long& startTime, bool& running);

}  // namespace Container
