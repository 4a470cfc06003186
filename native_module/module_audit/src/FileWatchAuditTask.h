#pragma once

#include "AuditMessages.h"
#include "FileAuditWatch.h"

#include "framework/Task.h"

#include <cstdint>

namespace Engine {

/// The task "filewatch_audit_task": other modules subscribe file watches with it; it asks the
/// audit task for the matching audit watches and turns the audit events that come back into
/// inotify-style notifications for the subscribers. Its rules and index live on its own thread.
class FileWatchAuditTask : public Framework::Task,
                           public AbstructMessage<AuditEventMessage>::Receiver,
                           public AbstructMessage<AuditFileSystemCtrlMessage>::Receiver,
                           public AbstructMessage<AuditUnsubscribeMessage>::Receiver {
public:
    FileWatchAuditTask();

    /// Sets up the watch's locks, makes this task its owner, and bounds the entries per watch by
    /// the engine's setting kMaxWatchEntriesSetting.
    int Init() override;
    /// Withdraws this task's audit subscriptions from the audit task.
    void UnInit() override;
    /// Handles messages until stopped, waking at least every 3 seconds; between turns records
    /// the trees waiting in the index a bounded number of entries at a time.
    int Run() override;

    /// An audit event of one of the watches: notifies the subscribers it concerns. 0.
    int Receive(const AuditEventMessage& msg) override;
    /// Adds (or, with unwatch, removes) a file watch; the audit watch follows. 0, or 2 for a
    /// message without a sender.
    int Receive(const AuditFileSystemCtrlMessage& msg) override;
    /// Withdraws every audit subscription of this task (its rules stay). 0, or 2 without a sender.
    int Receive(const AuditUnsubscribeMessage& msg) override;

    /// The file-watch engine (for inspection; used on the task's thread only).
    FileAuditWatch& Watch() { return watch_; }

private:
    FileAuditWatch watch_;
};

}  // namespace Engine
