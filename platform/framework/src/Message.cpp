#include "framework/Message.h"

#include <chrono>

namespace Framework {

bool MessageReceipt::Wait(int timeoutMs, int& result)
{
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [this] { return state_ != State::kPending; });
    result = result_;
    return state_ == State::kHandled;
}

void MessageReceipt::Handled(int result)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        state_ = State::kHandled;
        result_ = result;
    }
    changed_.notify_all();
}

void MessageReceipt::Dropped()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (state_ != State::kPending) {
            return;
        }
        state_ = State::kDropped;
    }
    changed_.notify_all();
}

Message::~Message()
{
    if (receipt_) {
        receipt_->Dropped();  // no effect once handled
    }
}

void Message::Complete(int result)
{
    if (receipt_) {
        receipt_->Handled(result);
    }
}

}  // namespace Framework
