#include "ContainerCollectTask.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <mutex>

namespace Container {

namespace {

int64_t NowNs()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

}  // namespace

std::string ProcSource::Read(const std::string& relative) const
{
    // Plain system calls: a lookup reads a process's stat file each time, and a stream's set-up
    // would cost more than the read.
    std::string text;
    const int fd = open((root + "/" + relative).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return text;
    }
    char buffer[4096];
    for (ssize_t got; (got = read(fd, buffer, sizeof(buffer))) > 0;) {
        text.append(buffer, static_cast<size_t>(got));
    }
    close(fd);
    return text;
}

std::vector<int> ProcSource::Pids() const
{
    std::vector<int> pids;
    DIR* dir = opendir(root.c_str());
    while (dir != nullptr) {
        const dirent* entry = readdir(dir);
        if (entry == nullptr) {
            break;
        }
        char* end = nullptr;
        const long pid = std::strtol(entry->d_name, &end, 10);
        if (*end == '\0' && pid > 0) {
            pids.push_back(static_cast<int>(pid));
        }
    }
    if (dir != nullptr) {
        closedir(dir);
    }
    return pids;
}

unsigned long ProcSource::ProcessInode(int pid) const
{
    struct stat st {};
    return stat((root + "/" + std::to_string(pid)).c_str(), &st) == 0 ? static_cast<unsigned long>(st.st_ino) : 0;
}

ContainerCollectTask::ContainerCollectTask(std::unique_ptr<ProcSource> proc, std::chrono::milliseconds hostTrust)
    : Framework::Task(Framework::kContainerCollectTaskName, "container_feature", Framework::TaskCondition::kLoop, 64),
      proc_(std::move(proc)), hostTrustNs_(std::chrono::duration_cast<std::chrono::nanoseconds>(hostTrust).count())
{
}

bool ContainerCollectTask::StartTime(int pid, unsigned long long& startTime) const
{
    bool running = false;
    return pid > 0 && StartTimeFromStat(proc_->Read(std::to_string(pid) + "/stat"), startTime, running) && running;
}

bool ContainerCollectTask::Alive(const Known& known) const
{
    unsigned long long startTime = 0;
    return StartTime(known.pid, startTime) && startTime == known.startTime;
}

ContainerCollectTask::Study ContainerCollectTask::Read(int pid, unsigned long inode) const
{
    Study study;
    study.pid = pid;
    study.inode = inode;
    // A zombie's cgroup is gone: it counts as a process of the host.
    if (StartTime(pid, study.startTime)) {
        study.owner = OwnerFromCgroup(proc_->Read(std::to_string(pid) + "/cgroup"));
    }
    return study;
}

void ContainerCollectTask::Describe(Study& study) const
{
    auto info = std::make_shared<Framework::ContainerInfo>();
    info->id = study.owner.id;
    info->runtime = study.owner.runtime;
    // The host's view is process 1's (the agent itself may run in a mount namespace of its own,
    // as a hardened service does); failing that, the agent's.
    std::string host = proc_->Read("1/mountinfo");
    if (host.empty()) {
        host = proc_->Read("self/mountinfo");
    }
    const std::string prefix = std::to_string(study.pid) + "/";
    DescribeMounts(ParseMountInfo(proc_->Read(prefix + "mountinfo")), ParseMountInfo(host), proc_->root + "/" + prefix + "root", *info);
    study.info = std::move(info);
}

bool ContainerCollectTask::NeedsDescription(const Study& study) const
{
    const auto known = containers_.find(study.owner.id);
    return !study.owner.id.empty() && (known == containers_.end() || !Alive(known->second));
}

std::string ContainerCollectTask::Remember(const Study& study)
{
    if (processes_.size() >= kMaxProcesses && processes_.count(study.pid) == 0) {
        // The quarter checked longest ago goes: no look at /proc, and rarely.
        std::vector<std::pair<int64_t, int>> ages;
        ages.reserve(processes_.size());
        for (const auto& [pid, process] : processes_) {
            ages.emplace_back(process.checkedNs, pid);
        }
        const auto cut = ages.begin() + static_cast<std::ptrdiff_t>(ages.size() / 4);
        std::nth_element(ages.begin(), cut, ages.end());
        for (auto it = ages.begin(); it != cut; ++it) {
            processes_.erase(it->second);
        }
    }
    processes_[study.pid] = Process{study.inode, study.owner.id, NowNs()};
    if (study.owner.id.empty()) {
        return {};
    }
    if (study.info && NeedsDescription(study)) {
        if (containers_.size() >= kMaxContainers && containers_.count(study.owner.id) == 0) {
            for (auto it = containers_.begin(); it != containers_.end();) {
                it = Alive(it->second) ? std::next(it) : containers_.erase(it);
            }
            if (containers_.size() >= kMaxContainers) {
                containers_.erase(containers_.begin());  // all alive: any one goes, to be read again when asked
            }
        }
        containers_[study.owner.id] = Known{study.info, study.pid, study.startTime};
    }
    return containers_.count(study.owner.id) != 0 ? study.owner.id : std::string();
}

std::string ContainerCollectTask::Learn(int pid, unsigned long inode)
{
    Study study = Read(pid, inode);
    if (NeedsDescription(study)) {
        Describe(study);
    }
    return Remember(study);
}

bool ContainerCollectTask::GetContainerInfoByPid(int pid, std::shared_ptr<Framework::ContainerInfo>& info)
{
    if (pid <= 0) {
        return false;
    }
    {
        std::shared_lock<std::shared_mutex> lock(mutex_);
        const auto it = processes_.find(pid);
        if (it != processes_.end() && it->second.containerId.empty() && NowNs() - it->second.checkedNs < hostTrustNs_) {
            ++hits_;
            return false;
        }
    }
    const unsigned long inode = proc_->ProcessInode(pid);
    if (inode == 0) {
        return false;  // ended, or never was: nothing to say of it
    }
    {
        std::shared_lock<std::shared_mutex> lock(mutex_);
        const auto it = processes_.find(pid);
        const auto container = it == processes_.end() ? containers_.end() : containers_.find(it->second.containerId);
        if (it != processes_.end() && it->second.inode == inode && !it->second.containerId.empty() && container != containers_.end()) {
            ++hits_;
            info = container->second.info;
            return true;
        }
    }
    {
        std::unique_lock<std::shared_mutex> lock(mutex_);
        const auto it = processes_.find(pid);
        if (it != processes_.end() && it->second.inode == inode && it->second.containerId.empty()) {
            ++hits_;
            it->second.checkedNs = NowNs();  // still the same process of the host
            return false;
        }
    }
    ++misses_;
    // The files are read without the lock; what they said is kept with it.
    Study study = Read(pid, inode);
    bool describe = false;
    {
        std::shared_lock<std::shared_mutex> lock(mutex_);
        describe = NeedsDescription(study);
    }
    if (describe) {
        Describe(study);
    }
    std::unique_lock<std::shared_mutex> lock(mutex_);
    const std::string id = Remember(study);
    if (id.empty()) {
        return false;
    }
    info = containers_.at(id).info;
    return true;
}

bool ContainerCollectTask::GetContainerInfoById(const std::string& containerId, std::shared_ptr<Framework::ContainerInfo>& info)
{
    {
        std::shared_lock<std::shared_mutex> lock(mutex_);
        const auto it = containers_.find(containerId);
        if (it != containers_.end() && Alive(it->second)) {
            ++hits_;
            info = it->second.info;
            return true;
        }
    }
    std::unique_lock<std::shared_mutex> lock(mutex_);
    ++misses_;
    containers_.erase(containerId);
    // The process we knew has ended: any other of the container's processes will do.
    for (const int pid : proc_->Pids()) {
        unsigned long long startTime = 0;
        if (OwnerFromCgroup(proc_->Read(std::to_string(pid) + "/cgroup")).id == containerId && StartTime(pid, startTime) &&
            Learn(pid, proc_->ProcessInode(pid)) == containerId) {
            info = containers_.at(containerId).info;
            return true;
        }
    }
    return false;  // the container has stopped
}

bool ContainerCollectTask::ListContainers(std::vector<std::shared_ptr<Framework::ContainerInfo>>& containers)
{
    std::unique_lock<std::shared_mutex> lock(mutex_);
    std::map<std::string, std::shared_ptr<Framework::ContainerInfo>> seen;
    for (const int pid : proc_->Pids()) {
        unsigned long long startTime = 0;
        const std::string id = OwnerFromCgroup(proc_->Read(std::to_string(pid) + "/cgroup")).id;
        if (!id.empty() && seen.count(id) == 0 && StartTime(pid, startTime) && Learn(pid, proc_->ProcessInode(pid)) == id) {
            seen[id] = containers_.at(id).info;
        }
    }
    for (auto it = containers_.begin(); it != containers_.end();) {
        it = seen.count(it->first) != 0 ? std::next(it) : containers_.erase(it);  // stopped
    }
    containers.clear();
    for (auto& [id, info] : seen) {
        containers.push_back(info);
    }
    return true;
}

}  // namespace Container
