#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>

namespace Framework {

/// What became of a message, for a sender that wants to know: handled by its receiver (with the
/// receiver's result) or dropped (no such task, a full queue, or taken down unhandled at stop).
class MessageReceipt {
public:
    enum class Outcome {
        kPending,  ///< neither yet
        kHandled,  ///< the receiver handled it; its answer is the result
        kDropped,  ///< it never reached a receiver
    };

    /// Waits at most timeoutMs for the outcome; result gets the receiver's answer when handled.
    Outcome Wait(int timeoutMs, int& result);

    void Handled(int result);
    void Dropped();

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    Outcome outcome_ = Outcome::kPending;
    int result_ = 0;
};

/// A message between tasks. Created on the heap by its sender; owned by the framework from the
/// moment it is sent until the receiving task has handled it.
class Message {
public:
    /// A message destroyed before it was handled reports itself dropped on its receipt.
    virtual ~Message();

    /// Dispatch hook, called on the receiving task's thread with that task. Returns the
    /// receiver's result, or -1 when the task does not take this kind of message.
    virtual int MessageHandle(void* task) { (void)task; return -1; }

    /// Asks for the outcome of this message on receipt (set before sending).
    void AttachReceipt(std::shared_ptr<MessageReceipt> receipt) { receipt_ = std::move(receipt); }
    /// Records the receiver's result on the receipt, if any (done by the framework after dispatch).
    void Complete(int result);

private:
    std::shared_ptr<MessageReceipt> receipt_;
};

}  // namespace Framework
