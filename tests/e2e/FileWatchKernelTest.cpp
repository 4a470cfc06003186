// File notifications end to end: the main job watches a scratch tree where the actions of
// fixtures/filewatch-script.txt run; each action's notifications are compared with inotify(7)'s.
#include "KernelAudit.h"

#include "sdk/StrUtils.h"

using TestSupport::ReadFile;

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

namespace {

// The agent's resident memory in bytes (VmRSS of /proc/PID/status).
uint64_t ResidentBytes(int pid)
{
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmRSS:", 0) == 0) {
            return std::stoull(line.substr(6)) * 1024;
        }
    }
    return 0;
}

}  // namespace

// 50,000 hard links with paths of some 1.8 KB, made by an unprivileged user under a watch: the
// agent that records them grows by less than 500 bytes a link over one that watches an empty
// directory, and a file made afterwards is reported as ever.
TEST_F(FileWatchKernel, AHardLinkFloodWithLongPathsCostsLittleAndLeavesTheWatchWorking)
{
    const std::string flood = dir_ + "/flood";
    std::filesystem::create_directories(flood);
    std::filesystem::create_directories(dir_ + "/empty");
    chmod(dir_.c_str(), 0755);
    chmod(flood.c_str(), 0777);
    const std::string script = "import os, sys\n"
                               "d = sys.argv[1]\n"
                               "for level in range(8):\n"
                               "    d = os.path.join(d, chr(97 + level) * 220); os.mkdir(d)\n"
                               "t = os.path.join(d, 'target'); open(t, 'w').close()\n"
                               "for i in range(50000):\n"
                               "    os.link(t, os.path.join(d, 'link-%d' % i))\n"
                               "print(d)\n";
    TestSupport::Program linker({"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups",
                                 "/usr/bin/python3", "-c", script, flood});
    ASSERT_EQ(linker.Wait(120), 0) << linker.err;
    const std::string deep = SDK::StrUtils::Trim(linker.out);
    ASSERT_GT((deep + "/link-49999").size(), 1800U);

    const std::string events = dir_ + "/events.jsonl";
    const auto start = [&](const std::string& watched) {
        std::ofstream(home_ + "/etc/hostwarden.json") << R"({"output": {"file": ")" << events
            << R"(", "stdout": false, "format": "flat"},
            "file_integrity": {"baseline": ""},
            "subscriptions": [{"tag": "t", "watch": ")" << watched << R"(", "recursive": true}]})";
        agent_ = Hostwarden({"run"});
        // The index alone is measured (no baseline); a sanitized build records the tree slowly.
        EXPECT_TRUE(agent_->WaitFor("Every subscription is installed in the kernel.", false, 60)) << agent_->err;
        EXPECT_TRUE(agent_->WaitFor("Recorded the watched trees", false, 60)) << agent_->err;
        return ResidentBytes(agent_->Pid());
    };
    const uint64_t empty = start(dir_ + "/empty");
    agent_->Signal(SIGTERM);
    ASSERT_EQ(agent_->Wait(), 0) << agent_->err;
    const uint64_t full = start(flood);
    EXPECT_NE(agent_->err.find("Recorded the watched trees: 50010 entries"), std::string::npos)
        << "the flood directory, eight levels, the target and its links: " << agent_->err;
    const int64_t grown = static_cast<int64_t>(full) - static_cast<int64_t>(empty);
    std::cout << "The agent holding 50,000 links is " << grown / 1024 << " KiB larger (" << grown / 50000
              << " bytes a link).\n";
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    (void)grown;  // a sanitizer's shadow memory and red zones say nothing of the index's size
#else
    EXPECT_LT(grown, 50000 * 500) << "at most 500 bytes a link";
#endif

    const std::string after = deep + "/made-after-the-flood";
    std::ofstream(after) << "x";
    ASSERT_TRUE(TestSupport::WaitUntil([&] { return ReadFile(events).find("\"" + after + "\"") != std::string::npos; }, 30))
        << "the create after the flood was not reported";
    agent_->Signal(SIGTERM);
    EXPECT_EQ(agent_->Wait(), 0) << agent_->err;
}
