#pragma once

#include <condition_variable>
#include <mutex>
#include <set>
#include <string>
#include <thread>

namespace Engine {

class AuditRules;

/// Puts back kernel rules of ours that went missing, on a thread of its own so that the log
/// reader never waits for auditctl. Requests are coalesced: one listing of the kernel's rules per
/// round, and a rule is added again only when the listing lacks its key. A rule that cannot be
/// added waits: a watch whose directory is gone is retried as soon as an inotify watch on its
/// nearest existing ancestor sees the directory come back; everything waiting is also retried
/// every retryMs (a second).
class RuleKeeper {
public:
    static constexpr int kRetryMs = 1000;

    explicit RuleKeeper(AuditRules& rules, int retryMs = kRetryMs) : rules_(rules), retryMs_(retryMs) {}
    RuleKeeper(const RuleKeeper&) = delete;
    RuleKeeper& operator=(const RuleKeeper&) = delete;
    ~RuleKeeper();

    /// Asks for key to be compared with the kernel's list soon. Nothing for a waiting key, nor,
    /// unless the kernel reports it removed, for one being added now: a failed add's own record
    /// must not start another round, but a removal after the round's listing must.
    void Check(const std::string& key, bool removed);
    /// Makes key wait for its path (its add failed); from any thread.
    void Wait(const std::string& key);
    /// Retries at once the waiting watches on path (it was just created).
    void Created(const std::string& path);
    /// Drops every request and waiting key.
    void Forget();
    /// The keys not known to be in the kernel: asked about, being checked, or waiting.
    std::set<std::string> Waiting() const;
    /// Stops the thread (it starts with the first request).
    void Stop();

private:
    void Run();
    // One round: the requests and (when due) the waiting keys go to the registry; what fails waits.
    void Round(bool retryWaiting);
    // Watches the nearest existing ancestor of each waiting watch's directory. Returns the keys
    // whose directory exists already.
    std::set<std::string> WatchAncestors(const std::set<std::string>& keys);
    void Wake();
    void StartLocked();

    AuditRules& rules_;
    const int retryMs_;
    mutable std::mutex mutex_;
    std::set<std::string> requested_;
    std::set<std::string> inFlight_;
    std::set<std::string> waiting_;
    std::set<std::string> retriedPresent_;  // waiting keys tried again because their directory was there
    std::thread thread_;
    bool stop_ = false;
    int wakeFd_ = -1;
    int inotifyFd_ = -1;
};

}  // namespace Engine
