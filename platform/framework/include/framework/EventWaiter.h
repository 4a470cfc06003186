#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <vector>

struct pollfd;

namespace Framework {

/// Lets a task's thread sleep until a message arrives, a stop is requested, one of its wake
/// sources (file descriptors, such as an inotify descriptor) becomes readable, or a time-out.
/// The wait is a poll(2) on an eventfd, which senders write only while the thread sleeps, and on
/// the wake sources.
class EventWaiter {
public:
    /// hasWork tells whether messages are waiting; it is called with the waiter's mutex held.
    explicit EventWaiter(std::function<bool()> hasWork);
    ~EventWaiter();
    EventWaiter(const EventWaiter&) = delete;
    EventWaiter& operator=(const EventWaiter&) = delete;

    /// Waits at most timeoutMs (0: only looks). Returns -1 when messages are waiting (the caller
    /// consumes up to max of them with Task::BulkConsumeMsg), 0 otherwise: a time-out, a stop, or
    /// a wake source that was readable (its handler has run by then).
    int WaitAndHandleEvent(int timeoutMs, int max);

    /// Wakes the waiting thread because work arrived.
    void Notify();
    /// Wakes the waiting thread for good: every later wait returns at once.
    void RequestStop();
    /// True once RequestStop was called (until Reset).
    bool StopRequested() const;
    /// Clears a stop request so the task can be run again.
    void Reset();

    /// Makes a readable fd end a wait; onReadable then runs on the waiting thread and must
    /// consume what made fd readable. The caller keeps fd open until it removes it. False for a
    /// negative fd or one already added.
    bool AddWakeSource(int fd, std::function<void()> onReadable);
    /// Stops waking on fd.
    void RemoveWakeSource(int fd);

    /// The mutex that guards the task's queue together with the wake-up condition.
    std::mutex& Mutex() { return mutex_; }

private:
    struct Source {
        int fd;
        std::function<void()> onReadable;
    };
    std::function<bool()> hasWork_;
    mutable std::mutex mutex_;
    int wakeFd_ = -1;
    std::atomic<bool> sleeping_{false};
    bool stop_ = false;
    std::vector<Source> sources_;  // guarded by mutex_
    bool sourcesChanged_ = false;  // guarded by mutex_
    // The waiting thread's copy of the sources, rebuilt only when they change.
    std::vector<Source> polled_;
    std::vector<struct pollfd> fds_;
};

}  // namespace Framework
