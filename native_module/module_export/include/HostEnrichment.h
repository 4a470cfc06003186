#pragma once

#include "EcsJson.h"
#include "IdNames.h"
#include "ProcessTable.h"

namespace Framework {
class ContainerMetaInfo;
}

namespace Export {

/// Enrichment from this host: id names from its files and, for a process in a container, from
/// the container's own files read inside its root; a process table seeded from /proc; the
/// container module's task, when the agent runs one.
class HostEnrichment : public Enrichment {
public:
    /// Argument lists read from /proc are cut at maxArgBytes. containers may be null (then the
    /// running engine's container task is asked, if there is one).
    explicit HostEnrichment(size_t maxArgBytes, Framework::ContainerMetaInfo* containers = nullptr);

    bool Container(int32_t pid, int32_t ppid, ContainerFacts& container) override;
    bool UserName(const std::string& root, uint32_t uid, std::string& name) override;
    bool GroupName(const std::string& root, uint32_t gid, std::string& name) override;
    const ProcessFacts* Process(int32_t pid, uint64_t timeMs) override;
    void Exec(int32_t pid, uint64_t timeMs, ProcessFacts facts) override;

private:
    Framework::ContainerMetaInfo* containers_;
    bool containersLooked_ = false;
    IdNames names_;
    ProcProcessSource source_;
    ProcessTable table_;
};

}  // namespace Export
