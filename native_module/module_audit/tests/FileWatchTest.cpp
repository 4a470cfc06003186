// The file-watch engine: its rule table, inode index and path tests, the notifications it makes
// of real captured file actions, and the file-watch task's handling of its control messages.
#include "FileAuditWatch.h"
#include "FileWatchAuditTask.h"

#include "AuditConstants.h"
#include "AuditLog.h"
#include "AuditTask.h"
#include "SyscallTables.h"

#include "framework/Engine.h"
#include "framework/Module.h"
#include "framework/TaskRegistry.h"
#include "sdk/DirUtils.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>
#include <utility>
#include <cstdio>
#include <map>
#include <regex>

using namespace Engine;
using TestSupport::NamedTask;

namespace {

// Keeps every notification it receives.
class NotifySink : public Framework::Task, public AbstructMessage<AuditEventMessage>::Receiver {
public:
    explicit NotifySink(const std::string& name) : Framework::Task(name, "test", Framework::TaskCondition::kLoop, 4096) {}
    int Receive(const AuditEventMessage& msg) override
    {
        results.push_back(msg.result);
        return 0;
    }
    std::vector<AuditEventResult> results;
};

AuditFileSystemCtrlMessage WatchMessage(Framework::Task* sender, const std::string& path, uint32_t events,
                                        bool recursive, bool unwatch = false)
{
    _FileNotifyOpt opt;
    opt.recursive = recursive;
    opt.flag6 = unwatch;
    return AuditFileSystemCtrlMessage(sender, path, {events}, opt);
}

FileNotifyRule Rule(const std::string& path, bool recursive)
{
    FileNotifyRule rule;
    rule.path = path;
    rule.recursive = recursive;
    rule.mask = kNotifyCreate;
    rule.valid = true;
    return rule;
}

constexpr uint32_t kAllKinds = kNotifyModify | kNotifyAttrib | kNotifyMove | kNotifyCreate | kNotifyDelete;

}  // namespace

TEST(FileWatchRules, IdsReuseFreedSlotsAndOnlyTheSameTaskIsRefusedTwice)
{
    FileAuditWatch watch;
    EXPECT_EQ(watch.AddFileNotifyRule(Rule("/a", false)), 0U) << "no rule lock yet";
    ASSERT_TRUE(watch.InitFileWatchLock());
    EXPECT_EQ(watch.AddFileNotifyRule(Rule("/a", false)), 1U);
    EXPECT_EQ(watch.AddFileNotifyRule(Rule("/b", false)), 2U);
    EXPECT_EQ(watch.AddFileNotifyRule(Rule("/c", false)), 3U);
    watch.RmFileNotifyRule(2);
    watch.RmFileNotifyRule(0);
    watch.RmFileNotifyRule(9);
    EXPECT_EQ(watch.AddFileNotifyRule(Rule("/d", false)), 2U);
    EXPECT_EQ(watch.Rules().size(), 3U);

    NamedTask one("one_task");
    NamedTask two("two_task");
    EXPECT_EQ(watch.AddFileWatch(WatchMessage(&one, "/w", 2, true)), 4U);
    EXPECT_EQ(watch.AddFileWatch(WatchMessage(&one, "/w", 2, true)), 0U) << "the same rule of the same task";
    EXPECT_EQ(watch.AddFileWatch(WatchMessage(&one, "/w", 2, false)), 5U) << "the recursive flag differs";
    EXPECT_EQ(watch.AddFileWatch(WatchMessage(&two, "/w", 2, true)), 6U);
    // A removal takes the first identical rule, whichever task holds it.
    EXPECT_EQ(watch.RmFileWatch(WatchMessage(&two, "/w", 2, true)), 4U);
    EXPECT_EQ(watch.RmFileWatch(WatchMessage(&two, "/w", 4, true)), 0U);
    const std::vector<FileNotifyRule> rules = watch.Rules();
    EXPECT_FALSE(rules[3].valid);
    EXPECT_TRUE(rules[3].path.empty());
    EXPECT_TRUE(rules[5].valid);
    EXPECT_EQ(rules[5].task, &two);

    EXPECT_EQ(FileAuditWatch::PermToStr(10), "wa");
    EXPECT_EQ(FileAuditWatch::PermToStr(15), "rwxa");
    EXPECT_EQ(FileAuditWatch::PermToStr(0), "");
}

TEST(FileWatchPaths, CoverageFollowsTheRecursiveFlagAndWholeNames)
{
    struct Case {
        const char* rule;
        bool recursive;
        const char* path;
        bool covered;
    };
    const Case cases[] = {
        {"/etc", false, "/etc", true},          {"/etc", false, "/etc/passwd", true},
        {"/etc", false, "/etc/ssh/sshd_config", false},
        {"/etc", true, "/etc/ssh/sshd_config", true}, {"/etc", true, "/etcd", false},
        {"/etc", false, "/etcd", false},        {"/opt/", false, "/opt/x", false},
        {"/opt/", true, "/opt/x/y", true},      {"/opt/", true, "/opt", false},
    };
    for (const Case& c : cases) {
        FileAuditWatch watch;
        ASSERT_TRUE(watch.InitFileWatchLock());
        watch.AddFileNotifyRule(Rule(c.rule, c.recursive));
        EXPECT_EQ(watch.CheckFileRecursiveEx(c.path), c.covered) << c.rule << (c.recursive ? " (recursive) " : " ") << c.path;
    }

    FileAuditWatch watch;
    ASSERT_TRUE(watch.InitFileWatchLock());
    const uint32_t id = watch.AddFileNotifyRule(Rule("/tmp", false));
    EXPECT_TRUE(watch.CheckFileRecursive("gone-file", "/tmp")) << "relative to cwd, resolved through /tmp";
    EXPECT_TRUE(watch.CheckFileRecursive("../tmp/x", "/tmp"));
    EXPECT_FALSE(watch.CheckFileRecursive("", "/tmp"));
    watch.RmFileNotifyRule(id);
    EXPECT_FALSE(watch.CheckFileRecursiveEx("/tmp/x")) << "a freed slot covers nothing";

    EXPECT_TRUE(FileAuditWatch::IsDirSame("/a/x", "/a/y"));
    EXPECT_TRUE(FileAuditWatch::IsDirSame("/a/x", "/a/b/y")) << "the shorter directory is a prefix";
    EXPECT_FALSE(FileAuditWatch::IsDirSame("/a/x", "/b/y"));
    std::string path = "x";
    std::string dest = "/tmp/../tmp/y";
    FileAuditWatch::GetAbsPath(path, dest, "/tmp");
    EXPECT_EQ(path, "/tmp/x");
    EXPECT_EQ(dest, "/tmp/y");
    std::string empty;
    FileAuditWatch::GetAbsPath(path = "x", empty, "/tmp");
    EXPECT_EQ(path, "x") << "nothing changes unless both are given";
}

TEST(FileWatchIndex, RecordsATreeOnceAndErasesDirectoriesWithEverythingBelow)
{
    TestSupport::TempDir dir;
    const std::string root = dir.path();
    dir.Write("d/f", "x");
    dir.Write("d/sub/g", "x");
    dir.Write("d2/h", "x");
    ASSERT_EQ(link((root + "/d/f").c_str(), (root + "/d/f2").c_str()), 0);
    ASSERT_EQ(symlink((root + "/d").c_str(), (root + "/link").c_str()), 0);

    FileAuditWatch watch;
    ASSERT_TRUE(watch.InitFileWatchLock());
    watch.RecordInodeInfo(root);
    EXPECT_EQ(watch.Index().size(), 9U);
    EXPECT_TRUE(watch.IsDirFile(root + "/d/sub"));
    EXPECT_FALSE(watch.IsDirFile(root + "/link")) << "links are recorded, not followed";
    EXPECT_FALSE(watch.IsDirFile(root + "/unknown"));
    struct stat st {};
    ASSERT_EQ(stat((root + "/d/f").c_str(), &st), 0);
    EXPECT_EQ(watch.GetFilePathByInode(st.st_ino, st.st_dev), root + "/d/f") << "the first hard link in path order";
    EXPECT_EQ(watch.GetFilePathByInode(st.st_ino, st.st_dev + 1), "");

    dir.Write("d2/new", "x");
    watch.RecordInodeInfo(root);
    EXPECT_EQ(watch.Index().size(), 9U) << "a directory known with the same inode is not scanned again";

    watch.EraseInodeInfo(root + "/d");
    EXPECT_EQ(watch.Index().size(), 4U);
    EXPECT_NE(watch.Index().Find(root + "/d2/h"), nullptr) << "d2 only shares the prefix";
    watch.EraseInodeInfo(root + "/d2/h");
    EXPECT_EQ(watch.Index().size(), 3U);
    EXPECT_NE(watch.Index().Find(root + "/d2"), nullptr);
}

// The index holds what the rules say it holds, and the second index names exactly what the scan
// in path order names, whatever happened.
TEST(FileWatchIndex, ChangesKeepToTheRulesAndTheInodeLookupAgreesWithTheScan)
{
    const char* names[] = {"/w", "/w/a", "/w/a/b", "/w/b", "/w/ab", "/w/a/c", "/x", "/w/", ""};
    TestSupport::Random next(0x9E3779B97F4A7C15ULL);
    InodeIndex index;
    std::map<std::string, uint64_t> model;  // path to inode, kept with the rules themselves
    for (int round = 0; round < 5000; ++round) {
        const std::string path = names[next() % std::size(names)];
        switch (next() % 4) {
        case 0:
        case 1: {
            const InodeInfo info{next() % 4, next() % 2 == 0, next() % 2};
            index.Set(path, info);
            model[path] = info.inode * 2 + info.dev;
            break;
        }
        case 2:
            index.Erase(path);
            model.erase(path);
            break;
        default: {
            index.EraseBelow(path);
            FileNotifyRule below;
            below.path = path;
            for (auto it = model.begin(); it != model.end();) {
                it = FileAuditWatch::IsChildFile(below, it->first) ? model.erase(it) : std::next(it);
            }
            break;
        }
        }
        std::map<std::string, uint64_t> held;
        for (const auto& [key, info] : index.Entries()) {
            held[key] = info.inode * 2 + info.dev;
        }
        ASSERT_EQ(held, model) << "round " << round;
        for (uint64_t inode = 0; inode < 4; ++inode) {
            for (uint64_t dev = 0; dev < 2; ++dev) {
                ASSERT_EQ(index.PathOf(inode, dev), index.PathOfByScan(inode, dev)) << "round " << round;
            }
        }
    }
}

TEST(FileWatchIndex, AuditDeviceTextsGiveTheDeviceNumber)
{
    EXPECT_EQ(FileAuditWatch::GetDevFromStr("fd:01"), 0xfd01UL);
    EXPECT_EQ(FileAuditWatch::GetDevFromStr("fe:00"), 0xfe00UL);
    EXPECT_EQ(FileAuditWatch::GetDevFromStr("8"), 0UL);
    EXPECT_EQ(FileAuditWatch::GetDevFromStr("08"), 0UL);
    // NVMe disks have major 259, which the kernel writes with three digits.
    EXPECT_EQ(FileAuditWatch::GetDevFromStr("103:02"), static_cast<unsigned long>(makedev(259, 2)));
    EXPECT_EQ(FileAuditWatch::GetDevFromStr("00:1a3"), static_cast<unsigned long>(makedev(0, 0x1a3)))
        << "a minor past 0xff, as overlay and btrfs have";
}

namespace {

// Replays a real capture, moved into a scratch directory, through the file-watch engine. The
// directories entries are created in are made for real, and their inode numbers in the capture are
// replaced by the real ones, so the paths resolve and recording them keeps the index consistent;
// every other captured inode number is moved above any real one. The index starts out knowing
// every entry the capture names, with its captured inode, as it would had it recorded them, so
// lookups by inode find them.
class Replay {
    static constexpr unsigned long long kCapturedInodes = 1ULL << 40;

public:
    Replay(const std::string& capture, const std::string& capturedRoot, const std::vector<std::string>& dirs)
    {
        std::vector<std::string> lines = TestSupport::ReadLines(TestSupport::FixturesDir() + capture);
        // Captured inode numbers move far above real ones, so no real inode can meet them.
        const std::regex inodeNumber("inode=([0-9]+)");
        for (std::string& line : lines) {
            std::string moved;
            std::sregex_iterator it(line.begin(), line.end(), inodeNumber);
            size_t copied = 0;
            for (; it != std::sregex_iterator(); ++it) {
                moved += line.substr(copied, static_cast<size_t>(it->position()) - copied);
                moved += "inode=" + std::to_string(std::stoull((*it)[1]) + kCapturedInodes);
                copied = static_cast<size_t>(it->position() + it->length());
            }
            line = moved + line.substr(copied);
        }
        std::vector<std::pair<std::string, std::string>> moves{{capturedRoot, dir_.path()}};
        for (const std::string& d : dirs) {
            SDK::DirUtils::CreateDirs(dir_.path() + "/" + d);
            struct stat st {};
            EXPECT_EQ(stat((dir_.path() + "/" + d).c_str(), &st), 0);
            char real[64];
            std::snprintf(real, sizeof(real), "inode=%lu dev=%02x:%02x", static_cast<unsigned long>(st.st_ino),
                          major(st.st_dev), minor(st.st_dev));
            const std::regex named("name=\"" + capturedRoot + "/" + d + "/?\" (inode=[0-9]+ dev=[0-9a-f:]+)");
            for (const std::string& line : lines) {
                std::smatch found;
                if (std::regex_search(line, found, named)) {
                    moves.emplace_back(found[1], real);
                    break;
                }
            }
        }
        for (std::string& line : lines) {
            for (const auto& [from, to] : moves) {
                for (size_t at = line.find(from); at != std::string::npos; at = line.find(from, at + to.size())) {
                    line.replace(at, from.size(), to);
                }
            }
            const size_t stamp = line.find("msg=audit(");
            const size_t colon = line.find(':', stamp);
            const std::string serial = line.substr(colon + 1, line.find(')', stamp) - colon - 1);
            if (byEvent_.count(serial) == 0) {
                order_.push_back(serial);
            }
            byEvent_[serial].push_back(line);
        }
        EXPECT_TRUE(watch.InitFileWatchLock());
        watch.SetTask(&owner);
        for (const std::string& serial : order_) {
            const std::shared_ptr<AuditEvent> event = TestSupport::DecodeEvent(byEvent_[serial]);
            for (const AuditLogPath& path : event->paths) {
                if (!path.inode.empty() && path.nametype != "PARENT") {
                    const bool isDir = (std::stoul(path.mode, nullptr, 8) & S_IFMT) == S_IFDIR;
                    watch.Index().Set(getFilepath(event->cwd, path.name),
                                      InodeInfo{std::stoul(path.inode), isDir, FileAuditWatch::GetDevFromStr(path.dev)});
                }
            }
        }
    }

    /// Subscribes sink to a directory of the scratch tree.
    void Subscribe(NotifySink& sink, const std::string& relative, uint32_t mask, bool recursive)
    {
        FileNotifyRule rule;
        rule.path = dir_.path() + "/" + relative;
        rule.mask = mask;
        rule.recursive = recursive;
        rule.task = &sink;
        rule.valid = true;
        watch.AddFileNotifyRule(rule);
    }

    /// Every event in log order, and the notifications each sink received, one line each:
    /// "sink kind path[ -> dest][ dir]" with the scratch directory written as T.
    std::vector<std::string> Run(const std::vector<NotifySink*>& sinks)
    {
        std::vector<std::string> out;
        for (const std::string& serial : order_) {
            AuditEventMessage msg;
            msg.event = TestSupport::DecodeEvent(byEvent_[serial]);
            watch.CheckMessageInfo(msg);
            for (NotifySink* sink : sinks) {
                sink->BulkConsumeMsg(4096);
                for (const AuditEventResult& r : sink->results) {
                    out.push_back(sink->GetName() + " " + std::to_string(r.event) + " " + Short(r.path) +
                                  (r.destPath.empty() ? "" : " -> " + Short(r.destPath)) + (r.isDir ? " dir" : ""));
                }
                last_.insert(last_.end(), sink->results.begin(), sink->results.end());
                sink->results.clear();
            }
        }
        return out;
    }

    /// The scratch directory that stands for the capture's.
    const std::string& Root() const { return dir_.path(); }
    /// The notifications of the last Run, in order.
    const std::vector<AuditEventResult>& Results() const { return last_; }

    NamedTask owner{"filewatch_audit_task"};
    FileAuditWatch watch;

private:
    std::string Short(const std::string& path) const
    {
        return path.compare(0, dir_.path().size(), dir_.path()) == 0 ? "T" + path.substr(dir_.path().size()) : path;
    }

    TestSupport::TempDir dir_;
    std::vector<std::string> order_;
    std::map<std::string, std::vector<std::string>> byEvent_;
    std::vector<AuditEventResult> last_;
};

const AuditEventResult* FindResult(const std::vector<AuditEventResult>& results, int kind, const std::string& suffix)
{
    for (const AuditEventResult& r : results) {
        if (r.event == kind && r.path.size() >= suffix.size() &&
            r.path.compare(r.path.size() - suffix.size(), suffix.size(), suffix) == 0) {
            return &r;
        }
    }
    return nullptr;
}

}  // namespace

// The capture of the file actions listed in tests/fixtures/kernel-6.18-raw.steps.txt.
TEST(FileWatchEvents, RealFileActionsGiveTheirNotifications)
{
    Replay replay("kernel-6.18-raw.log", "/tmp/fx", {"watched/sub", "watched/dir1", "other", "outside"});
    NotifySink all("all");
    NotifySink created("created");
    replay.Subscribe(all, "watched", kAllKinds, true);
    replay.Subscribe(all, "other", kAllKinds, false);
    // Not recursive, yet it hears of deeper paths once some rule lets them through.
    replay.Subscribe(created, "watched", kNotifyCreate, false);
    const std::vector<std::string> expected = {
        "all 256 T/watched/new1", "created 256 T/watched/new1",  // touch new file
        "all 2 T/watched/existing",                               // append from bash
        "all 4 T/watched/existing",                               // touch of an existing file
        "all 256 T/watched/rel1", "created 256 T/watched/rel1",  // relative create
        "all 256 T/watched/viaopen", "created 256 T/watched/viaopen",  // open(O_CREAT)
        "all 2 T/watched/existing",                               // open for writing
        "all 4 T/watched/new1",                                   // chmod to a new mode (not the same one)
        "all 4 T/watched/new1",                                   // chown 1000:1000 (not -1 -1)
        "all 256 T/watched/dir1 dir", "created 256 T/watched/dir1 dir",  // mkdir
        "all 256 T/watched/dir1/inner", "created 256 T/watched/dir1/inner",
        "all 192 T/watched/new1 -> T/watched/new1.renamed",       // rename within a directory
        "all 64 T/watched/rel1 -> T/other/rel1.moved", "all 128 T/other/rel1.moved",  // across watches
        "all 64 T/watched/viaopen -> T/outside/viaopen",          // out of view
        "all 128 T/watched/incoming",                             // into view
        "all 192 T/watched/incoming -> T/watched/incoming2",      // renameat
        "all 192 T/watched/incoming2 -> T/watched/incoming3",     // mv (renameat2)
        "all 256 T/watched/hardlink", "created 256 T/watched/hardlink",
        "all 256 T/watched/symlink", "created 256 T/watched/symlink",
        "all 512 T/watched/existing",  // unlink of the hard link: the first path of its inode
        "all 512 T/watched/symlink",
        // A name the kernel wrote in hex stays hex.
        "all 256 T/watched/2F746D702F66782F776174636865642F77697468207370616365",
        "created 256 T/watched/2F746D702F66782F776174636865642F77697468207370616365",
        "all 512 T/watched/dir1/inner", "all 512 T/watched/dir1 dir",  // rm -r
        "all 2 T/watched/sub/deep",
        "all 256 T/watched/i386file", "created 256 T/watched/i386file",
        "all 4 T/watched/i386file",  // chmod through int 0x80 (i386 numbering)
    };
    TestSupport::LogCapture capture(Poco::Message::PRIO_DEBUG);
    EXPECT_EQ(replay.Run({&all, &created}), expected);
    const std::vector<std::string> logged = capture.channel().Texts();
    const auto has = [&](const std::string& text) { return std::find(logged.begin(), logged.end(), text) != logged.end(); };
    EXPECT_TRUE(has("old attr is 33152, new attr is 33188")) << "chmod 600 of a 0644 file: the new mode first";
    EXPECT_TRUE(has("new dir  " + replay.Root() + "/watched/dir1"));
    EXPECT_TRUE(has("new file " + replay.Root() + "/watched/new1"));
    for (const char* text : {"type=fchmodat", "a1=56498ea95c20", "a2=180", "type=chown", "a3=7ff9798e55e8", "type=openat"}) {
        EXPECT_TRUE(has(text)) << text;
    }

    const AuditEventResult* chmod = FindResult(replay.Results(), kNotifyAttrib, "/new1");
    ASSERT_NE(chmod, nullptr);
    EXPECT_EQ(chmod->extra.at("access"), std::to_string(0100600));
    EXPECT_EQ(chmod->extra.at("oaccess"), std::to_string(0100644));
    EXPECT_EQ(chmod->extra.at("syscall"), "268") << "the SYSCALL record travels along";
    const AuditEventResult* chown = &*std::find_if(replay.Results().rbegin(), replay.Results().rend(),
                                                    [](const AuditEventResult& r) { return r.extra.count("cuid") > 0; });
    EXPECT_EQ(chown->extra.at("ouid"), "0");
    EXPECT_EQ(chown->extra.at("cuid"), "1000");
    EXPECT_EQ(chown->extra.at("cgid"), "1000");
}

namespace {

// One event as the kernel would log it: a SYSCALL record (items = the PATH records given), a CWD,
// and PATH records given as "name=... inode=... mode=... nametype=..." (dev fe:00 added).
std::shared_ptr<AuditEvent> Synthetic(int syscall, const std::string& args, const std::string& comm,
                                      const std::vector<std::string>& paths, const std::string& arch = "c000003e",
                                      const std::string& success = "yes")
{
    static unsigned serial = 0;
    const std::string stamp = "msg=audit(1795311540.000:" + std::to_string(++serial) + "): ";
    std::vector<std::string> lines{"type=SYSCALL " + stamp + "arch=" + arch + " syscall=" + std::to_string(syscall) +
                                   " success=" + success + " exit=0 a0=ffffff9c " + args + " items=" +
                                   std::to_string(paths.size()) + " ppid=1 pid=2 uid=0 comm=\"" + comm +
                                   "\" exe=\"/usr/bin/" + comm + "\" key=\"k\"",
                                   "type=CWD " + stamp + "cwd=\"/\""};
    for (size_t i = 0; i < paths.size(); ++i) {
        lines.push_back("type=PATH " + stamp + "item=" + std::to_string(i) + " " + paths[i] + " dev=fe:00 ouid=0 ogid=0");
    }
    return TestSupport::DecodeEvent(lines);
}

// The notifications of one event, as "kind path[ -> dest][ dir]" with the directory root written as W.
std::vector<std::string> Notify(FileAuditWatch& watch, NotifySink& sink, const std::shared_ptr<AuditEvent>& event,
                                const std::string& root)
{
    AuditEventMessage msg;
    msg.event = event;
    watch.CheckMessageInfo(msg);
    sink.BulkConsumeMsg(64);
    std::vector<std::string> out;
    const auto shorten = [&](const std::string& p) { return p.compare(0, root.size(), root) == 0 ? "W" + p.substr(root.size()) : p; };
    for (const AuditEventResult& r : std::exchange(sink.results, {})) {
        out.push_back(std::to_string(r.event) + " " + shorten(r.path) + (r.destPath.empty() ? "" : " -> " + shorten(r.destPath)) +
                      (r.isDir ? " dir" : ""));
    }
    return out;
}

}  // namespace

// The entries of the handler table that no capture reaches, and each handler's conditions: which
// name a notification carries (the index's, by inode, or the record's), and when nothing is said.
TEST(FileWatchEvents, EachCallNamesItsEntryAsItsHandlerRequires)
{
    TestSupport::TempDir dir;
    const std::string w = dir.path();
    FileAuditWatch watch;
    ASSERT_TRUE(watch.InitFileWatchLock());
    NotifySink sink("sink");
    FileNotifyRule rule = Rule(w, true);
    rule.mask = kAllKinds;
    rule.task = &sink;
    watch.AddFileNotifyRule(rule);
    watch.Index().Set(w + "/a", InodeInfo{100, false, 0xfe00});  // the index knows the file as a
    watch.Index().Set(w + "/d", InodeInfo{200, true, 0xfe00});
    const std::string b = "name=\"" + w + "/b\" inode=100 mode=0100644 nametype=NORMAL";  // its second name
    const std::string parent = "name=\"" + w + "\" inode=1 mode=040755 nametype=PARENT";
    using V = std::vector<std::string>;
    struct Case {
        const char* what;
        std::shared_ptr<AuditEvent> event;
        V expected;
    };
    const Case cases[] = {
        {"openat for writing: named by inode", Synthetic(257, "a1=0 a2=1 a3=0", "cat", {b}), {"2 W/a"}},
        {"open for writing: named by inode", Synthetic(2, "a1=1 a2=0 a3=0", "cat", {b}), {"2 W/a"}},
        {"open by touch: the record's name", Synthetic(2, "a1=1 a2=0 a3=0", "touch", {b}), {"4 W/b"}},
        {"an inode the index does not know", Synthetic(257, "a1=0 a2=1 a3=0", "cat", {"name=\"" + w + "/x\" inode=9 mode=0100644 nametype=NORMAL"}), {}},
        {"openat read-only", Synthetic(257, "a1=0 a2=0 a3=0", "cat", {b}), {}},
        {"openat O_CREAT with three items", Synthetic(257, "a1=0 a2=41 a3=0", "cat", {parent, b, b}), {}},
        {"chmod: named by inode", Synthetic(90, "a1=1ed a2=0 a3=0", "chmod", {b}), {"4 W/a"}},
        {"lchown of the owner", Synthetic(94, "a1=3e8 a2=ffffffff a3=0", "chown", {b}), {"4 W/a"}},
        {"fchownat with two items", Synthetic(260, "a1=0 a2=3e8 a3=3e8", "chown", {parent, b}), {}},
        {"mkdirat", Synthetic(258, "a1=0 a2=1ff a3=0", "mkdir", {parent, "name=\"" + w + "/n\" inode=7 mode=040755 nametype=CREATE"}), {"256 W/n"}},
        {"mkdir with three items", Synthetic(83, "a1=1ff a2=0 a3=0", "mkdir", {parent, parent, parent}), {}},
        {"symlink", Synthetic(88, "a1=0 a2=0 a3=0", "ln", {parent, "name=\"/t\" nametype=UNKNOWN", "name=\"" + w + "/s\" inode=8 mode=0120777 nametype=CREATE"}), {"256 W/s"}},
        {"rename with too few records", Synthetic(82, "a1=0 a2=0 a3=0", "mv", {parent, b}), {}},
        {"unlinkat of a directory: named by inode", Synthetic(263, "a1=0 a2=200 a3=0", "rm", {parent, "name=\"" + w + "/gone\" inode=200 mode=040755 nametype=DELETE"}), {"512 W/d dir"}},
        {"a failed rmdir", Synthetic(84, "a1=0 a2=0 a3=0", "rmdir", {parent, "name=\"" + w + "/a\" inode=100 mode=040755 nametype=DELETE"}, "c000003e", "no"), {}},
        {"utimensat: not a call of the table", Synthetic(280, "a1=0 a2=0 a3=0", "touch", {b}), {}},
        {"chmod numbered for i386", Synthetic(15, "a1=1ed a2=0 a3=0", "chmod", {b}, "40000003"), {"4 W/a"}},
        {"the same number on x86_64 (rt_sigreturn)", Synthetic(15, "a1=1ed a2=0 a3=0", "chmod", {b}), {}},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(Notify(watch, sink, c.event, w), c.expected) << c.what;
    }
}

// The index follows what the notifications say happened, on a real tree.
TEST(FileWatchEvents, TheIndexFollowsCreatesMovesAndDeletes)
{
    TestSupport::TempDir dir;
    const std::string w = dir.path() + "/w";
    SDK::DirUtils::CreateDirs(w);
    dir.Write("out/t/c", "x");
    FileAuditWatch watch;
    ASSERT_TRUE(watch.InitFileWatchLock());
    NotifySink sink("sink");
    FileNotifyRule rule = Rule(w, true);
    rule.mask = kAllKinds;
    rule.task = &sink;
    watch.AddFileNotifyRule(rule);
    watch.RecordInodeInfo(w);
    const auto inode = [](const std::string& path) {
        struct stat st {};
        stat(path.c_str(), &st);
        return "inode=" + std::to_string(st.st_ino);
    };
    const auto record = [](const std::string& path, const std::string& inodeText, const char* type, const char* mode = "0100644") {
        return "name=\"" + path + "\" " + inodeText + " mode=" + mode + " nametype=" + type;
    };
    const std::string parent = record(w, inode(w), "PARENT", "040755");
    const auto known = [&] {
        std::vector<std::string> paths;
        for (const auto& [path, info] : watch.Index().Entries()) {
            paths.push_back((path.compare(0, w.size(), w) == 0 ? "W" + path.substr(w.size()) : path) + (info.isDir ? "/" : ""));
        }
        return paths;
    };
    using V = std::vector<std::string>;

    dir.Write("w/f", "x");
    EXPECT_EQ(Notify(watch, sink, Synthetic(257, "a1=0 a2=41 a3=1a4", "touch", {parent, record(w + "/f", inode(w + "/f"), "CREATE")}), w),
              V{"256 W/f"});
    EXPECT_EQ(known(), (V{"W/", "W/f"}));

    const std::string f = inode(w + "/f");
    ASSERT_EQ(std::rename((w + "/f").c_str(), (w + "/g").c_str()), 0);
    EXPECT_EQ(Notify(watch, sink, Synthetic(82, "a1=0 a2=0 a3=0", "mv", {parent, parent, record(w + "/f", f, "DELETE"), record(w + "/g", f, "CREATE")}), w),
              V{"192 W/f -> W/g"});
    EXPECT_EQ(known(), (V{"W/", "W/g"}));

    const std::string t = inode(dir.path() + "/out/t");
    const std::string out = record(dir.path() + "/out", inode(dir.path() + "/out"), "PARENT", "040755");
    ASSERT_EQ(std::rename((dir.path() + "/out/t").c_str(), (w + "/t").c_str()), 0);
    EXPECT_EQ(Notify(watch, sink, Synthetic(82, "a1=0 a2=0 a3=0", "mv", {out, parent, record(dir.path() + "/out/t", t, "DELETE", "040755"), record(w + "/t", t, "CREATE", "040755")}), w),
              V{"128 W/t dir"});
    EXPECT_EQ(known(), (V{"W/", "W/g", "W/t/", "W/t/c"})) << "a directory moved into view brings its tree";

    std::system(("rm -r " + w + "/t").c_str());
    EXPECT_EQ(Notify(watch, sink, Synthetic(263, "a1=0 a2=200 a3=0", "rm", {parent, record(w + "/t", t, "DELETE", "040755")}), w),
              V{"512 W/t dir"});
    EXPECT_EQ(known(), (V{"W/", "W/g"}));
}

// tests/fixtures/capture.sh's filewatch scenario: ln, ln -s, mkdir, mv of a directory, rmdir,
// open and creat with O_CREAT, a failed unlink, chmod, and a chown of the group alone.
TEST(FileWatchEvents, TheNewerCallsOfTodaysToolsGoToTheHandlersTheyGeneralise)
{
    Replay replay("kernel-6.18-filewatch.log", "/tmp/hwcap.yDCuKw", {"watched"});
    NotifySink sink("sink");
    replay.Subscribe(sink, "watched", kAllKinds, false);
    const std::vector<std::string> expected = {
        "sink 256 T/watched/hard",              // linkat
        "sink 256 T/watched/soft",              // symlinkat
        "sink 256 T/watched/d dir",             // mkdir
        "sink 192 T/watched/d -> T/watched/d2 dir",  // renameat2
        "sink 512 T/watched/d2 dir",            // rmdir
        "sink 256 T/watched/viacreat",          // openat(O_CREAT)
        "sink 256 T/watched/creat2",            // creat
        "sink 4 T/watched/existing",            // chmod 640
        "sink 4 T/watched/existing",            // chown 0:1
    };
    EXPECT_EQ(replay.Run({&sink}), expected);
    const AuditEventResult& chown = replay.Results().back();
    EXPECT_EQ(chown.extra.count("cuid"), 0U) << "the owner stayed";
    EXPECT_EQ(chown.extra.at("ogid"), "0");
    EXPECT_EQ(chown.extra.at("cgid"), "1");
}

namespace {

// Stands in for "audit_task": records the control messages that reach it.
class AuditTaskDouble : public Framework::Task,
                        public AbstructMessage<AuditFileSystemCtrlMessage>::Receiver,
                        public AbstructMessage<AuditUnsubscribeMessage>::Receiver {
public:
    AuditTaskDouble() : Framework::Task(kAuditTaskName, "test", Framework::TaskCondition::kLoop, 64) {}
    int Receive(const AuditFileSystemCtrlMessage& msg) override
    {
        const _FileNotifyOpt defaults;
        const bool plain = msg.path.empty() && msg.events == 0 && !msg.unwatch && !msg.opt.recursive && msg.opt.flag7 &&
                           msg.opt.list2.empty() && msg.opt.count == defaults.count;
        seen.push_back(msg.operate + " " + msg.rule + " tag=" + msg.tag + " from=" + SenderName(msg.sender) +
                       (plain ? "" : " (with the subscriber's fields)"));
        return 0;
    }
    int Receive(const AuditUnsubscribeMessage& msg) override
    {
        seen.push_back("unsubscribe from=" + SenderName(msg.sender));
        return 0;
    }
    std::vector<std::string> Take()
    {
        BulkConsumeMsg(64);
        return std::exchange(seen, {});
    }
    std::vector<std::string> seen;
};

}  // namespace

TEST(FileWatchTask, AsksTheAuditTaskForEachNewWatchAndEachRemovalOfAHeldOne)
{
    Framework::TaskRegistry registry;
    AuditTaskDouble audit;
    registry.Add(&audit);
    FileWatchAuditTask task;
    EXPECT_EQ(task.GetName(), "filewatch_audit_task");
    EXPECT_EQ(task.GetFeatureName(), "audit_feature");
    EXPECT_EQ(task.GetTaskType(), 4);
    EXPECT_EQ(task.QueueCapacity(), 1024U);
    task.AttachRegistry(&registry);
    TestSupport::LogCapture lifecycle(Poco::Message::PRIO_INFORMATION);
    ASSERT_EQ(task.Init(), 0);
    EXPECT_TRUE(lifecycle.channel().Has("Init task(filewatch_audit_task)."));
    TestSupport::TempDir dir;
    dir.Write("f", "x");
    NamedTask one("one_task");
    NamedTask two("two_task");
    const std::string wa = dir.path() + " -p wa tag=submodule from=filewatch_audit_task";

    EXPECT_EQ(task.Receive(WatchMessage(&one, dir.path(), kNotifyCreate, true)), 0);
    EXPECT_EQ(task.Receive(WatchMessage(&one, dir.path(), kNotifyCreate, true)), 0);
    EXPECT_EQ(audit.Take(), std::vector<std::string>{"-w " + wa}) << "the same rule of one task goes once";
    EXPECT_EQ(task.Watch().Index().size(), 2U) << "the tree is indexed";
    task.Receive(WatchMessage(&two, dir.path(), kNotifyCreate, true));
    EXPECT_EQ(audit.Take(), std::vector<std::string>{"-w " + wa}) << "another task's rule is its own";

    task.Receive(WatchMessage(&one, dir.path(), kNotifyDelete, true, true));
    EXPECT_TRUE(audit.Take().empty()) << "no such rule: nothing to remove";
    task.Receive(WatchMessage(&two, dir.path(), kNotifyCreate, true, true));
    EXPECT_EQ(audit.Take(), std::vector<std::string>{"-W " + wa});
    EXPECT_EQ(task.Watch().Index().size(), 2U) << "a removal leaves the index as it is";
    EXPECT_FALSE(task.Watch().Rules()[0].valid) << "the first identical rule went, though task one held it";

    lifecycle.channel().Clear();
    EXPECT_EQ(task.Receive(WatchMessage(nullptr, dir.path(), kNotifyCreate, true)), 2);
    EXPECT_EQ(task.Receive(AuditUnsubscribeMessage(nullptr)), 2);
    EXPECT_TRUE(audit.Take().empty()) << "messages without a sender change nothing";
    EXPECT_EQ(lifecycle.channel().Texts().size(), 2U);

    EXPECT_EQ(task.Receive(AuditUnsubscribeMessage(&two)), 0);
    EXPECT_EQ(audit.Take(), std::vector<std::string>{"unsubscribe from=filewatch_audit_task"});
    EXPECT_TRUE(task.Watch().Rules()[1].valid) << "the watch's own rules stay";
    task.UnInit();
    EXPECT_EQ(audit.Take(), std::vector<std::string>{"unsubscribe from=filewatch_audit_task"});
    EXPECT_TRUE(lifecycle.channel().Has("Uninit task(filewatch_audit_task)."));
}

namespace {

class BothTasks : public Framework::Module {
public:
    BothTasks(AuditTask* audit, FileWatchAuditTask* fileWatch)
        : Framework::Module("both_tasks"), audit_(audit), fileWatch_(fileWatch) {}
    int Init() override { return RegisterTask(audit_, true) == 0 && RegisterTask(fileWatch_, true) == 0 ? 0 : -1; }

private:
    AuditTask* audit_;
    FileWatchAuditTask* fileWatch_;
};

}  // namespace

// The process-wide tables are shared: the audit task looks system calls up by name (adding
// unknown names), the file-watch task by number (adding unknown numbers), and any subscriber may
// name calls on its own thread, as this test's thread does meanwhile. The thread-sanitizer build
// runs this; a table without its lock is reported.
TEST(FileWatchTask, RunsBesideTheAuditTaskOverTheSharedTables)
{
    TestSupport::FakeInstallation install;
    TestSupport::FakeAuditSystem system;
    auto* audit = new AuditTask(system.conf, &system.replies);
    auto* fileWatch = new FileWatchAuditTask;
    Framework::Engine engine;
    ASSERT_EQ(engine.AddModule(std::make_unique<BothTasks>(audit, fileWatch)), 0);
    ASSERT_EQ(engine.StartTasks(), 0);
    NamedTask sender("sender_task");
    constexpr int kRounds = 300;
    std::atomic<bool> done{false};
    std::thread reader([&] {
        while (!done.load()) {
            for (int i = 0; i < kRounds; ++i) {
                std::string name;
                syscallNumberToName64.Find(1000 + i, name);
                int32_t number = 0;
                syscallNameToNumber64.Find("nosuchcall" + std::to_string(i), number);
            }
        }
    });
    for (int i = 0; i < kRounds; ++i) {
        // Removals of rules never added: parsed and routed (by name) without running auditctl.
        auto* removal = new AuditSyscallCtrlMessage(&sender);
        removal->operate = "-d";
        removal->rule = "exit,always -F arch=b64 -S nosuchcall" + std::to_string(i) + ",chmod -F a1=" + std::to_string(i);
        audit->PostMsg(removal);
        auto* event = new AuditEventMessage;
        event->event = TestSupport::DecodeEvent(
            {"type=SYSCALL msg=audit(1.000:" + std::to_string(i) + "): arch=" + (i % 2 ? "c000003e" : "40000003") +
                 " syscall=" + std::to_string(1000 + i) + " success=yes exit=0 a0=0 a1=0 a2=0 a3=0 items=1 ppid=1 pid=2 "
                 "comm=\"x\" exe=\"/x\" key=(null)",
             "type=CWD msg=audit(1.000:" + std::to_string(i) + "): cwd=\"/\"",
             "type=PATH msg=audit(1.000:" + std::to_string(i) + "): item=0 name=\"/x\" nametype=NORMAL"});
        fileWatch->PostMsg(event);
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while ((audit->PendingCount() > 0 || fileWatch->PendingCount() > 0) && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));  // polling a condition, with a deadline
    }
    engine.StopAll();
    done = true;
    reader.join();
    EXPECT_EQ(syscallNumberToName64.count(1000 + kRounds - 1), 1U) << "the file-watch task added the number";
    EXPECT_EQ(syscallNameToNumber64.count("nosuchcall" + std::to_string(kRounds - 1)), 1U);
    for (int i = 0; i < kRounds; ++i) {
        syscallNumberToName64.erase(1000 + i);
        syscallNumberToName32.erase(1000 + i);
        syscallNameToNumber64.erase("nosuchcall" + std::to_string(i));
    }
}
