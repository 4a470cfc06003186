#include "framework/Message.h"

#include <chrono>

namespace Framework {

MessageReceipt::Outcome MessageReceipt::Wait(int timeoutMs, int& result)
{
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [this] { return outcome_ != Outcome::kPending; });
    result = result_;
    return outcome_;
}

void MessageReceipt::Handled(int result)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        outcome_ = Outcome::kHandled;
        result_ = result;
    }
    changed_.notify_all();
}

void MessageReceipt::Dropped()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (outcome_ != Outcome::kPending) {
            return;
        }
        outcome_ = Outcome::kDropped;
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
