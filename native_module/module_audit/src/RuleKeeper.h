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
/// once a second.
class RuleKeeper {
public:
    explicit RuleKeeper(AuditRules& rules) : rules_(rules) {}
    RuleKeeper(const RuleKeeper&) = delete;
    RuleKeeper& operator=(const RuleKeeper&) = delete;
    ~RuleKeeper();

    /// Asks for key to be compared with the kernel's list soon (nothing for a waiting key).
    void Check(const std::string& key);
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
    // Watches the nearest existing ancestor of each waiting watch's directory.
    void WatchAncestors(const std::set<std::string>& keys);
    void Wake();
    void StartLocked();

    AuditRules& rules_;
    mutable std::mutex mutex_;
    std::set<std::string> requested_;
    std::set<std::string> inFlight_;
    std::set<std::string> waiting_;
    std::thread thread_;
    bool stop_ = false;
    int wakeFd_ = -1;
    int inotifyFd_ = -1;
};

}  // namespace Engine
