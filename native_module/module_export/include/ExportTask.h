#pragma once

#include "AgentConfig.h"
#include "EventFile.h"
#include "EventLines.h"
#include "FileIntegrity.h"
#include "RateLimits.h"

#include "AuditMessages.h"

#include "framework/Message.h"
#include "framework/Task.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace Export {

/// The export task's name: the first part of the kernel keys of its subscriptions.
extern const std::string kExportTaskName;

/// Where the export task reaches beyond itself (tests replace them).
struct ExportHooks {
    /// Ends the agent with an exit code (the engine's RequestStop when empty).
    std::function<void(int)> stop;
    /// The kernel's audit rules, as auditctl -l lists them (ListKernelRules when empty).
    std::function<bool(std::string&)> listRules;
    /// How long the subscriptions may take to reach the kernel.
    std::chrono::milliseconds installTime{10000};
};

/// The task "export_task": subscribes what the agent's configuration names with the audit
/// module's tasks, and writes every audit event and file notification it receives as one JSON
/// line, with its subscription's tag, to standard output and to a size-rotated file. Each tag's
/// events pass its rate limit (subscriptions sharing a tag share the largest of their limits);
/// what a limit drops, and what the file cannot take whole, is summarised in a line of its own.
class ExportTask : public Framework::Task, public Engine::AbstructMessage<Engine::AuditEventMessage>::Receiver {
public:
    using Hooks = ExportHooks;

    /// console receives the lines too (null for none).
    ExportTask(AgentConfig config, std::FILE* console, Hooks hooks = Hooks());

    /// Opens the output file (-1 when it cannot).
    int Init() override;
    /// Subscribes, then handles events until stopped, writing once per turn.
    int Run() override;
    /// Withdraws every subscription.
    void UnInit() override;
    /// One event or notification becomes one line of the next write. 0.
    int Receive(const Engine::AuditEventMessage& msg) override;

    /// Reopens the output file at the next turn (logrotate has moved it).
    void RequestReopen();
    /// Sends the subscriptions (the start of Run).
    void Subscribe();
    /// The end of a turn of Run: follows the subscriptions until the kernel holds every one
    /// (stopping the agent with status 1 when the audit module refuses one, the audit system is
    /// not usable, or a rule does not reach the kernel within 10 s), reopens the output if asked,
    /// adds the rate limits' due summaries, and writes the turn's lines with one write each to
    /// standard output and the file.
    void EndTurn();
    /// The summaries of every rate limit and of the output's losses not yet written, at the end.
    void Finish();

    /// The tag of a notification: that of the watch subscriptions covering its path and kind, the
    /// next of them for each copy in a row (the file-watch task sends one copy per matching rule,
    /// in subscription order).
    const std::string& NotificationTag(const Engine::AuditEventResult& result);
    /// The tag of a start-up scan finding: that of the first watch subscription covering its path
    /// and wanting its kind; empty when none wants it.
    const std::string& FindingTag(const Engine::AuditEventResult& result) const;

private:
    // Reports subscriptions the audit module has answered; false once one was refused.
    bool CheckAnswers();
    // True once the kernel lists every subscription's rule; false when the time is up.
    bool CheckKernel(bool& done);
    void Fail(int code);
    void Write();
    // Logs the notice and appends its line to lines.
    void AddNotice(const AgentNotice& notice, std::string& lines);
    void AddSummaries(bool all);
    // A step of the file-integrity scans, its findings as lines.
    void ScanStep();

    enum class Phase { kAnswering, kInstalling, kRunning };
    Phase phase_ = Phase::kRunning;
    std::chrono::steady_clock::time_point installDeadline_;

    AgentConfig config_;
    EventLines lines_;
    std::FILE* console_;
    Hooks hooks_;
    std::unique_ptr<EventFile> file_;
    std::string pending_;  // lines not yet written
    RateLimits limits_;
    std::unique_ptr<FileIntegrity> integrity_;  // null without watches or without a baseline
    uint64_t lost_ = 0;    // lines the file could not take since it last could
    std::chrono::steady_clock::time_point lossStarted_;
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
