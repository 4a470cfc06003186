#pragma once

#include "framework/Module.h"

#include <functional>

namespace Engine {

class AuditTask;
class FileWatchAuditTask;

/// The audit module: it creates, registers and owns the audit task and the file-watch task; the
/// framework runs them.
class AuditModule : public Framework::Module {
public:
    /// Makes the module's tasks; each gives null when it cannot allocate one.
    struct TaskFactory {
        std::function<AuditTask*()> audit;
        std::function<FileWatchAuditTask*()> fileWatch;
    };
    /// A module whose tasks come from factory (by default: new, without throwing).
    explicit AuditModule(TaskFactory factory = DefaultFactory());
    static TaskFactory DefaultFactory();
    /// Destroys the audit task, then the file-watch task.
    ~AuditModule() override;

    /// Creates and registers both tasks. The base's result, or -1 when a task cannot be allocated.
    int Init() override;
    /// Withdraws both tasks' name routes.
    void UnInit() override;

private:
    TaskFactory factory_;
    AuditTask* auditTask_ = nullptr;
    FileWatchAuditTask* fileWatchTask_ = nullptr;
};

}  // namespace Engine

/// The module library's entry point: a new audit module, owned by the caller.
extern "C" Framework::Module* CreateModule();
