#pragma once

#include "ContainerProc.h"

#include "container/ContainerMetaInfo.h"
#include "framework/Task.h"

#include <chrono>
#include <map>
#include <unordered_map>
#include <memory>
#include <shared_mutex>
#include <string>
#include <vector>

namespace Container {

/// Where the provider reads: /proc (tests point it at a tree of their own).
struct ProcSource {
    std::string root = "/proc";
    /// The text of a file below root ("" when it cannot be read).
    virtual std::string Read(const std::string& relative) const;
    /// The process ids now there.
    virtual std::vector<int> Pids() const;
    /// The inode number of the process's directory, 0 when there is none. A process id that a new
    /// process takes again gets a directory with another inode number.
    virtual unsigned long ProcessInode(int pid) const;
    virtual ~ProcSource() = default;
};

/// The task "container_collect_task": tells which container a process runs in and what that
/// container's files are on the host, from /proc alone (no runtime's API). Answers come from a
/// cache that the inode number of a process's /proc directory keeps honest (one stat per lookup):
/// a process id that a new process took again is looked up anew. That a process is the host's is
/// trusted for 50 ms without a look (most events are the host's, and ids come back only after the
/// whole id space was used). A container is known by one of its processes; when that one has
/// ended (or is a zombie) another is looked for, and a container with none left is forgotten.
/// Lookups may come from any thread; /proc is read outside the lock the lookups share, so a
/// container with a huge mount table slows only the lookup that describes it. The caches are
/// bounded: past their size the processes checked longest ago are forgotten.
class ContainerCollectTask : public Framework::Task, public Framework::ContainerMetaInfo {
public:
    /// hostTrust: how long a process of the host is taken to be one without a look.
    explicit ContainerCollectTask(std::unique_ptr<ProcSource> proc = std::make_unique<ProcSource>(),
                                  std::chrono::milliseconds hostTrust = std::chrono::milliseconds(50));

    bool GetContainerInfoById(const std::string& containerId, std::shared_ptr<Framework::ContainerInfo>& info) override;
    bool GetContainerInfoByPid(int pid, std::shared_ptr<Framework::ContainerInfo>& info) override;
    bool ListContainers(std::vector<std::shared_ptr<Framework::ContainerInfo>>& containers) override;

    /// The most processes, and containers, remembered.
    static constexpr size_t kMaxProcesses = 16384;
    static constexpr size_t kMaxContainers = 1024;

    /// Lookups answered from the cache and those that read /proc, so far.
    uint64_t CacheHits() const { return hits_; }
    uint64_t CacheMisses() const { return misses_; }

private:
    struct Process {
        unsigned long inode;      // of its /proc directory
        std::string containerId;  // empty: a process of the host
        int64_t checkedNs;        // when the inode was last compared (steady clock)
    };
    struct Known {
        std::shared_ptr<Framework::ContainerInfo> info;
        int pid;  // a process of the container, and its start time: while it runs the container does
        unsigned long long startTime;
    };
    // What a process's /proc files say, read without the lock.
    struct Study {
        int pid = 0;
        unsigned long inode = 0;
        unsigned long long startTime = 0;
        CgroupOwner owner;                               // empty id: the host's
        std::shared_ptr<Framework::ContainerInfo> info;  // its container, when described
    };
    // The start time of a running process, or false.
    bool StartTime(int pid, unsigned long long& startTime) const;
    // Reads the process's cgroup (no lock needed).
    Study Read(int pid, unsigned long inode) const;
    // Describes the study's container from the process's and the host's mount tables (no lock).
    void Describe(Study& study) const;
    // True when the study's container is not known, or its known process has ended; call with
    // the lock held (shared will do).
    bool NeedsDescription(const Study& study) const;
    // Keeps what was studied; call with the lock held exclusively. The container's id.
    std::string Remember(const Study& study);
    // Read, Describe when needed and Remember, all with the lock held exclusively (for the
    // operators' lookups, which walk every process anyway).
    std::string Learn(int pid, unsigned long inode);
    // True while the container's known process still runs; call with the lock held.
    bool Alive(const Known& known) const;

    std::unique_ptr<ProcSource> proc_;
    const int64_t hostTrustNs_;
    mutable std::shared_mutex mutex_;
    std::unordered_map<int, Process> processes_;       // at most kMaxProcesses, the oldest go first
    std::unordered_map<std::string, Known> containers_;  // at most kMaxContainers, ended ones go first
    std::atomic<uint64_t> hits_{0};
    std::atomic<uint64_t> misses_{0};
};

}  // namespace Container
