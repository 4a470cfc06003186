#include "AuditModule.h"

#include "AuditConstants.h"
#include "AuditLogging.h"
#include "AuditTask.h"
#include "FileWatchAuditTask.h"

#include <new>

namespace Engine {

AuditModule::AuditModule(TaskFactory factory) : Framework::Module(kAuditModuleName), factory_(std::move(factory)) {}

AuditModule::TaskFactory AuditModule::DefaultFactory()
{
    return {[] { return new (std::nothrow) AuditTask(); }, [] { return new (std::nothrow) FileWatchAuditTask(); }};
}

AuditModule::~AuditModule()
{
    delete auditTask_;
    auditTask_ = nullptr;
    delete fileWatchTask_;
    fileWatchTask_ = nullptr;
}

int AuditModule::Init()
{
    AUDIT_LOG_INFO("Init audit module.");
    auditTask_ = factory_.audit();
    if (auditTask_ == nullptr) {
        AUDIT_LOG_ERROR("New task(%s) failed.", kAuditTaskName);
        return -1;
    }
    RegisterTask(auditTask_, false);
    fileWatchTask_ = factory_.fileWatch();
    if (fileWatchTask_ == nullptr) {
        AUDIT_LOG_ERROR("New task(%s) failed.", kFileWatchTaskName);
        UnRegisterTask(kAuditTaskName);
        delete auditTask_;
        auditTask_ = nullptr;  // so the destructor does not destroy it a second time
        return -1;
    }
    RegisterTask(fileWatchTask_, false);
    return Framework::Module::Init();
}

void AuditModule::UnInit()
{
    AUDIT_LOG_INFO("Uninit audit module.");
    UnRegisterTaskletCallback(kAuditTaskName);
    UnRegisterTaskletCallback(kFileWatchTaskName);
    Framework::Module::UnInit();
}

}  // namespace Engine

extern "C" __attribute__((visibility("default"))) Framework::Module* CreateModule()
{
    return new Engine::AuditModule;
}
