#include "framework/EventWaiter.h"

#include <chrono>

namespace Framework {

EventWaiter::EventWaiter(std::function<bool()> hasWork) : hasWork_(std::move(hasWork)) {}

int EventWaiter::WaitAndHandleEvent(int timeoutMs, int max)
{
    std::unique_lock<std::mutex> lock(mutex_);
    if (max <= 0) {
        return 0;
    }
    const auto ready = [this] { return stop_ || hasWork_(); };
    if (timeoutMs > 0) {
        wake_.wait_for(lock, std::chrono::milliseconds(timeoutMs), ready);
    }
    return hasWork_() ? -1 : 0;
}

void EventWaiter::Notify()
{
    wake_.notify_one();
}

void EventWaiter::RequestStop()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stop_ = true;
    }
    wake_.notify_all();
}

bool EventWaiter::StopRequested() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return stop_;
}

void EventWaiter::Reset()
{
    std::lock_guard<std::mutex> lock(mutex_);
    stop_ = false;
}

}  // namespace Framework
