#pragma once

#include "AuditLog.h"
#include "AuditMessages.h"
#include "AuditRules.h"
#include "GetAuditConfAndStatus.h"
#include "ReadAuditLog.h"

#include "framework/Task.h"
#include "sdk/FileChangeNotifier.h"

#include <Poco/Mutex.h>

#include <set>
#include <string>

namespace Engine {

/// True exactly for the add operations "-a" and "-w".
bool GetOperate(const std::string& operate);
/// Appends the words of cmd before its "-k" (each followed by a blank) to out, then trims out.
void StripKeyInCmd(const std::string& cmd, std::string& out);

/// The task "audit_task": installs subscribers' rules, follows the audit log and routes decoded
/// events to them. Its rules, routes, reader and assembler live on its own thread; only the
/// cached "audit enabled" state is shared with Init and UnInit, under a lock.
class AuditTask : public Framework::Task,
                  public AbstructMessage<AuditSyscallCtrlMessage>::Receiver,
                  public AbstructMessage<AuditFileSystemCtrlMessage>::Receiver,
                  public AbstructMessage<AuditUnsubscribeMessage>::Receiver {
public:
    /// probeConfPath and replySource reach the probe (tests point them elsewhere).
    explicit AuditTask(const std::string& probeConfPath = "/etc/audit/auditd.conf",
                       AuditReplySource* replySource = nullptr);
    ~AuditTask() override;

    /// Removes rules an earlier run left, probes audit once, learns the log path.
    int Init() override;
    /// Handles messages and, with subscribers, polls the log until stopped.
    int Run() override;
    /// Removes every rule and route; forgets the probe result and the reader's position.
    void UnInit() override;

    /// Subscribes or removes a syscall rule. 0 handled, 2 rule rejected, -1 audit disabled.
    int Receive(const AuditSyscallCtrlMessage& msg) override;
    /// Subscribes or removes a file-system rule. 0 handled, 2 rule rejected, -1 audit disabled.
    int Receive(const AuditFileSystemCtrlMessage& msg) override;
    /// Removes everything of the sender. 0, or 2 (and nothing removed) for a message without one.
    int Receive(const AuditUnsubscribeMessage& msg) override;

    /// The cached probe result (probed on first use after Init).
    bool AuditEnabled();

    /// Adds above this many registered rules are dropped.
    static constexpr size_t kMaxRules = 256;

    // Inspection for tests and tools; touched on the task's thread only.
    const AuditRules& Rules() const { return rules_; }
    const AuditLog& Routes() const { return auditLog_; }
    const std::set<std::string>& Subscribers() const { return subscribers_; }
    const ReadAuditLog& Reader() const { return reader_; }
    /// One turn of Run after its wait: nothing while audit is unusable or no task subscribes;
    /// otherwise PollOnce. Then makes growth of the log end the next wait while the log is read.
    void Turn(uint64_t now);
    /// How long the next wait may last: 100 ms, or none while the reader has unread lines.
    int NextWaitMs() const;
    /// Polls the log.
    void PollOnce(uint64_t now);

private:
    template <typename Message, typename Rule>
    int HandleRule(const Message& msg);
    // Adds or removes the log's changes as a wake source: there while the log is read.
    void FollowLogChanges(bool reading);

    AuditRules rules_;
    bool enabledKnown_ = false;
    bool enabled_ = false;
    Poco::FastMutex mutex_;
    GetAuditConfAndStatus probe_;
    std::string logPath_;
    ReadAuditLog reader_;
    bool readerStarted_ = false;
    SDK::FileChangeNotifier logChanges_;  // started with the reader
    bool logWakes_ = false;               // logChanges_ ends the waiter's waits
    bool logChanged_ = false;             // the log changed during this turn's wait
    AuditLog auditLog_;
    std::set<std::string> subscribers_;
};

}  // namespace Engine
