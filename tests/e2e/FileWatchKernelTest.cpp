// File notifications end to end against the real kernel and auditd: a subscriber watches a scratch
// tree through the file-watch task, a script of real actions runs in it, and the notifications of
// each action are compared with what the action must give and with what inotify(7) reports.
#include "KernelAudit.h"

#include "AuditConstants.h"
#include "AuditMessages.h"
#include "AuditTask.h"
#include "FileAuditWatch.h"
#include "FileWatchAuditTask.h"

#include "framework/Engine.h"
#include "framework/Module.h"
#include "sdk/DirUtils.h"
#include "sdk/ExecuteCmdUtils.h"

#include <gtest/gtest.h>

#include <sys/inotify.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>

using namespace Engine;

namespace {

constexpr uint32_t kAllKinds = kNotifyModify | kNotifyAttrib | kNotifyMove | kNotifyCreate | kNotifyDelete;

// Receives notifications on its own thread.
class Notifications : public Framework::Task, public AbstructMessage<AuditEventMessage>::Receiver {
public:
    Notifications() : Framework::Task("hwe2e_fw_task", "test", Framework::TaskCondition::kLoop, 8192) {}
    int Receive(const AuditEventMessage& msg) override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        results_.push_back(msg.result);
        changed_.notify_all();
        return 0;
    }
    // Waits (at most 20 s) for a notification of path, then returns and forgets everything before it.
    std::vector<AuditEventResult> TakeUntil(const std::string& path)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        std::vector<AuditEventResult> taken;
        changed_.wait_for(lock, std::chrono::seconds(20), [&] {
            for (size_t i = 0; i < results_.size(); ++i) {
                if (results_[i].path == path) {
                    taken.assign(results_.begin(), results_.begin() + static_cast<long>(i));
                    results_.erase(results_.begin(), results_.begin() + static_cast<long>(i) + 1);
                    return true;
                }
            }
            return false;
        });
        return taken;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<AuditEventResult> results_;
};

class Tasks : public Framework::Module {
public:
    Tasks(std::vector<Framework::Task*> tasks) : Framework::Module("hwe2e_fw_module"), tasks_(std::move(tasks)) {}
    int Init() override
    {
        for (Framework::Task* task : tasks_) {
            if (RegisterTask(task, true) != 0) {
                return -1;
            }
        }
        return 0;
    }

private:
    std::vector<Framework::Task*> tasks_;
};

// inotify(7) on the same tree, read by the test itself: the directories of the recursive tree
// (and those created in it), and the flat one alone.
class Inotify {
public:
    explicit Inotify(const std::string& root) : root_(root), fd_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {}
    ~Inotify() { close(fd_); }
    void Add(const std::string& dir, bool recursive)
    {
        const int wd = inotify_add_watch(fd_, dir.c_str(), kMask);
        dirs_[wd] = {dir, recursive};
    }
    // Everything queued so far, as "kind path [dir]" lines with the root written as T.
    std::vector<std::string> Take()
    {
        std::vector<std::string> lines;
        alignas(inotify_event) char buffer[64 * 1024];
        for (;;) {
            const ssize_t got = read(fd_, buffer, sizeof(buffer));
            if (got <= 0) {
                return lines;
            }
            for (char* at = buffer; at < buffer + got;) {
                const auto* event = reinterpret_cast<const inotify_event*>(at);
                at += sizeof(inotify_event) + event->len;
                const auto dir = dirs_.find(event->wd);
                if (dir == dirs_.end() || (event->mask & kMask) == 0) {
                    continue;
                }
                const std::string path = dir->second.first + "/" + event->name;
                const bool isDir = (event->mask & IN_ISDIR) != 0;
                if (isDir && dir->second.second && (event->mask & (IN_CREATE | IN_MOVED_TO)) != 0) {
                    Add(path, true);
                }
                lines.push_back(Name(event->mask) + " T" + path.substr(root_.size()) + (isDir ? " dir" : ""));
            }
        }
    }

private:
    static constexpr uint32_t kMask = IN_MODIFY | IN_ATTRIB | IN_MOVED_FROM | IN_MOVED_TO | IN_CREATE | IN_DELETE;
    static std::string Name(uint32_t mask)
    {
        return (mask & IN_MODIFY) ? "modify" : (mask & IN_ATTRIB) ? "attrib" : (mask & IN_MOVED_FROM) ? "moved_from"
               : (mask & IN_MOVED_TO) ? "moved_to" : (mask & IN_CREATE) ? "create" : "delete";
    }
    std::string root_;
    int fd_;
    std::map<int, std::pair<std::string, bool>> dirs_;
};

std::string KindName(int kind)
{
    switch (kind) {
    case kNotifyModify: return "modify";
    case kNotifyAttrib: return "attrib";
    case kNotifyMovedFrom: return "moved_from";
    case kNotifyMovedTo: return "moved_to";
    case kNotifyMove: return "move";
    case kNotifyCreate: return "create";
    case kNotifyDelete: return "delete";
    default: return std::to_string(kind);
    }
}

class FileWatchKernel : public testing::Test {
protected:
    void SetUp() override
    {
        const std::string why = E2E::WhyKernelAuditIsUnusable();
        if (!why.empty()) {
            GTEST_SKIP() << "real-kernel test skipped: " << why;
        }
        install_ = std::make_unique<E2E::TestInstallation>();
        char pattern[] = "/tmp/hwe2e_fw_XXXXXX";
        root_ = mkdtemp(pattern);
        for (const char* dir : {"/rec", "/flat", "/out", "/sync"}) {
            SDK::DirUtils::CreateDirs(root_ + dir);
        }
        audit_ = new AuditTask;
        fileWatch_ = new FileWatchAuditTask;
        notifications_ = new Notifications;
        ASSERT_EQ(engine_.AddModule(std::make_unique<Tasks>(std::vector<Framework::Task*>{audit_, fileWatch_, notifications_})), 0);
        ASSERT_EQ(engine_.StartTasks(), 0);
    }
    void TearDown() override
    {
        if (!install_) {
            return;
        }
        engine_.StopAll();
        const std::string rules = E2E::ListKernelRules();
        E2E::RemoveTestRules(root_);
        EXPECT_EQ(rules.find(root_), std::string::npos) << "rules left behind:\n" << rules;
        std::string ignored;
        SDK::ExecuteCmdUtils::ExecuteCmd("rm -rf " + root_, ignored, 4096);
    }
    void Watch(const std::string& dir, uint32_t mask, bool recursive, bool unwatch = false)
    {
        _FileNotifyOpt opt;
        opt.recursive = recursive;
        opt.flag6 = unwatch;
        notifications_->SendDirectMsg(kFileWatchTaskName,
                                      new AuditFileSystemCtrlMessage(notifications_, root_ + dir, {mask}, opt));
    }
    // True once the kernel lists the audit watch of dir (or no longer lists it), within 10 s.
    bool KernelWatches(const std::string& dir, bool present)
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (std::chrono::steady_clock::now() < deadline) {
            const std::string rules = E2E::ListKernelRules();
            if ((rules.find("-w " + root_ + dir + " ") != std::string::npos) == present) {
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return false;
    }
    int Run(const std::string& command)
    {
        std::string output;
        return SDK::ExecuteCmdUtils::ExecuteCmd("sh -c '" + command + "'", output, 4096);
    }
    // The notifications of everything done since the last call, as "kind path [-> dest] [dir]".
    std::vector<std::string> Notified()
    {
        const std::string mark = root_ + "/sync/mark" + std::to_string(++marks_);
        Run("touch " + mark);
        std::vector<std::string> lines;
        for (const AuditEventResult& r : notifications_->TakeUntil(mark)) {
            lines.push_back(KindName(r.event) + " T" + r.path.substr(root_.size()) +
                            (r.destPath.empty() ? "" : " -> T" + r.destPath.substr(root_.size())) + (r.isDir ? " dir" : ""));
        }
        return lines;
    }

    std::unique_ptr<E2E::TestInstallation> install_;
    std::string root_;
    Framework::Engine engine_;
    AuditTask* audit_ = nullptr;
    FileWatchAuditTask* fileWatch_ = nullptr;
    Notifications* notifications_ = nullptr;
    int marks_ = 0;
};

}  // namespace

// One action of the script: the notifications the module must give, those inotify gives, and,
// where they differ, the rule of the module's design that makes them differ.
struct Action {
    const char* command;  // T stands for the scratch root
    std::vector<std::string> audit;
    std::vector<std::string> inotify;
    const char* why;
    std::vector<std::string> auditOtherwise = {};  // the one other outcome a race allows, if any
};

// clang-format off
const Action kScript[] = {
    {"touch T/rec/new", {"create T/rec/new"}, {"create T/rec/new", "attrib T/rec/new"},
     "touch's time update (utimensat) is no call of the handler table; only the O_CREAT open counts"},
    {"echo x > T/rec/redir", {"create T/rec/redir"}, {"create T/rec/redir", "modify T/rec/redir"},
     "audit watches see opens, not writes: an O_CREAT open with two PATH items is a create"},
    {"echo more >> T/rec/new", {"modify T/rec/new"}, {"modify T/rec/new"}, ""},
    {"touch T/rec/new", {"attrib T/rec/new"}, {"attrib T/rec/new"}, ""},
    {"chmod 600 T/rec/new", {"attrib T/rec/new"}, {"attrib T/rec/new"}, ""},
    {"chmod 600 T/rec/new", {}, {"attrib T/rec/new"}, "a chmod whose new mode equals the old one gives nothing"},
    {"chown 1000:1000 T/rec/new", {"attrib T/rec/new"}, {"attrib T/rec/new"}, ""},
    {"python3 -c \"import os; os.chown(\\\"T/rec/new\\\", -1, -1)\"", {}, {}, ""},
    {"mkdir T/rec/d", {"create T/rec/d dir"}, {"create T/rec/d dir"}, ""},
    {"touch T/rec/d/inner", {"create T/rec/d/inner"}, {"create T/rec/d/inner", "attrib T/rec/d/inner"},
     "as for the first touch"},
    {"python3 -c \"import os; os.rename(\\\"T/rec/new\\\", \\\"T/rec/renamed\\\")\"",
     {"move T/rec/new -> T/rec/renamed"}, {"moved_from T/rec/new", "moved_to T/rec/renamed"},
     "a rename within one directory is one notification, 192 (moved from and to), with the new name"},
    {"mv T/rec/renamed T/rec/moved", {"move T/rec/renamed -> T/rec/moved"},
     {"moved_from T/rec/renamed", "moved_to T/rec/moved"}, "as for the rename call (renameat2)"},
    {"mv T/rec/moved T/flat/moved", {"moved_from T/rec/moved -> T/flat/moved", "moved_to T/flat/moved"},
     {"moved_from T/rec/moved", "moved_to T/flat/moved"},
     "a moved-from notification names the new path too (inotify pairs the two by a cookie instead)"},
    {"mv T/flat/moved T/out/moved", {"moved_from T/flat/moved -> T/out/moved"}, {"moved_from T/flat/moved"},
     "as above: moved out of view, with the new path"},
    {"mv T/out/moved T/rec/back", {"moved_to T/rec/back"}, {"moved_to T/rec/back"}, ""},
    {"mkdir T/flat/sub", {"create T/flat/sub dir"}, {"create T/flat/sub dir"}, ""},
    {"touch T/flat/sub/deep", {}, {}, ""},  // below a watch that is not recursive
    {"ln T/rec/back T/rec/hard", {"create T/rec/hard"}, {"create T/rec/hard"}, ""},
    {"ln -s back T/rec/soft", {"create T/rec/back"}, {"create T/rec/soft"},
     "a notified path is resolved, which follows the new link to its target"},
    {"unlink T/rec/hard", {"delete T/rec/back"}, {"delete T/rec/hard"},
     "a deleted entry is named by its inode through the index; the hard link shares back's inode, and "
     "the first path of an inode in path order is back"},
    {"rm T/rec/soft", {}, {"delete T/rec/soft"},
     "the link's own inode was never indexed (its create recorded the resolved target), so nothing names it"},
    {"rm -r T/rec/d", {"delete T/rec/d dir"}, {"delete T/rec/d/inner", "delete T/rec/d dir"},
     "when d/inner's event is handled d is gone too: resolving d/inner stops at the missing d, so the "
     "notification names d and erases it with everything below, and d's own delete then finds nothing; "
     "handled before d goes, it names d/inner and d's own delete follows",
     {"delete T/rec/d/inner", "delete T/rec/d dir"}},
    {"rmdir T/rec/e", {"delete T/rec/e dir"}, {"delete T/rec/e dir"}, ""},
    {"rm T/rec/nothere", {}, {}, ""},  // a failed call
};
// clang-format on

TEST_F(FileWatchKernel, RealActionsGiveTheNotificationsTheModuleSynthesises)
{
    Run("echo seed > " + root_ + "/rec/existing; mkdir " + root_ + "/rec/e");
    Watch("/rec", kAllKinds, true);
    Watch("/flat", kAllKinds, false);
    Watch("/sync", kNotifyCreate, false);
    for (const char* dir : {"/rec", "/flat", "/sync"}) {
        ASSERT_TRUE(KernelWatches(dir, true)) << dir;
    }
    Inotify inotify(root_);
    inotify.Add(root_ + "/rec", true);
    inotify.Add(root_ + "/rec/e", true);
    inotify.Add(root_ + "/flat", false);

    for (const Action& action : kScript) {
        std::string command = action.command;
        for (size_t at = command.find("T/"); at != std::string::npos; at = command.find("T/", at + root_.size())) {
            command.replace(at, 1, root_);
        }
        Run(command);
        const std::vector<std::string> audit = Notified();
        const std::vector<std::string> kernel = inotify.Take();
        if (action.auditOtherwise.empty() || audit != action.auditOtherwise) {
            EXPECT_EQ(audit, action.audit) << action.command;
        }
        EXPECT_EQ(kernel, action.inotify) << action.command;
        EXPECT_EQ(action.audit == action.inotify, std::string(action.why).empty())
            << action.command << ": a difference needs its reason, and a reason its difference";
    }
}

TEST_F(FileWatchKernel, OneAuditWatchPerPathAndNoneLeftAfterUnwatchOrStop)
{
    Watch("/rec", kNotifyCreate, true);
    Watch("/rec", kNotifyCreate, true);
    Watch("/rec", kNotifyDelete, false);
    ASSERT_TRUE(KernelWatches("/rec", true));
    Watch("/sync", kNotifyCreate, false);
    ASSERT_TRUE(KernelWatches("/sync", true));
    const std::string rules = E2E::ListKernelRules();
    const std::string watch = "-w " + root_ + "/rec ";
    EXPECT_EQ(rules.find(watch), rules.rfind(watch)) << rules;

    Watch("/rec", kNotifyCreate, true, true);
    EXPECT_TRUE(KernelWatches("/rec", false)) << "unwatched";
    Watch("/flat", kNotifyCreate, true);
    ASSERT_TRUE(KernelWatches("/flat", true));
    engine_.StopAll();
    EXPECT_TRUE(KernelWatches("/flat", false)) << "stopped";
    EXPECT_TRUE(KernelWatches("/sync", false));
}
