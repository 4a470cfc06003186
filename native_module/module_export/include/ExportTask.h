#pragma once

#include "AgentConfig.h"

#include "AuditMessages.h"

#include "framework/Message.h"
#include "framework/Task.h"

#include <Poco/AutoPtr.h>
#include <Poco/FileChannel.h>

#include <atomic>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace Export {

/// The task "export_task": subscribes what the agent's configuration names with the audit
/// module's tasks, and writes every audit event and file notification it receives as one JSON
/// line, with its subscription's tag, to standard output and to a size-rotated file.
class ExportTask : public Framework::Task, public Engine::AbstructMessage<Engine::AuditEventMessage>::Receiver {
public:
    /// console receives the lines too (null for none).
    ExportTask(AgentConfig config, std::FILE* console);

    /// Opens the output file.
    int Init() override;
    /// Subscribes, then handles events until stopped, writing once per turn.
    int Run() override;
    /// Withdraws every subscription.
    void UnInit() override;
    /// One event or notification becomes one line of the next write. 0.
    int Receive(const Engine::AuditEventMessage& msg) override;

    /// Reopens the output file at the next turn (logrotate has moved it).
    void RequestReopen();
    /// The end of a turn of Run: checks the audit module's answers to the subscriptions (asking
    /// the engine to stop when it refused one), reopens the output if asked, and writes the turn's
    /// lines with one write each to standard output and the file.
    void EndTurn();

    /// The tag of a notification: that of the watch subscriptions covering its path and kind, the
    /// next of them for each copy in a row (the file-watch task sends one copy per matching rule,
    /// in subscription order).
    const std::string& NotificationTag(const Engine::AuditEventResult& result);

private:
    void Subscribe();
    // Reports subscriptions the audit module has answered; false once one was refused.
    bool CheckAnswers();
    void Write();
    bool answered_ = true;  // every subscription answered (or one refused)

    AgentConfig config_;
    std::FILE* console_;
    Poco::AutoPtr<Poco::FileChannel> file_;
    std::string pending_;  // lines not yet written
    std::atomic<bool> reopen_{false};
    struct Answer {
        const Subscription* subscription;
        std::shared_ptr<Framework::MessageReceipt> receipt;
    };
    std::vector<Answer> answers_;
    std::string lastNotification_;  // path, kind and destination of the last notification
    size_t repeats_ = 0;
};

}  // namespace Export
