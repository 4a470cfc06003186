#include "ContainerModule.h"

#include "ContainerCollectTask.h"

#include <Poco/Logger.h>

#include <new>

namespace Container {

ContainerModule::ContainerModule() : Framework::Module("container_module") {}

int ContainerModule::Init()
{
    auto* task = new (std::nothrow) ContainerCollectTask;
    if (task == nullptr) {
        poco_error(Poco::Logger::get("container_module"), "New task(container_collect_task) failed.");
        return -1;
    }
    RegisterTask(task, true);
    return Framework::Module::Init();
}

}  // namespace Container

extern "C" __attribute__((visibility("default"))) Framework::Module* CreateModule()
{
    return new Container::ContainerModule;
}
