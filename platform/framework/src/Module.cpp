#include "framework/Module.h"

#include "framework/Task.h"
#include "framework/TaskRegistry.h"

#include <algorithm>

namespace Framework {

Module::Module(const std::string& name) : name_(name) {}

Module::~Module()
{
    for (Entry& entry : tasks_) {
        if (entry.owned) {
            delete entry.task;
        }
    }
}

int Module::Init()
{
    return 0;
}

void Module::UnInit() {}

int Module::RegisterTask(Task* task, bool frameworkOwns)
{
    if (task == nullptr) {
        return -1;
    }
    const bool taken = std::any_of(tasks_.begin(), tasks_.end(),
                                   [task](const Entry& entry) { return entry.task->GetName() == task->GetName(); });
    if (taken) {
        return -1;
    }
    tasks_.push_back(Entry{task, frameworkOwns});
    return 0;
}

int Module::UnRegisterTask(const std::string& name)
{
    const auto it = std::find_if(tasks_.begin(), tasks_.end(),
                                 [&name](const Entry& entry) { return entry.task->GetName() == name; });
    if (it == tasks_.end()) {
        return -1;
    }
    UnRegisterTaskletCallback(name);
    tasks_.erase(it);
    return 0;
}

int Module::UnRegisterTaskletCallback(const std::string& name)
{
    return registry_ != nullptr && registry_->Remove(name) ? 0 : -1;
}

std::vector<Task*> Module::GetTasks() const
{
    std::vector<Task*> tasks;
    tasks.reserve(tasks_.size());
    for (const Entry& entry : tasks_) {
        tasks.push_back(entry.task);
    }
    return tasks;
}

}  // namespace Framework
