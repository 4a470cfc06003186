#pragma once

#include "framework/EventWaiter.h"
#include "framework/Message.h"
#include "framework/TaskCondition.h"

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>

namespace Framework {

class TaskRegistry;

/// A unit of work with its own thread and a bounded message queue. Messages are handled on the
/// task's thread, in the order each sender sent them.
class Task {
public:
    /// name identifies the task for SendDirectMsg; queueCapacity bounds its queue.
    Task(const std::string& name, const std::string& featureName, TaskCondition::TaskType type, size_t queueCapacity);
    virtual ~Task();
    Task(const Task&) = delete;
    Task& operator=(const Task&) = delete;

    /// Called by the engine before the thread starts. Returns 0 on success.
    virtual int Init();
    /// Called by the engine after the thread has ended.
    virtual void UnInit();
    /// The task's thread body. The default loop handles messages until the task is stopped.
    virtual int Run();

    /// A hook that sees every message before dispatch; true means it was consumed here.
    virtual bool InterceptMsg(std::shared_ptr<Message>& msg);
    /// Handles a message that no typed receiver of this task accepted.
    virtual int HandleMsg(const Message* msg);

    const std::string& GetName() const { return name_; }
    const std::string& GetFeatureName() const { return featureName_; }
    TaskCondition::TaskType GetTaskType() const { return type_; }
    int GetState() const { return state_.load(); }
    void SetState(int state) { state_.store(state); }
    /// Sets the stop state and wakes the task's thread.
    void Stop();

    /// Sends msg to the task registered under taskName. Takes ownership; on an unknown name or a
    /// full queue the message is destroyed, counted, and false returned.
    bool SendDirectMsg(const std::string& taskName, Message* msg);
    /// Sends msg to dest. Takes ownership; a null dest or a full queue destroys and counts it.
    bool SendAgileMsg(Task* dest, Message* msg);
    /// Queues msg on this task. Takes ownership; a full queue destroys and counts it.
    bool PostMsg(Message* msg);
    /// Dispatches up to max queued messages on the calling (the task's) thread. Returns how many.
    int BulkConsumeMsg(int max);

    /// The waiter the task's thread sleeps on.
    EventWaiter& GetEventWaiter() { return waiter_; }
    /// Messages waiting in the queue.
    size_t PendingCount() const;
    size_t QueueCapacity() const { return capacity_; }
    /// Messages addressed to this task that were dropped because its queue was full.
    uint64_t DroppedCount() const { return dropped_.load(); }
    /// Messages this task sent that had no destination (unknown name or null task).
    uint64_t UndeliverableCount() const { return undeliverable_.load(); }
    /// Messages whose dispatch on this task returned -1 (no receiver, or the receiver refused);
    /// each is then offered to HandleMsg.
    uint64_t UnhandledCount() const { return unhandled_.load(); }

    /// Connects the task to the name directory used by SendDirectMsg (done by the engine).
    void AttachRegistry(const TaskRegistry* registry) { registry_.store(registry); }

private:
    const std::string name_;
    const std::string featureName_;
    const TaskCondition::TaskType type_;
    const size_t capacity_;
    std::atomic<int> state_{kTaskCreated};
    std::deque<std::unique_ptr<Message>> queue_;  // guarded by waiter_.Mutex()
    EventWaiter waiter_;
    std::atomic<const TaskRegistry*> registry_{nullptr};
    std::atomic<uint64_t> dropped_{0};
    std::atomic<uint64_t> undeliverable_{0};
    std::atomic<uint64_t> unhandled_{0};
};

}  // namespace Framework
