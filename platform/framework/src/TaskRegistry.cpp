#include "framework/TaskRegistry.h"

#include "framework/Task.h"

#include <mutex>

namespace Framework {

bool TaskRegistry::Add(Task* task)
{
    std::unique_lock<std::shared_mutex> lock(mutex_);
    return task != nullptr && tasks_.emplace(task->GetName(), task).second;
}

bool TaskRegistry::Remove(const std::string& name)
{
    std::unique_lock<std::shared_mutex> lock(mutex_);
    return tasks_.erase(name) > 0;
}

Task* TaskRegistry::Find(const std::string& name) const
{
    std::shared_lock<std::shared_mutex> lock(mutex_);
    const auto it = tasks_.find(name);
    return it == tasks_.end() ? nullptr : it->second;
}

TaskRegistry::Delivery TaskRegistry::Deliver(const std::string& name, Message* msg) const
{
    std::shared_lock<std::shared_mutex> lock(mutex_);
    const auto it = tasks_.find(name);
    if (it == tasks_.end()) {
        delete msg;
        return Delivery::kNoSuchTask;
    }
    return it->second->PostMsg(msg) ? Delivery::kQueued : Delivery::kQueueFull;
}

}  // namespace Framework
