#include "framework/EventWaiter.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>

namespace Framework {

namespace {

// Adds one to the eventfd's counter; it cannot overflow in practice, and a failed write leaves
// the counter readable anyway.
void Signal(int fd)
{
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(fd, &one, sizeof(one));
}

// Empties the eventfd's counter (non-blocking: nothing happens when it is zero).
void Drain(int fd)
{
    uint64_t count = 0;
    [[maybe_unused]] const ssize_t got = read(fd, &count, sizeof(count));
}

}  // namespace

EventWaiter::EventWaiter(std::function<bool()> hasWork)
    : hasWork_(std::move(hasWork)), wakeFd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
}

EventWaiter::~EventWaiter()
{
    if (wakeFd_ >= 0) {
        close(wakeFd_);
    }
}

int EventWaiter::WaitAndHandleEvent(int timeoutMs, int max)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (max <= 0) {
            return 0;
        }
        if (stop_ || hasWork_()) {
            return hasWork_() ? -1 : 0;
        }
        if (sourcesChanged_) {
            polled_ = sources_;
            fds_.assign(1, pollfd{wakeFd_, POLLIN, 0});
            for (const Source& source : polled_) {
                fds_.push_back(pollfd{source.fd, POLLIN, 0});
            }
            sourcesChanged_ = false;
        } else if (fds_.empty()) {
            fds_.assign(1, pollfd{wakeFd_, POLLIN, 0});
        }
        // From here a sender that queues a message writes the eventfd, so the poll cannot miss it.
        sleeping_.store(true);
    }
    const int ready = poll(fds_.data(), fds_.size(), std::max(timeoutMs, 0));
    sleeping_.store(false);
    if (ready > 0) {
        if ((fds_[0].revents & POLLIN) != 0) {
            Drain(wakeFd_);
        }
        for (size_t i = 1; i < fds_.size(); ++i) {
            if ((fds_[i].revents & (POLLIN | POLLERR | POLLHUP)) != 0) {
                polled_[i - 1].onReadable();
            }
        }
    }
    std::lock_guard<std::mutex> lock(mutex_);
    return hasWork_() ? -1 : 0;
}

void EventWaiter::Notify()
{
    if (sleeping_.load()) {
        Signal(wakeFd_);
    }
}

void EventWaiter::RequestStop()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stop_ = true;
    }
    Signal(wakeFd_);
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
    Drain(wakeFd_);
}

bool EventWaiter::AddWakeSource(int fd, std::function<void()> onReadable)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (fd < 0 || std::any_of(sources_.begin(), sources_.end(), [fd](const Source& s) { return s.fd == fd; })) {
        return false;
    }
    sources_.push_back(Source{fd, std::move(onReadable)});
    sourcesChanged_ = true;
    return true;
}

void EventWaiter::RemoveWakeSource(int fd)
{
    std::lock_guard<std::mutex> lock(mutex_);
    sources_.erase(std::remove_if(sources_.begin(), sources_.end(), [fd](const Source& s) { return s.fd == fd; }),
                   sources_.end());
    sourcesChanged_ = true;
}

}  // namespace Framework
