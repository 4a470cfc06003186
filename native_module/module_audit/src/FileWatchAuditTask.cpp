#include "FileWatchAuditTask.h"

#include "RuleKey.h"

#include "AuditConstants.h"
#include "AuditLogging.h"

#include "framework/Engine.h"

namespace Engine {

namespace {

constexpr int kWaitMs = 3000;
constexpr int kMessagesPerTurn = 128;
// Entries of queued trees recorded per turn (a few milliseconds), so a large tree moved into a
// watch is recorded between the messages instead of before them.
constexpr size_t kScanEntriesPerTurn = 2048;

}  // namespace

FileWatchAuditTask::FileWatchAuditTask()
    : Framework::Task(kFileWatchTaskName, kAuditFeatureName, Framework::TaskCondition::kLoop, 1024)
{
}

int FileWatchAuditTask::Init()
{
    AUDIT_LOG_INFO("Init task(%s).", GetName());
    watch_.InitFileWatchLock();
    watch_.SetTask(this);
    if (Framework::Engine* engine = Framework::Engine::Current()) {
        watch_.Index().SetMaxEntriesPerRoot(
            engine->config().getUInt64(kMaxWatchEntriesSetting, kDefaultMaxWatchEntries));
    }
    AUDIT_LOG_INFO("A file watch holds at most %s entries.", std::to_string(watch_.Index().MaxEntriesPerRoot()));
    return Framework::Task::Init();
}

int FileWatchAuditTask::Run()
{
    bool scanning = false;
    while (GetState() != Framework::kTaskStop) {
        if (GetEventWaiter().WaitAndHandleEvent(scanning ? 0 : kWaitMs, kMessagesPerTurn) < 0) {
            BulkConsumeMsg(kMessagesPerTurn);
        }
        const bool queued = watch_.Scanning();
        scanning = queued && watch_.ScanStep(kScanEntriesPerTurn);
        if (queued && !scanning) {
            AUDIT_LOG_INFO("Recorded the watched trees: %s entries in the index.", std::to_string(watch_.Index().size()));
        }
    }
    return 0;
}

void FileWatchAuditTask::UnInit()
{
    AUDIT_LOG_INFO("Uninit task(%s).", GetName());
    SendDirectMsg(kAuditTaskName, new AuditUnsubscribeMessage(this));
    Framework::Task::UnInit();
}

int FileWatchAuditTask::Receive(const AuditEventMessage& msg)
{
    AUDIT_CPU_CHECK(GetName());
    watch_.CheckMessageInfo(msg);
    return 0;
}

int FileWatchAuditTask::Receive(const AuditFileSystemCtrlMessage& msg)
{
    if (msg.sender == nullptr) {
        // Notifications would have nowhere to go.
        AUDIT_LOG_ERROR("File watch of path(%s) without a sender task refused.", msg.path);
        return 2;
    }
    const std::string rule = FileWatchRuleText(msg.path);
    if (msg.unwatch) {
        if (watch_.RmFileWatch(msg) != 0) {
            watch_.UnregisterFileRule(rule);
        }
    } else if (watch_.AddFileWatch(msg) != 0) {
        watch_.RegisterFileRule(rule);
    }
    return 0;
}

int FileWatchAuditTask::Receive(const AuditUnsubscribeMessage& msg)
{
    if (msg.sender == nullptr) {
        // Whose subscriptions would go is unknown: nothing changes.
        AUDIT_LOG_ERROR("Unsubscribe without a sender task refused.");
        return 2;
    }
    // Only the sender's rules go, and with them the audit watches nobody else needs.
    for (const std::string& path : watch_.RmFileWatchesOf(msg.sender)) {
        watch_.UnregisterFileRule(FileWatchRuleText(path));
    }
    return 0;
}

}  // namespace Engine
