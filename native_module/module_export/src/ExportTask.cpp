#include "ExportTask.h"

#include "RuleText.h"

#include "AuditConstants.h"
#include "FileNotify.h"

#include "framework/Engine.h"
#include "sdk/PathUtils.h"
#include "sdk/DirUtils.h"

#include "sdk/TimeUtils.h"

#include <Poco/Logger.h>

#include <algorithm>
#include <map>

namespace Export {

const std::string kExportTaskName = "export_task";

namespace {

constexpr int kWaitMs = 100;
constexpr int kMessagesPerTurn = 1024;
constexpr size_t kKeptBuffer = 256 * 1024;

Poco::Logger& Log()
{
    return Poco::Logger::get("export_module");
}

// The notifications the file-watch task sends for a watch: its path and what lies below it
// (the rule's path, then "/" or the rule's own trailing "/", then more).
bool Covers(const Subscription& s, const std::string& path)
{
    return path == s.watch || (path.size() > s.watch.size() && SDK::PathUtils::IsBelow(s.watch, path));
}

// The kernel keys of the subscriptions, as the audit module makes them.
std::vector<std::string> Keys(const std::vector<Subscription>& subscriptions)
{
    std::vector<std::string> keys;
    for (const Subscription& s : subscriptions) {
        RuleOutline outline;
        std::string problem;
        if (!s.syscall.empty() && LintSyscallRule(s.syscall, outline, problem)) {
            keys.push_back(SyscallRuleKey(kExportTaskName, s.tag, outline));
        } else if (!s.watch.empty()) {
            keys.push_back(Engine::FileWatchRuleKey(s.watch));
        }
    }
    return keys;
}

}  // namespace

ExportTask::ExportTask(AgentConfig config, std::FILE* console, Hooks hooks)
    : Framework::Task(kExportTaskName, "export_feature", Framework::TaskCondition::kLoop, 65536),
      config_(std::move(config)), lines_(config_.output.lines), console_(console), hooks_(std::move(hooks))
{
    std::map<std::string, uint32_t> limits;  // by tag: the largest, 0 (none) beating every number
    for (const Subscription& s : config_.subscriptions) {
        const auto [at, added] = limits.emplace(s.tag, s.rateLimit);
        at->second = added ? at->second : (at->second == 0 || s.rateLimit == 0) ? 0 : std::max(at->second, s.rateLimit);
    }
    for (const auto& [tag, limit] : limits) {
        limits_.Set(tag, limit);
    }
    std::vector<Integrity::Root> watches;
    for (const Subscription& s : config_.subscriptions) {
        if (!s.watch.empty()) {
            watches.push_back(Integrity::Root{s.watch, s.recursive});
        }
    }
    if (!watches.empty() && !config_.integrity.baseline.empty()) {
        IntegritySettings settings = config_.integrity;
        settings.maxEntries = config_.maxWatchEntries;  // the same bound as the file-watch index
        integrity_ = std::make_unique<FileIntegrity>(std::move(settings), std::move(watches));
    }
    if (!hooks_.stop) {
        hooks_.stop = [](int code) {
            if (Framework::Engine* engine = Framework::Engine::Current()) {
                engine->RequestStop(code);
            }
        };
    }
    if (!hooks_.listRules) {
        hooks_.listRules = ListKernelRules;
    }
}

int ExportTask::Init()
{
    if (!config_.output.file.empty()) {
        const std::string& path = config_.output.file;
        SDK::DirUtils::CreateDirs(path.substr(0, path.rfind('/')), 0750);
        file_ = std::make_unique<EventFile>(path, config_.output.rotateBytes, config_.output.keep);
        std::string error;
        if (!file_->Open(error)) {
            poco_error(Log(), "Cannot open the event output " + path + ": " + error);
            file_.reset();
            return -1;
        }
    }
    if (integrity_) {
        integrity_->Start();
    }
    return Framework::Task::Init();
}

void ExportTask::Subscribe()
{
    phase_ = Phase::kAnswering;
    for (const Subscription& s : config_.subscriptions) {
        auto receipt = std::make_shared<Framework::MessageReceipt>();
        if (!s.syscall.empty()) {
            auto* msg = new Engine::AuditSyscallCtrlMessage(this);
            msg->tag = s.tag;
            msg->operate = "-a";
            msg->rule = s.syscall;
            msg->AttachReceipt(receipt);
            SendDirectMsg(Engine::kAuditTaskName, msg);
        } else {
            _FileNotifyOpt opt;
            opt.recursive = s.recursive;
            auto* msg = new Engine::AuditFileSystemCtrlMessage(this, s.watch, {s.events}, opt);
            msg->tag = s.tag;
            msg->AttachReceipt(receipt);
            SendDirectMsg(Engine::kFileWatchTaskName, msg);
        }
        answers_.push_back(Answer{&s, receipt});
    }
}

bool ExportTask::CheckAnswers()
{
    for (auto it = answers_.begin(); it != answers_.end();) {
        int result = 0;
        const auto outcome = it->receipt->Wait(0, result);
        if (outcome == Framework::MessageReceipt::Outcome::kPending) {
            ++it;
            continue;
        }
        const Subscription& s = *it->subscription;
        if (outcome == Framework::MessageReceipt::Outcome::kDropped) {
            poco_error(Log(), s.entry + " (" + s.tag + "): the audit module did not take it; is libaudit_module.so installed?");
            return false;
        }
        if (result == -1) {
            poco_error(Log(), s.entry + " (" + s.tag + "): the audit system is not usable (see the audit module's log)");
            return false;
        }
        if (result != 0) {
            poco_error(Log(), s.entry + " (" + s.tag + "): the audit module refused '" + s.syscall + s.watch + "'");
            return false;
        }
        poco_information(Log(), "Subscribed " + s.entry + " (" + s.tag + ").");
        it = answers_.erase(it);
    }
    return true;
}

int ExportTask::Run()
{
    Subscribe();
    while (GetState() != Framework::kTaskStop) {
        // While a scan runs, the wait lasts only until its share allows the next step.
        int waitMs = kWaitMs;
        if (phase_ == Phase::kRunning && integrity_ && integrity_->Scanning(waitMs)) {
            waitMs = std::min(waitMs, kWaitMs);
        }
        if (GetEventWaiter().WaitAndHandleEvent(waitMs, kMessagesPerTurn) < 0) {
            BulkConsumeMsg(kMessagesPerTurn);
        }
        EndTurn();
    }
    // What arrived before the stop is written too.
    while (BulkConsumeMsg(kMessagesPerTurn) > 0) {
        Write();
    }
    Finish();
    return 0;
}

void ExportTask::Fail(int code)
{
    phase_ = Phase::kRunning;
    hooks_.stop(code);  // the agent cannot do its job: stop, and say so
}

bool ExportTask::CheckKernel(bool& done)
{
    std::string rules;
    const std::vector<std::string> missing = hooks_.listRules(rules) ? MissingKeys(rules, Keys(config_.subscriptions))
                                                                     : Keys(config_.subscriptions);
    done = missing.empty();
    if (done || std::chrono::steady_clock::now() < installDeadline_) {
        return true;
    }
    for (const std::string& key : missing) {
        poco_error(Log(), "The kernel did not install rule " + key + " (see the audit module's log for auditctl's answer).");
    }
    return false;
}

void ExportTask::EndTurn()
{
    if (phase_ == Phase::kAnswering) {
        if (!CheckAnswers()) {
            Fail(1);
        } else if (answers_.empty()) {
            phase_ = Phase::kInstalling;
            installDeadline_ = std::chrono::steady_clock::now() + hooks_.installTime;
        }
    }
    if (phase_ == Phase::kInstalling) {
        bool done = false;
        if (!CheckKernel(done)) {
            Fail(1);
        } else if (done) {
            phase_ = Phase::kRunning;
            poco_information(Log(), "Every subscription is installed in the kernel.");
        }
    }
    std::string error;
    if (reopen_.exchange(false) && file_) {
        // At the path anew: logrotate has moved the old file.
        if (file_->Open(error)) {
            poco_information(Log(), "Reopened the event output.");
        } else {
            poco_error(Log(), "Cannot reopen the event output " + file_->Path() + ": " + error);
        }
    }
    AddSummaries(false);
    // The trees are compared once the kernel watches them: what changes before a directory is
    // compared is found by the scan, what changes after it by the watch.
    if (phase_ == Phase::kRunning) {
        ScanStep();
    }
    Write();
}

void ExportTask::ScanStep()
{
    if (!integrity_) {
        return;
    }
    std::vector<ScanFinding> found;
    integrity_->Step(found);
    for (const ScanFinding& finding : found) {
        const std::string& tag = FindingTag(finding.result);
        if (!tag.empty()) {
            lines_.AppendNotification(pending_, finding.result, tag, &finding.change);
            pending_ += '\n';
        }
    }
    integrity_->Flush();
}

void ExportTask::Finish()
{
    if (integrity_) {
        integrity_->Flush();
    }
    AddSummaries(true);
    Write();
    if (lost_ > 0) {
        poco_error(Log(), "The event output lost " + std::to_string(lost_) + " lines it could not write whole before the stop.");
    }
}

void ExportTask::AddSummaries(bool all)
{
    for (const AgentNotice& notice : limits_.TakeSummaries(std::chrono::steady_clock::now(), all)) {
        AddNotice(notice, pending_);
    }
}

void ExportTask::AddNotice(const AgentNotice& notice, std::string& lines)
{
    poco_warning(Log(), NoticeMessage(notice) + ".");
    lines_.AppendNotice(lines, notice, SDK::TimeUtils::GetCurrentTimestampMS());
    lines += '\n';
}

void ExportTask::UnInit()
{
    SendDirectMsg(Engine::kAuditTaskName, new Engine::AuditUnsubscribeMessage(this));
    SendDirectMsg(Engine::kFileWatchTaskName, new Engine::AuditUnsubscribeMessage(this));
    if (file_) {
        file_->Close();
    }
    Framework::Task::UnInit();
}

const std::string& ExportTask::NotificationTag(const Engine::AuditEventResult& result)
{
    static const std::string kNone;
    std::vector<const Subscription*> covering;
    for (const Subscription& s : config_.subscriptions) {
        // An overflow names the watch itself, whatever kinds it asked for.
        const bool wanted = result.event == Engine::kNotifyOverflow ? s.watch == result.path
                                                                     : (s.events & static_cast<uint32_t>(result.event)) != 0;
        if (!s.watch.empty() && wanted && Covers(s, result.path)) {
            covering.push_back(&s);
        }
    }
    const std::string key = result.path + '\0' + std::to_string(result.event) + '\0' + result.destPath;
    repeats_ = key == lastNotification_ ? repeats_ + 1 : 0;
    lastNotification_ = key;
    return covering.empty() ? kNone : covering[repeats_ % covering.size()]->tag;
}

const std::string& ExportTask::FindingTag(const Engine::AuditEventResult& result) const
{
    static const std::string kNone;
    for (const Subscription& s : config_.subscriptions) {
        if (!s.watch.empty() && (s.events & static_cast<uint32_t>(result.event)) != 0 &&
            Integrity::Covers(Integrity::Root{s.watch, s.recursive}, result.path)) {
            return s.tag;
        }
    }
    return kNone;
}

int ExportTask::Receive(const Engine::AuditEventMessage& msg)
{
    const std::string& tag = msg.event ? msg.tag : NotificationTag(msg.result);
    // The baseline follows every notification, written or not.
    const FileChange* change = !msg.event && integrity_ ? integrity_->Observe(msg.result) : nullptr;
    if (!limits_.Admit(tag, std::chrono::steady_clock::now(), [&] { return MessageAuthor(msg); })) {
        return 0;
    }
    if (msg.event) {
        lines_.AppendEvent(pending_, *msg.event, tag);
    } else {
        lines_.AppendNotification(pending_, msg.result, tag, change);
    }
    pending_ += '\n';
    return 0;
}

void ExportTask::RequestReopen()
{
    reopen_ = true;
    GetEventWaiter().Notify();
}

void ExportTask::Write()
{
    if (pending_.empty()) {
        return;
    }
    if (console_ != nullptr &&
        (std::fwrite(pending_.data(), 1, pending_.size(), console_) != pending_.size() || std::fflush(console_) != 0)) {
        // Standard output is gone (its reader closed it): the file goes on.
        poco_error(Log(), "Cannot write to standard output any more; events go to the output file only.");
        console_ = nullptr;
    }
    if (file_) {
        const auto now = std::chrono::steady_clock::now();
        const size_t lost = file_->Write(pending_);  // one write for the whole turn
        if (lost > 0 && lost_ == 0) {
            poco_error(Log(), "The event output " + file_->Path() + " cannot take whole lines (" + file_->LastError() +
                       "); counting what is lost until it can again.");
            lossStarted_ = now;
        }
        lost_ += lost;
        if (lost == 0 && lost_ > 0) {
            // Space is back: the file says what it could not hold, as a line of its own.
            AgentNotice notice;
            notice.action = AgentNotice::kOutputLost;
            notice.dropped = lost_;
            notice.seconds = static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::seconds>(now - lossStarted_).count());
            std::string line;
            AddNotice(notice, line);
            lost_ = file_->Write(line) == 0 ? 0 : lost_;
        }
    }
    // A burst's turn leaves a large buffer behind; keep an ordinary turn's worth only.
    if (pending_.capacity() > kKeptBuffer) {
        std::string().swap(pending_);
    } else {
        pending_.clear();
    }
}

}  // namespace Export
