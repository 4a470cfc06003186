#include "ContainersCommand.h"

#include "container/ContainerMetaInfo.h"
#include "framework/Engine.h"
#include "framework/Task.h"
#include "sdk/JsonWriter.h"
#include "sdk/PathUtils.h"

#include <ostream>

namespace Agent {

int RunContainersCommand(Framework::Engine& engine, std::ostream& out, std::ostream& err)
{
    std::string home;
    SDK::PathUtils::GetInstallationPath(home);
    const std::string library = home + "lib/modules/libcontainer_module.so";
    if (engine.LoadModule(library) != 0 || engine.StartTasks() != 0) {
        err << "hostwarden containers: cannot load the container module " << library << "; see the log\n";
        return 1;
    }
    auto* provider = dynamic_cast<Framework::ContainerMetaInfo*>(engine.FindTask(Framework::kContainerCollectTaskName));
    std::vector<std::shared_ptr<Framework::ContainerInfo>> containers;
    const bool listed = provider != nullptr && provider->ListContainers(containers);
    if (listed) {
        for (const auto& c : containers) {
            std::string line;
            SDK::JsonWriter json(line);
            json.BeginObject();
            json.Field("id", c->id);
            json.Field("runtime", c->runtime);
            json.Field("rootPath", c->rootPath);
            json.Key("mounts");
            json.BeginArray();
            for (const Framework::MountPoint& m : c->mounts) {
                json.BeginObject();
                json.Field("source", m.source);
                json.Field("destination", m.destination);
                json.Field("options", m.mode);
                json.Field("readWrite", m.readWrite);
                json.EndObject();
            }
            json.EndArray();
            json.EndObject();
            out << line << "\n";
        }
    } else {
        err << "hostwarden containers: the container module cannot list containers\n";
    }
    containers.clear();  // the module's objects go before its library does
    engine.StopAll();
    return listed ? 0 : 1;
}

}  // namespace Agent
