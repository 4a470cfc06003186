#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>

namespace Framework {

/// Lets a task's thread sleep until a message arrives, a stop is requested, or a time-out.
class EventWaiter {
public:
    /// hasWork tells whether messages are waiting; it is called with the waiter's mutex held.
    explicit EventWaiter(std::function<bool()> hasWork);

    /// Waits at most timeoutMs. Returns -1 when messages are waiting (the caller consumes up to
    /// max of them with Task::BulkConsumeMsg), 0 on time-out or stop.
    int WaitAndHandleEvent(int timeoutMs, int max);

    /// Wakes the waiting thread because work arrived.
    void Notify();
    /// Wakes the waiting thread for good: every later wait returns at once.
    void RequestStop();
    /// True once RequestStop was called (until Reset).
    bool StopRequested() const;
    /// Clears a stop request so the task can be run again.
    void Reset();

    /// The mutex that guards the task's queue together with the wake-up condition.
    std::mutex& Mutex() { return mutex_; }

private:
    std::function<bool()> hasWork_;
    mutable std::mutex mutex_;
    std::condition_variable wake_;
    bool stop_ = false;
};

}  // namespace Framework
