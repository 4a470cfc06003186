#pragma once

#include "framework/Module.h"

namespace Export {

class ExportTask;

/// The event export module: its one task subscribes what the agent's configuration names and
/// writes what arrives as JSON lines. The agent's main job.
class ExportModule : public Framework::Module {
public:
    ExportModule();
    ~ExportModule() override;
    /// Reads the agent's configuration and creates the task; -1 when the configuration is unusable.
    int Init() override;
    void UnInit() override;
    /// Reopens the output file (SIGHUP, after logrotate).
    void Reload() override;

private:
    ExportTask* task_ = nullptr;
};

}  // namespace Export

/// The module library's entry point.
extern "C" Framework::Module* CreateModule();
