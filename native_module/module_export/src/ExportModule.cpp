#include "ExportModule.h"

#include "ExportTask.h"

#include "framework/Engine.h"
#include "sdk/PathUtils.h"

#include <Poco/Logger.h>

namespace Export {

ExportModule::ExportModule() : Framework::Module("export_module") {}

ExportModule::~ExportModule()
{
    delete task_;
}

int ExportModule::Init()
{
    Poco::Logger& log = Poco::Logger::get("export_module");
    Framework::Engine* engine = Framework::Engine::Current();
    std::string home;
    if (engine == nullptr || engine->ConfigurationFile().empty() || SDK::PathUtils::GetInstallationPath(home) != 0) {
        poco_error(log, "No configuration to export events from.");
        return -1;
    }
    AgentConfig config;
    std::string error;
    if (!LoadAgentConfig(engine->ConfigurationFile(), home, config, error)) {
        poco_error(log, "Unusable configuration: " + error);
        return -1;
    }
    std::FILE* console = config.output.toStdout ? stdout : nullptr;
    task_ = new ExportTask(std::move(config), console);
    RegisterTask(task_, false);
    return Framework::Module::Init();
}

void ExportModule::UnInit()
{
    UnRegisterTaskletCallback("export_task");
    Framework::Module::UnInit();
}

void ExportModule::Reload()
{
    if (task_ != nullptr) {
        task_->RequestReopen();
    }
}

}  // namespace Export

extern "C" __attribute__((visibility("default"))) Framework::Module* CreateModule()
{
    return new Export::ExportModule;
}
