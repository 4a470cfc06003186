// File notifications end to end against the real kernel and auditd: the main job watches a
// scratch tree (as its configuration says), a script of real actions runs in it, and the
// notifications it exports for each action are compared with what the action must give and with
// what inotify(7) reports.
#include "KernelAudit.h"

#include <sys/inotify.h>

namespace {

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

class FileWatchKernel : public E2E::KernelTest {
protected:
    static int Run(const std::string& command) { return E2E::Command("sh -c '" + command + "'"); }
    // The notifications exported for everything done since the last call, as
    // "kind path [-> dest] [dir]" with the scratch directory written as T.
    std::vector<std::string> Notified()
    {
        const std::string mark = dir_ + "/sync/mark" + std::to_string(++marks_);
        Run("touch " + mark);
        EXPECT_TRUE(agent_->WaitFor("\"path\":\"" + mark + "\"", true)) << agent_->out;
        const size_t end = agent_->out.find("\"path\":\"" + mark + "\"");
        const std::string lines = agent_->out.substr(read_, agent_->out.rfind('\n', end) + 1 - read_);
        read_ = agent_->out.find('\n', end) + 1;
        std::vector<std::string> notes;
        const auto shorten = [&](const std::string& path) { return "T" + path.substr(dir_.size()); };
        for (const Poco::JSON::Object::Ptr& note : E2E::JsonLines(lines)) {
            const std::string dest = note->getValue<std::string>("destPath");
            notes.push_back(note->getValue<std::string>("kind") + " " + shorten(note->getValue<std::string>("path")) +
                            (dest.empty() ? "" : " -> " + shorten(dest)) + (note->getValue<bool>("isDir") ? " dir" : ""));
        }
        return notes;
    }
    std::unique_ptr<TestSupport::Program> agent_;
    size_t read_ = 0;
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
    for (const char* dir : {"/rec/e", "/flat", "/out", "/sync"}) {
        std::filesystem::create_directories(dir_ + dir);
    }
    std::ofstream(dir_ + "/rec/existing") << "seed\n";
    std::ofstream(home_ + "/etc/hostwarden.json") << R"({"output": {"stdout": true}, "subscriptions": [
        {"tag": "rec", "watch": ")" << dir_ << R"(/rec", "recursive": true},
        {"tag": "flat", "watch": ")" << dir_ << R"(/flat"},
        {"tag": "sync", "watch": ")" << dir_ << R"(/sync", "events": "create"}]})";
    agent_ = Hostwarden({"run"});
    ASSERT_TRUE(agent_->WaitFor("Every subscription is installed in the kernel.", false)) << agent_->err;
    Inotify inotify(dir_);
    inotify.Add(dir_ + "/rec", true);
    inotify.Add(dir_ + "/rec/e", true);
    inotify.Add(dir_ + "/flat", false);

    for (const Action& action : kScript) {
        std::string command = action.command;
        for (size_t at = command.find("T/"); at != std::string::npos; at = command.find("T/", at + dir_.size())) {
            command.replace(at, 1, dir_);
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
    agent_->Signal(SIGTERM);
    EXPECT_EQ(agent_->Wait(), 0) << agent_->err;
}
