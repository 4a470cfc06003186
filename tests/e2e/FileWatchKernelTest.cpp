// File notifications end to end: the main job watches a scratch tree where the actions of
// fixtures/filewatch-script.txt run; each action's notifications are compared with inotify(7)'s.
#include "KernelAudit.h"

#include "sdk/StrUtils.h"

#include <sys/inotify.h>

#include <regex>

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

// The notifications of one cell of the script ("; " between them).
std::vector<std::string> Notes(const std::string& cell)
{
    return cell.empty() ? std::vector<std::string>{} : SDK::StrUtils::Split(cell, "; ");
}

// sed -i's temporary file has a random name: written sedXXXXXX.
std::vector<std::string> SedNamed(std::vector<std::string> notes)
{
    static const std::regex kTemporary("/sed[A-Za-z0-9]{6}\\b");
    for (std::string& note : notes) {
        note = std::regex_replace(note, kTemporary, "/sedXXXXXX");
    }
    return notes;
}

TEST_F(FileWatchKernel, RealActionsGiveTheNotificationsTheModuleSynthesises)
{
    for (const char* dir : {"/rec/e", "/flat", "/out", "/sync"}) {
        std::filesystem::create_directories(dir_ + dir);
    }
    std::ofstream(dir_ + "/rec/existing") << "seed\n";
    std::ofstream(home_ + "/etc/hostwarden.json") << R"({"output": {"stdout": true, "format": "flat"}, "subscriptions": [
        {"tag": "rec", "watch": ")" << dir_ << R"(/rec", "recursive": true},
        {"tag": "flat", "watch": ")" << dir_ << R"(/flat"},
        {"tag": "sync", "watch": ")" << dir_ << R"(/sync", "events": "create"}]})";
    agent_ = Hostwarden({"run"});
    ASSERT_TRUE(agent_->WaitFor("Every subscription is installed in the kernel.", false)) << agent_->err;
    Inotify inotify(dir_);
    inotify.Add(dir_ + "/rec", true);
    inotify.Add(dir_ + "/rec/e", true);
    inotify.Add(dir_ + "/flat", false);

    // Each action: the notifications the module must give, those inotify gives, and where they
    // differ the rule of the module's design that makes them differ (and the one other outcome a
    // race allows, if any).
    for (std::vector<std::string> action : TestSupport::TableRows("tests/e2e/fixtures/filewatch-script.txt")) {
        action.resize(5);
        std::string command = action[0];
        for (size_t at = command.find("T/"); at != std::string::npos; at = command.find("T/", at + dir_.size())) {
            command.replace(at, 1, dir_);
        }
        Run(command);
        const std::vector<std::string> audit = SedNamed(Notified());
        const std::vector<std::string> kernel = SedNamed(inotify.Take());
        if (action[4].empty() || audit != Notes(action[4])) {
            EXPECT_EQ(audit, Notes(action[1])) << action[0];
        }
        EXPECT_EQ(kernel, Notes(action[2])) << action[0];
        EXPECT_EQ(action[1] == action[2], action[3].empty()) << action[0] << ": a difference needs its reason, and a reason its difference";
    }
    agent_->Signal(SIGTERM);
    EXPECT_EQ(agent_->Wait(), 0) << agent_->err;
}
