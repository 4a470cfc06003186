#pragma once

namespace Framework {

/// A message between tasks. Created on the heap by its sender; owned by the framework from the
/// moment it is sent until the receiving task has handled it.
class Message {
public:
    virtual ~Message() = default;

    /// Dispatch hook, called on the receiving task's thread with that task. Returns the
    /// receiver's result, or -1 when the task does not take this kind of message.
    virtual int MessageHandle(void* task) { (void)task; return -1; }
};

}  // namespace Framework
