#include "RuleKeeper.h"

#include "AuditLogging.h"
#include "AuditRules.h"
#include "AuditUtil.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>

namespace Engine {

namespace {

constexpr auto kCoalesce = std::chrono::milliseconds(20);  // requests arriving meanwhile share a round
constexpr uint32_t kDirectoryEvents = IN_CREATE | IN_MOVED_TO | IN_ONLYDIR | IN_DELETE_SELF | IN_MOVE_SELF;

bool IsDirectory(const std::string& path)
{
    struct stat st {};
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// The deepest directory that exists on the way to dir (dir itself when it exists).
std::string NearestExistingAncestor(std::string dir)
{
    while (!dir.empty() && !IsDirectory(dir)) {
        dir = LinuxAuditUtil::SplitLastComponent(dir).first;
    }
    return dir;
}

void Drain(int fd)
{
    char buffer[4096];
    while (read(fd, buffer, sizeof(buffer)) > 0) {
    }
}

}  // namespace

RuleKeeper::~RuleKeeper()
{
    Stop();
}

void RuleKeeper::StartLocked()
{
    if (thread_.joinable()) {
        return;
    }
    wakeFd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    inotifyFd_ = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    stop_ = false;
    thread_ = std::thread([this] { Run(); });
}

void RuleKeeper::Wake()
{
    const uint64_t one = 1;
    if (wakeFd_ >= 0 && write(wakeFd_, &one, sizeof(one)) < 0) {
        AUDIT_LOG_DEBUG("Wake the rule keeper failed, errno(%d).", errno);
    }
}

void RuleKeeper::Check(const std::string& key, bool removed)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (key.empty() || waiting_.count(key) > 0 || (!removed && inFlight_.count(key) > 0)) {
        return;
    }
    requested_.insert(key);
    StartLocked();
    Wake();
}

void RuleKeeper::Wait(const std::string& key)
{
    std::lock_guard<std::mutex> lock(mutex_);
    AUDIT_LOG_INFO("Rule(%s) waits for its path.", key);
    waiting_.insert(key);
    StartLocked();
    Wake();  // so that the thread watches its ancestors
}

void RuleKeeper::Created(const std::string& path)
{
    std::lock_guard<std::mutex> lock(mutex_);
    bool any = false;
    for (auto it = waiting_.begin(); it != waiting_.end();) {
        if (getFilepathFromKey(*it) == path) {
            requested_.insert(*it);
            it = waiting_.erase(it);
            any = true;
        } else {
            ++it;
        }
    }
    if (any) {
        Wake();
    }
}

void RuleKeeper::Forget()
{
    std::lock_guard<std::mutex> lock(mutex_);
    requested_.clear();
    waiting_.clear();
    retriedPresent_.clear();
}

std::set<std::string> RuleKeeper::Waiting() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    std::set<std::string> keys = waiting_;
    keys.insert(requested_.begin(), requested_.end());
    keys.insert(inFlight_.begin(), inFlight_.end());
    return keys;
}

void RuleKeeper::Stop()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stop_ = true;
        Wake();
    }
    if (thread_.joinable()) {
        thread_.join();
    }
    for (int* fd : {&wakeFd_, &inotifyFd_}) {
        if (*fd >= 0) {
            close(*fd);
            *fd = -1;
        }
    }
}

void RuleKeeper::Run()
{
    for (;;) {
        pollfd fds[2] = {{wakeFd_, POLLIN, 0}, {inotifyFd_, POLLIN, 0}};
        int timeout = -1;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (stop_) {
                return;
            }
            timeout = waiting_.empty() ? -1 : retryMs_;
        }
        const int ready = poll(fds, inotifyFd_ >= 0 ? 2 : 1, timeout);
        bool retryWaiting = ready == 0;
        if ((fds[0].revents & POLLIN) != 0) {
            Drain(wakeFd_);
        }
        if ((fds[1].revents & POLLIN) != 0) {
            Drain(inotifyFd_);
            retryWaiting = true;  // a directory on the way to a waiting watch appeared
        }
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (stop_) {
                return;
            }
        }
        std::this_thread::sleep_for(kCoalesce);
        Round(retryWaiting);
    }
}

void RuleKeeper::Round(bool retryWaiting)
{
    std::set<std::string> keys;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        keys.swap(requested_);
        if (retryWaiting) {
            keys.insert(waiting_.begin(), waiting_.end());
            waiting_.clear();
        }
        inFlight_ = keys;
    }
    const std::set<std::string> failed = keys.empty() ? std::set<std::string>{} : rules_.ReAddMissing(keys);
    std::set<std::string> waiting;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        inFlight_.clear();
        waiting_.insert(failed.begin(), failed.end());
        for (const std::string& key : keys) {
            if (failed.count(key) == 0) {
                retriedPresent_.erase(key);
            }
        }
        waiting = waiting_;
    }
    const std::set<std::string> present = WatchAncestors(waiting);
    std::lock_guard<std::mutex> lock(mutex_);
    bool again = false;
    for (const std::string& key : present) {
        // Its directory appeared after the add failed and before the watch that would have seen
        // it: tried again now, once, so a rule refused for another reason does not spin.
        if (waiting_.count(key) > 0 && retriedPresent_.insert(key).second) {
            waiting_.erase(key);
            requested_.insert(key);
            again = true;
        }
    }
    if (again) {
        Wake();
    }
}

std::set<std::string> RuleKeeper::WatchAncestors(const std::set<std::string>& keys)
{
    std::set<std::string> present;
    if (keys.empty() && inotifyFd_ >= 0) {
        // Nothing waits: a fresh instance drops the watches of earlier waits.
        close(inotifyFd_);
        inotifyFd_ = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
        return present;
    }
    for (const std::string& key : keys) {
        const std::string path = getFilepathFromKey(key);
        if (path.empty() || inotifyFd_ < 0) {
            continue;  // a system-call rule: retried by time alone
        }
        const std::string dir = LinuxAuditUtil::SplitLastComponent(path).first;
        // Watch the deepest existing ancestor; should a deeper one appear meanwhile, watch that too.
        std::string watched;
        for (std::string ancestor = NearestExistingAncestor(dir); ancestor != watched && ancestor != dir;
             ancestor = NearestExistingAncestor(dir)) {
            if (inotify_add_watch(inotifyFd_, ancestor.c_str(), kDirectoryEvents) < 0) {
                AUDIT_LOG_WARN("Watch (%s) for rule(%s) failed, errno(%d); it is retried every %d ms.", ancestor, key,
                               errno, retryMs_);
                break;
            }
            watched = ancestor;
        }
        if (!watched.empty()) {
            AUDIT_LOG_DEBUG("Rule(%s) waits for %s to appear below %s.", key, dir, watched);
        }
        if (IsDirectory(dir)) {
            present.insert(key);
        }
    }
    return present;
}

}  // namespace Engine
