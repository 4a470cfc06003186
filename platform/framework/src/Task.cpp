#include "framework/Task.h"

#include "framework/TaskRegistry.h"

#include <vector>

namespace Framework {

Task::Task(const std::string& name, const std::string& featureName, TaskCondition::TaskType type, size_t queueCapacity)
    : name_(name), featureName_(featureName), type_(type), capacity_(queueCapacity),
      waiter_([this] { return !queue_.empty(); })
{
}

Task::~Task() = default;

int Task::Init()
{
    waiter_.Reset();
    SetState(kTaskInitialised);
    return 0;
}

void Task::UnInit()
{
    SetState(kTaskStop);
}

int Task::Run()
{
    while (GetState() != kTaskStop) {
        if (waiter_.WaitAndHandleEvent(100, 128) == -1) {
            BulkConsumeMsg(128);
        }
    }
    return 0;
}

bool Task::InterceptMsg(std::shared_ptr<Message>& msg)
{
    (void)msg;
    return false;
}

int Task::HandleMsg(const Message* msg)
{
    (void)msg;
    return 0;
}

void Task::Stop()
{
    SetState(kTaskStop);
    waiter_.RequestStop();
}

bool Task::SendDirectMsg(const std::string& taskName, Message* msg)
{
    const TaskRegistry* registry = registry_.load();
    if (registry == nullptr) {
        delete msg;
        ++undeliverable_;
        return false;
    }
    const TaskRegistry::Delivery outcome = registry->Deliver(taskName, msg);
    if (outcome == TaskRegistry::Delivery::kNoSuchTask) {
        ++undeliverable_;
    }
    return outcome == TaskRegistry::Delivery::kQueued;
}

bool Task::SendAgileMsg(Task* dest, Message* msg)
{
    if (dest == nullptr) {
        delete msg;
        ++undeliverable_;
        return false;
    }
    return dest->PostMsg(msg);
}

bool Task::PostMsg(Message* msg)
{
    std::unique_ptr<Message> owned(msg);
    if (!owned) {
        return false;
    }
    {
        std::lock_guard<std::mutex> lock(waiter_.Mutex());
        if (queue_.size() >= capacity_) {
            ++dropped_;
            return false;  // the message is destroyed with owned
        }
        queue_.push_back(std::move(owned));
    }
    waiter_.Notify();
    return true;
}

int Task::BulkConsumeMsg(int max)
{
    std::vector<std::unique_ptr<Message>> batch;
    {
        std::lock_guard<std::mutex> lock(waiter_.Mutex());
        while (static_cast<int>(batch.size()) < max && !queue_.empty()) {
            batch.push_back(std::move(queue_.front()));
            queue_.pop_front();
        }
    }
    for (std::unique_ptr<Message>& owned : batch) {
        std::shared_ptr<Message> msg(std::move(owned));
        if (InterceptMsg(msg) || !msg) {
            continue;
        }
        const int result = msg->MessageHandle(this);
        if (result == -1) {
            ++unhandled_;
            HandleMsg(msg.get());
        }
        msg->Complete(result);
    }
    return static_cast<int>(batch.size());
}

size_t Task::PendingCount() const
{
    std::lock_guard<std::mutex> lock(const_cast<EventWaiter&>(waiter_).Mutex());
    return queue_.size();
}

}  // namespace Framework
