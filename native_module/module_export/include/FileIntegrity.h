#pragma once

#include "AuditMessages.h"

#include "integrity/Baseline.h"
#include "integrity/FileFacts.h"
#include "integrity/TreeScan.h"

#include "sdk/InnerCpuCtrlUtils.h"

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Export {

/// The file-integrity settings of the agent's configuration.
struct IntegritySettings {
    std::string baseline;                    ///< the baseline database (absolute); empty for none
    uint64_t maxHashBytes = 64ULL << 20;     ///< regular files above this are not hashed
    double scanShare = 0.25;                 ///< processor share of the start-up scan
    uint64_t maxEntries = UINT64_MAX;        ///< entries of each tree the baseline holds at most
};

/// What a notification says of its file beyond the path: the file now, and what the baseline
/// held before.
struct FileChange {
    std::optional<Integrity::FileFacts> before;  ///< none when the baseline did not know the file
    std::optional<Integrity::FileFacts> after;   ///< none when the file is gone
    uint32_t changes = 0;                        ///< Integrity::Change bits between them
    uint64_t below = 0;                          ///< a directory found deleted: entries it held
    const char* reason = nullptr;                ///< event.reason of a start-up scan finding
};

/// A difference the start-up scan found, as a notification.
struct ScanFinding {
    Engine::AuditEventResult result;
    FileChange change;
};

/// The export side's file integrity: keeps the baseline of the watched trees in step with the
/// notifications (each gets the file's attributes and SHA-256 now, and the values before), and
/// at start compares each tree with its baseline, a step at a time within a processor share,
/// reporting what changed while the agent was not running. Runs on the export task's thread.
class FileIntegrity {
public:
    /// roots: the watched trees (a tree inside a recursive one is left to that one).
    FileIntegrity(IntegritySettings settings, std::vector<Integrity::Root> roots);

    /// Opens the baseline (logging what was wrong with it), forgets trees no longer watched and
    /// queues the start-up scans. A tree never recorded whole is recorded without findings.
    void Start();
    /// The change notification stands for, the baseline updated to match; null when no watched
    /// tree covers its path. The file-watch task sends one copy per matching watch: the copies
    /// (same serial, path, kind and destination, in a row) share the first one's answer.
    const FileChange* Observe(const Engine::AuditEventResult& result);
    /// The re-checks that are due, and, when the processor share allows, one step of the queued
    /// scans; appends their findings. True while scans remain.
    bool Step(std::vector<ScanFinding>& found);
    /// True while scans remain; waitMs is then how long until the next step may run.
    bool Scanning(int& waitMs) const;
    /// Commits the baseline's pending writes, logging a database error once.
    void Flush();
    /// How many more times a written file will be looked at again.
    size_t RechecksLeft(const std::string& path) const;

    /// The roots a list of watches makes: each once, none inside a recursive other.
    static std::vector<Integrity::Root> RootsOf(std::vector<Integrity::Root> watches);
    /// The finding of a scan difference.
    static ScanFinding FindingOf(Integrity::Difference difference);

private:
    bool InScope(const std::string& path) const;
    // The facts of path now, keeping before's hash when path is still that version.
    bool Read(const std::string& path, const Integrity::FileFacts* before, Integrity::FileFacts& after);
    void Compute(const Engine::AuditEventResult& result, FileChange& change);
    // The kernel reports a write when the file is opened, so the bytes may come after the
    // notification's hash: a file written is looked at again 1, 5 and 30 seconds later.
    void RecheckLater(const std::string& path, size_t stage);
    void Recheck(std::vector<ScanFinding>& found);

    IntegritySettings settings_;
    std::vector<Integrity::Root> roots_;
    Integrity::Baseline baseline_;
    Integrity::FactsReader reader_;
    struct Scan {
        std::unique_ptr<Integrity::TreeScan> scan;
        bool marksComplete;  // the tree is recorded whole when it ends
        std::chrono::steady_clock::time_point started;
    };
    std::deque<Scan> scans_;
    struct Pending {
        std::string path;
        size_t stage;
    };
    std::multimap<std::chrono::steady_clock::time_point, Pending> rechecks_;
    uint64_t rechecksDropped_ = 0;
    SDK::InnerCpuCtrlUtils::Window window_;
    uint64_t scanCpuNs_ = 0;
    std::chrono::steady_clock::time_point nextStep_;
    uint64_t findings_ = 0;
    std::string lastKey_;
    FileChange last_;
    bool errorLogged_ = false;
};

}  // namespace Export
