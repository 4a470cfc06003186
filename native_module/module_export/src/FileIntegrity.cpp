#include "FileIntegrity.h"

#include "FileNotify.h"

#include <Poco/Logger.h>

#include <fcntl.h>

#include <ctime>
#include <iterator>

namespace Export {

namespace {

// Work units of one scan step: an entry is one, and so is every 64 KiB hashed.
constexpr size_t kStepBudget = 512;
// When a written file is looked at again, after its notification; and how many may wait.
constexpr std::chrono::seconds kRecheckAfter[] = {std::chrono::seconds(1), std::chrono::seconds(5),
                                                  std::chrono::seconds(30)};
constexpr size_t kMaxRechecks = 4096;

Poco::Logger& Log()
{
    return Poco::Logger::get("export_module");
}

uint64_t ThreadCpuNs()
{
    timespec t{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<uint64_t>(t.tv_sec) * 1000000000ULL + static_cast<uint64_t>(t.tv_nsec);
}

uint64_t SteadyNs(std::chrono::steady_clock::time_point t)
{
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(t.time_since_epoch()).count());
}

bool SameRoot(const Integrity::Root& a, const Integrity::Root& b)
{
    return a.path == b.path && a.recursive == b.recursive;
}

}  // namespace

FileIntegrity::FileIntegrity(IntegritySettings settings, std::vector<Integrity::Root> roots)
    : settings_(std::move(settings)), roots_(RootsOf(std::move(roots))), reader_(settings_.maxHashBytes)
{
}

std::vector<Integrity::Root> FileIntegrity::RootsOf(std::vector<Integrity::Root> watches)
{
    std::vector<Integrity::Root> roots;
    for (size_t i = 0; i < watches.size(); ++i) {
        bool inside = false;
        for (size_t j = 0; j < watches.size(); ++j) {
            const Integrity::Root& other = watches[j];
            const bool same = SameRoot(other, watches[i]);
            inside = inside || (same && j < i) || (!same && other.recursive && Integrity::Covers(other, watches[i].path));
        }
        if (!inside) {
            roots.push_back(watches[i]);
        }
    }
    return roots;
}

void FileIntegrity::Start()
{
    std::string note;
    switch (baseline_.Open(settings_.baseline, note)) {
    case Integrity::Baseline::Opened::kExisting:
        poco_information(Log(), "Opened the baseline " + settings_.baseline + ": " + std::to_string(baseline_.Count()) +
                                " entries.");
        break;
    case Integrity::Baseline::Opened::kCreated:
        poco_information(Log(), "Created the baseline " + settings_.baseline + ".");
        break;
    default:
        poco_warning(Log(), "File integrity: " + note + ".");
        break;
    }
    for (const Integrity::Root& old : baseline_.Roots()) {
        bool kept = false;
        for (const Integrity::Root& root : roots_) {
            kept = kept || SameRoot(root, old);
        }
        if (!kept) {
            baseline_.ForgetRoot(old, roots_);
            poco_information(Log(), "Forgot the baseline of " + old.path + ", which is no longer watched.");
        }
    }
    const auto now = std::chrono::steady_clock::now();
    for (const Integrity::Root& root : roots_) {
        const bool complete = baseline_.Complete(root);
        auto scan = std::make_unique<Integrity::TreeScan>(root, baseline_, reader_, complete, true);
        scan->SetMostEntries(settings_.maxEntries);
        scans_.push_back(Scan{std::move(scan), !complete, now});
        poco_information(Log(), (complete ? "Comparing " + root.path + " with its baseline."
                                          : "Recording the baseline of " + root.path + "."));
    }
    window_ = SDK::InnerCpuCtrlUtils::Window{scanCpuNs_, SteadyNs(now)};
    nextStep_ = now;
    Flush();
}

bool FileIntegrity::InScope(const std::string& path) const
{
    for (const Integrity::Root& root : roots_) {
        if (Integrity::Covers(root, path)) {
            return true;
        }
    }
    return false;
}

bool FileIntegrity::Read(const std::string& path, const Integrity::FileFacts* before, Integrity::FileFacts& after)
{
    int error = 0;
    if (!reader_.Stat(AT_FDCWD, path.c_str(), after, error)) {
        return false;
    }
    if (before != nullptr && Integrity::SameVersion(*before, after) && Integrity::HashHolds(*before, reader_.MaxHashBytes())) {
        after.hash = before->hash;
        after.sha256 = before->sha256;
    } else {
        reader_.Hash(AT_FDCWD, path.c_str(), after);
    }
    return true;
}

const FileChange* FileIntegrity::Observe(const Engine::AuditEventResult& result)
{
    if (result.event == Engine::kNotifyOverflow || !InScope(result.path)) {
        return nullptr;
    }
    const auto serial = result.extra.find(Engine::kNotifySerial);
    std::string key = serial == result.extra.end() ? std::string() : serial->second;
    key += '\0' + result.path + '\0' + std::to_string(result.event) + '\0' + result.destPath;
    if (key != lastKey_) {
        lastKey_ = std::move(key);
        last_ = FileChange();
        Compute(result, last_);
    }
    return &last_;
}

void FileIntegrity::Compute(const Engine::AuditEventResult& result, FileChange& change)
{
    Integrity::FileFacts before;
    const bool known = baseline_.Get(result.path, before);
    if (known) {
        change.before = before;
    }
    Integrity::FileFacts after;
    const bool moved = result.event == Engine::kNotifyMove || result.event == Engine::kNotifyMovedFrom;
    if (result.event == Engine::kNotifyDelete || (moved && result.destPath.empty())) {
        baseline_.Erase(result.path);
    } else if (moved) {
        // The record goes with the file, or is dropped when the file left the watched trees.
        const bool stays = InScope(result.destPath);
        if (stays) {
            baseline_.Move(result.path, result.destPath);
        } else {
            baseline_.Erase(result.path);
        }
        if (Read(result.destPath, known ? &before : nullptr, after)) {
            change.after = after;
            if (stays) {
                baseline_.Put(result.destPath, after);
            }
        }
    } else if (Read(result.path, known ? &before : nullptr, after)) {
        change.after = after;
        baseline_.Put(result.path, after);
        if (!after.IsDir() && result.event != Engine::kNotifyAttrib) {
            RecheckLater(result.path, 0);
        }
        if (result.event == Engine::kNotifyMovedTo && after.IsDir()) {
            // A tree moved in from outside: what it holds is recorded, not reported.
            for (const Integrity::Root& root : roots_) {
                if (root.recursive && Integrity::Covers(root, result.path)) {
                    scans_.push_back(Scan{std::make_unique<Integrity::TreeScan>(Integrity::Root{result.path, true},
                                                                                baseline_, reader_, false, true),
                                          false, std::chrono::steady_clock::now()});
                    break;
                }
            }
        }
    }
    if (change.before && change.after) {
        change.changes = Integrity::Differences(*change.before, *change.after);
    }
}

ScanFinding FileIntegrity::FindingOf(Integrity::Difference d)
{
    using Kind = Integrity::Difference::Kind;
    ScanFinding f;
    f.result.path = std::move(d.path);
    constexpr uint32_t kContent = Integrity::kChangedContent | Integrity::kChangedSize | Integrity::kChangedType |
                                  Integrity::kChangedInode | Integrity::kChangedMtime;
    switch (d.kind) {
    case Kind::kCreated:
        f.result.event = Engine::kNotifyCreate;
        f.change.reason = "start-up scan: created while the agent was not running";
        break;
    case Kind::kDeleted:
        f.result.event = Engine::kNotifyDelete;
        f.change.reason = "start-up scan: deleted while the agent was not running";
        break;
    case Kind::kChanged:
        f.result.event = (d.changes & kContent) != 0 ? Engine::kNotifyModify : Engine::kNotifyAttrib;
        f.change.reason = "start-up scan: changed while the agent was not running";
        break;
    }
    f.result.isDir = d.after ? d.after->IsDir() : d.before && d.before->IsDir();
    f.change.before = std::move(d.before);
    f.change.after = std::move(d.after);
    f.change.changes = d.changes;
    f.change.below = d.below;
    return f;
}

void FileIntegrity::RecheckLater(const std::string& path, size_t stage)
{
    if (rechecks_.size() >= kMaxRechecks) {
        rechecks_.erase(rechecks_.begin());
        if (rechecksDropped_++ == 0) {
            poco_warning(Log(), "File integrity: more than " + std::to_string(kMaxRechecks) +
                                " written files wait to be looked at again; the soonest are dropped.");
        }
    }
    rechecks_.emplace(std::chrono::steady_clock::now() + kRecheckAfter[stage], Pending{path, stage});
}

size_t FileIntegrity::RechecksLeft(const std::string& path) const
{
    for (const auto& [due, pending] : rechecks_) {
        if (pending.path == path) {
            return std::size(kRecheckAfter) - pending.stage;
        }
    }
    return 0;
}

void FileIntegrity::Recheck(std::vector<ScanFinding>& found)
{
    const auto now = std::chrono::steady_clock::now();
    while (!rechecks_.empty() && rechecks_.begin()->first <= now) {
        const Pending due = std::move(rechecks_.begin()->second);
        rechecks_.erase(rechecks_.begin());
        Integrity::FileFacts before;
        Integrity::FileFacts after;
        // Gone or replaced by a directory since: its own notifications tell of it.
        if (!baseline_.Get(due.path, before) || !Read(due.path, &before, after) || after.IsDir()) {
            continue;
        }
        if (!(before == after)) {
            baseline_.Put(due.path, after);
        }
        if (const uint32_t changes = Integrity::Differences(before, after); changes != 0) {
            Integrity::Difference d;
            d.kind = Integrity::Difference::Kind::kChanged;
            d.path = due.path;
            d.before = std::move(before);
            d.after = std::move(after);
            d.changes = changes;
            ScanFinding finding = FindingOf(std::move(d));
            finding.change.reason = "re-check: changed after its notification";
            found.push_back(std::move(finding));
        }
        if (due.stage + 1 < std::size(kRecheckAfter)) {
            RecheckLater(due.path, due.stage + 1);
        }
    }
}

bool FileIntegrity::Scanning(int& waitMs) const
{
    if (scans_.empty()) {
        return false;
    }
    const auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(nextStep_ - std::chrono::steady_clock::now());
    waitMs = wait.count() <= 0 ? 0 : static_cast<int>(wait.count());
    return true;
}

bool FileIntegrity::Step(std::vector<ScanFinding>& found)
{
    Recheck(found);
    if (scans_.empty()) {
        return false;
    }
    const auto now = std::chrono::steady_clock::now();
    if (now < nextStep_) {
        return true;
    }
    const uint64_t cpuAtStart = ThreadCpuNs();
    Scan& current = scans_.front();
    std::vector<Integrity::Difference> differences;
    const bool more = current.scan->Step(kStepBudget, differences);
    for (Integrity::Difference& d : differences) {
        found.push_back(FindingOf(std::move(d)));
    }
    findings_ += differences.size();
    if (!more) {
        const Integrity::Root& root = current.scan->GetRoot();
        if (current.marksComplete && !current.scan->Skipped()) {
            baseline_.SetComplete(root, true);
        }
        if (current.scan->Capped()) {
            poco_warning(Log(), "File integrity: " + root.path + " holds more than " + std::to_string(settings_.maxEntries) +
                                " entries; the baseline keeps and compares the first of them only.");
        }
        const double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - current.started).count();
        char text[64];
        std::snprintf(text, sizeof(text), "%.1f", seconds);
        poco_information(Log(), (current.marksComplete ? "Recorded the baseline of " : "Compared ") + root.path +
                                    ": " + std::to_string(current.scan->Entries()) + " entries, " +
                                    std::to_string(current.scan->Hashed()) + " read and hashed, " +
                                    std::to_string(findings_) + " differences, in " + text + " s.");
        findings_ = 0;
        scans_.pop_front();
    }
    scanCpuNs_ += ThreadCpuNs() - cpuAtStart;
    const double share = settings_.scanShare > 0 && settings_.scanShare < 1 ? settings_.scanShare : 1.0;
    const uint64_t pause = SDK::InnerCpuCtrlUtils::PauseNs(window_, scanCpuNs_, SteadyNs(std::chrono::steady_clock::now()),
                                                           static_cast<uint64_t>(share * 1000000));
    nextStep_ = std::chrono::steady_clock::now() + std::chrono::nanoseconds(pause);
    Flush();
    return !scans_.empty();
}

void FileIntegrity::Flush()
{
    baseline_.Flush();
    const std::string error = baseline_.TakeError();
    errorLogged_ = errorLogged_ && !error.empty();  // logged again after a recovery
    if (!error.empty() && !errorLogged_) {
        errorLogged_ = true;
        poco_error(Log(), "File integrity: the baseline " + settings_.baseline + " cannot be written (" + error +
                          "); notifications go on, with what the baseline still holds.");
    }
}

}  // namespace Export
