#pragma once

#include <memory>
#include <string>
#include <vector>

namespace Framework {

/// A mount of a container: a host directory seen at a path inside the container.
struct MountPoint {
    std::string source;       ///< the directory on the host
    std::string destination;  ///< where the container sees it
    std::string mode;         ///< mount options as the runtime reports them
    bool readWrite = true;    ///< false for a read-only mount
};

/// What the agent knows of one container.
struct ContainerInfo {
    std::string id;                   ///< the runtime's container id
    std::vector<MountPoint> mounts;   ///< the container's mounts, the first that holds a path wins
    std::string rootPath;             ///< the container's root file system on the host
    std::string runtime;              ///< the runtime that made it ("docker", "podman", ...), if known
};

/// The container collection task's query interface ("container_collect_task").
class ContainerMetaInfo {
public:
    virtual ~ContainerMetaInfo() = default;
    /// Finds a container by id. Returns true and fills info when known.
    virtual bool GetContainerInfoById(const std::string& containerId, std::shared_ptr<ContainerInfo>& info) = 0;
    /// Finds the container a process runs in. Returns true and fills info when it runs in one.
    virtual bool GetContainerInfoByPid(int pid, std::shared_ptr<ContainerInfo>& info) = 0;
    /// Every container running now, for people checking what the agent knows. False when the
    /// provider cannot list them.
    virtual bool ListContainers(std::vector<std::shared_ptr<ContainerInfo>>& containers)
    {
        (void)containers;
        return false;
    }
};

/// The name of the task that implements ContainerMetaInfo.
inline constexpr const char* kContainerCollectTaskName = "container_collect_task";

}  // namespace Framework
