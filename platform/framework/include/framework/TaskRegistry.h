#pragma once

#include <map>
#include <shared_mutex>
#include <string>

namespace Framework {

class Task;
class Message;

/// The running tasks by name: the route by which a message addressed to a name reaches its task.
class TaskRegistry {
public:
    /// Adds a task under its name. Returns false when the name is taken.
    bool Add(Task* task);
    /// Removes the task of that name. After it returns no sender can still reach that task.
    bool Remove(const std::string& name);
    /// The task of that name, or null.
    Task* Find(const std::string& name) const;
    /// Outcome of Deliver.
    enum class Delivery { kQueued, kQueueFull, kNoSuchTask };
    /// Queues msg on the task of that name; the message is destroyed unless queued. The lookup
    /// and the hand-over happen under one lock, so a task that is being removed never receives
    /// a message afterwards.
    Delivery Deliver(const std::string& name, Message* msg) const;

private:
    mutable std::shared_mutex mutex_;
    std::map<std::string, Task*, std::less<>> tasks_;
};

}  // namespace Framework
