#pragma once

#include "framework/Module.h"

namespace Container {

/// The container module: one task, "container_collect_task", the agent's ContainerMetaInfo.
class ContainerModule : public Framework::Module {
public:
    ContainerModule();
    /// Creates and registers the task. -1 when it cannot be allocated.
    int Init() override;
};

}  // namespace Container

/// The module library's entry point: a new container module, owned by the caller.
extern "C" Framework::Module* CreateModule();
