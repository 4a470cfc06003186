#pragma once

#include "AuditMessages.h"

#include "framework/Task.h"

#include <functional>
#include <iosfwd>
#include <mutex>
#include <string>
#include <vector>

namespace Framework {
class Engine;
}

namespace Agent {

/// What hostwarden audit and watch share: the audit module's tasks and a subscriber task of the
/// command's own run in the engine; the subscriber hands each message it receives to a handler
/// (on its own thread, one at a time) until the command stops the session.
class LiveSession {
public:
    using Handler = std::function<void(const Engine::AuditEventMessage&)>;

    /// err receives the messages for the user.
    LiveSession(Framework::Engine& engine, std::ostream& err) : engine_(engine), err_(err) {}

    /// Starts the tasks, with subscriberName as the subscriber's task name. False, with a message,
    /// when they cannot start or the audit system is not usable.
    bool Start(const std::string& subscriberName, Handler handler);
    /// Sends msg from the subscriber to the task named target.
    void Send(const std::string& target, Framework::Message* msg);
    /// The subscriber task, as the sender of control messages.
    Framework::Task* Subscriber() const { return subscriber_; }
    /// True once the kernel lists a rule under every key (present) or under none (not present),
    /// within a few seconds; each key still missing is named on err when present is true.
    bool WaitForKernelKeys(const std::vector<std::string>& keys, bool present);
    /// Stops and removes every task; the audit task takes whatever rules are left with it.
    void Stop();

private:
    Framework::Engine& engine_;
    std::ostream& err_;
    Framework::Task* subscriber_ = nullptr;
};

/// True when the installation's auditctl lists a kernel rule whose key is exactly key.
bool KernelListsKey(const std::string& key);

}  // namespace Agent
