#pragma once

#include "EventLines.h"
#include "RateLimits.h"

#include "AuditMessages.h"

#include "framework/Message.h"
#include "framework/Task.h"

#include <functional>
#include <iosfwd>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace Framework {
class Engine;
}

namespace Agent {

/// What hostwarden audit and watch share: the installed audit module (lib/modules/
/// libaudit_module.so) and a subscriber task of the command's own run in the engine; they talk
/// only through messages. The subscriber hands each message it receives to a handler, on its own
/// thread, one at a time, until the command stops the session.
class LiveSession {
public:
    using Handler = std::function<void(const Engine::AuditEventMessage&)>;

    /// err receives the messages for the user, each prefixed with command ("hostwarden audit").
    LiveSession(Framework::Engine& engine, std::string command, std::ostream& err)
        : engine_(engine), command_(std::move(command)), err_(err)
    {
    }

    /// Loads the module and starts its tasks and the subscriber, named subscriberName. False,
    /// with a message, when the audit system is not usable or the module cannot be loaded.
    bool Start(const std::string& subscriberName, Handler handler);
    /// Sends msg from the subscriber to the task named target; the receipt tells what came of it.
    std::shared_ptr<Framework::MessageReceipt> Send(const std::string& target, Framework::Message* msg);
    /// True when the receipt says the message was handled with result 0 within a few seconds;
    /// otherwise says what happened to what (a message naming it).
    bool Accepted(const std::shared_ptr<Framework::MessageReceipt>& receipt, const std::string& what);
    /// Writes one line to out, from the subscriber's thread. When out fails (its reader has gone)
    /// the session ends as on SIGTERM: the command unsubscribes and stops.
    void Print(std::ostream& out, const std::string& line);
    /// Lets Admit pass at most perSecond events a second of tag (0: every one); what it drops is
    /// summarised in lines made by lines and printed to out, every 10 s and at Stop.
    void Limit(const std::string& tag, uint32_t perSecond, Export::EventLines& lines, std::ostream& out);
    /// True when msg, of tag, is to be printed; prints the summaries that are due. From the
    /// subscriber's thread.
    bool Admit(const Engine::AuditEventMessage& msg, const std::string& tag);
    /// The subscriber task, as the sender of control messages.
    Framework::Task* Subscriber() const { return subscriber_; }
    /// True once the kernel lists a rule under every key (present) or under none (not present),
    /// within a few seconds; each key still missing is named when present is true.
    bool WaitForKernelKeys(const std::vector<std::string>& keys, bool present);
    /// Stops and removes every task and the module; the audit task takes whatever rules are left.
    /// Then prints what the limit dropped and has not summarised yet.
    void Stop();

    /// Empty when kernel audit is enabled and auditd runs (auditctl -s), else the reason.
    static std::string AuditSystemProblem();

private:
    Framework::Engine& engine_;
    const std::string command_;
    std::ostream& err_;
    Framework::Task* subscriber_ = nullptr;
    std::mutex outMutex_;
    bool outFailed_ = false;
    Export::RateLimits limits_;
    Export::EventLines* noticeLines_ = nullptr;
    std::ostream* noticeOut_ = nullptr;
    void PrintSummaries(bool all);
};

/// True when the installation's auditctl lists a kernel rule whose key is exactly key.
bool KernelListsKey(const std::string& key);

}  // namespace Agent
