#include "HostEnrichment.h"

#include "container/ContainerMetaInfo.h"
#include "framework/Engine.h"

namespace Export {

HostEnrichment::HostEnrichment(size_t maxArgBytes, Framework::ContainerMetaInfo* containers)
    : containers_(containers), containersLooked_(containers != nullptr),
      source_(maxArgBytes), table_(source_)
{
    table_.Seed();
}

bool HostEnrichment::Container(int32_t pid, int32_t ppid, ContainerFacts& container)
{
    if (!containersLooked_) {
        // The container task starts with the engine's other tasks: asked for at the first event.
        Framework::Engine* engine = Framework::Engine::Current();
        containers_ = engine == nullptr ? nullptr
                                        : dynamic_cast<Framework::ContainerMetaInfo*>(
                                              engine->FindTask(Framework::kContainerCollectTaskName));
        containersLooked_ = true;
    }
    if (containers_ == nullptr) {
        return false;
    }
    std::shared_ptr<Framework::ContainerInfo> info;
    if (!(containers_->GetContainerInfoByPid(pid, info) || containers_->GetContainerInfoByPid(ppid, info)) || !info) {
        return false;
    }
    container.id = info->id;
    container.runtime = info->runtime;
    container.rootPath = info->rootPath;
    return true;
}

bool HostEnrichment::UserName(const std::string& root, uint32_t uid, std::string& name)
{
    return names_.UserName(root, uid, name);
}

bool HostEnrichment::GroupName(const std::string& root, uint32_t gid, std::string& name)
{
    return names_.GroupName(root, gid, name);
}

const ProcessFacts* HostEnrichment::Process(int32_t pid, uint64_t timeMs)
{
    return table_.Find(pid, timeMs);
}

void HostEnrichment::Exec(int32_t pid, uint64_t timeMs, ProcessFacts facts)
{
    table_.Exec(pid, timeMs, std::move(facts));
}

}  // namespace Export
