// The file-watch engine (rules, inode index, path tests, each handler's notifications) and its task.
#include "FileAuditWatch.h"
#include "FileWatchAuditTask.h"

#include "AuditConstants.h"
#include "SyscallTables.h"

#include "framework/TaskRegistry.h"
#include "sdk/StrUtils.h"

#include "TestSupport.h"

#include <sys/sysmacros.h>

#include <random>
#include <linux/fs.h>
#include <sys/syscall.h>
#include <fcntl.h>
#include <thread>
#include <atomic>

using namespace Engine;
using TestSupport::NamedTask;
using TestSupport::Subscriber;
using Notes = std::vector<std::string>;

namespace {

constexpr uint32_t kAllKinds = kNotifyModify | kNotifyAttrib | kNotifyMove | kNotifyCreate | kNotifyDelete;

AuditFileSystemCtrlMessage WatchMessage(Framework::Task* sender, const std::string& path, uint32_t events,
                                        bool recursive, bool unwatch = false)
{
    _FileNotifyOpt opt;
    opt.recursive = recursive;
    opt.flag6 = unwatch;
    return AuditFileSystemCtrlMessage(sender, path, {events}, opt);
}

FileNotifyRule Rule(const std::string& path, bool recursive, uint32_t mask = kNotifyCreate, Framework::Task* task = nullptr)
{
    return FileNotifyRule{path, mask, recursive, "", true, 0, task};
}

// The notifications sink received since the last call, as "kind path[ -> dest][ dir]" (the kind by
// name) with root
// written as W.
Notes Take(Subscriber& sink, const std::string& root)
{
    sink.Drain();
    const auto shorten = [&](const std::string& p) { return p.compare(0, root.size(), root) == 0 ? "W" + p.substr(root.size()) : p; };
    Notes out;
    for (const AuditEventResult& r : std::exchange(sink.notifications, {})) {
        const char* kind = FileNotifyKindName(static_cast<uint32_t>(r.event));
        out.push_back((kind != nullptr ? kind : std::to_string(r.event)) + " " + shorten(r.path) +
                      (r.destPath.empty() ? "" : " -> " + shorten(r.destPath)) + (r.isDir ? " dir" : ""));
    }
    return out;
}

}  // namespace

TEST(FileWatchRules, IdsReuseFreedSlotsAndOnlyTheSameTaskIsRefusedTwice)
{
    FileAuditWatch watch;
    EXPECT_EQ(watch.AddFileNotifyRule(Rule("/a", false)), 0U) << "no rule lock yet";
    ASSERT_TRUE(watch.InitFileWatchLock());
    for (const char* path : {"/a", "/b", "/c"}) {
        const uint32_t id = watch.AddFileNotifyRule(Rule(path, false));
        EXPECT_EQ(id, watch.Rules().size()) << "an id is its slot + 1";
    }
    for (const uint32_t id : {2, 0, 9}) {
        watch.RmFileNotifyRule(id);
    }
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
    std::vector<FileNotifyRule> rules = watch.Rules();
    EXPECT_TRUE(!rules[3].valid && rules[3].path.empty());
    EXPECT_TRUE(rules[5].valid && rules[5].task == &two);
    // A rule placed in a freed slot is found and removed by that slot's id, not a neighbour's.
    EXPECT_EQ(watch.AddFileWatch(WatchMessage(&two, "/v", 2, true)), 4U);
    EXPECT_EQ(watch.RmFileWatch(WatchMessage(&two, "/v", 2, true)), 4U);
    rules = watch.Rules();
    EXPECT_TRUE(!rules[3].valid && rules[4].valid && rules[5].valid);
}

TEST(FileWatchPaths, CoverageFollowsTheRecursiveFlagAndWholeNames)
{
    const std::tuple<const char*, bool, const char*, bool> cases[] = {
        {"/etc", false, "/etc", true},          {"/etc", false, "/etc/passwd", true}, {"/etc", false, "/etc/ssh/sshd_config", false},
        {"/etc", true, "/etc/ssh/sshd_config", true}, {"/etc", true, "/etcd", false},   {"/etc", false, "/etcd", false},
        {"/opt/", false, "/opt/x", false},      {"/opt/", true, "/opt/x/y", true},    {"/opt/", true, "/opt", false}};
    for (const auto& [rule, recursive, path, covered] : cases) {
        FileAuditWatch watch;
        ASSERT_TRUE(watch.InitFileWatchLock());
        watch.AddFileNotifyRule(Rule(rule, recursive));
        EXPECT_EQ(watch.CheckFileRecursiveEx(path), covered) << rule << (recursive ? " (recursive) " : " ") << path;
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
    EXPECT_EQ(path + " " + dest, "/tmp/x /tmp/y");
    std::string empty;
    FileAuditWatch::GetAbsPath(path = "x", empty, "/tmp");
    EXPECT_EQ(path, "x") << "nothing changes unless both are given";
    // Audit device texts: NVMe disks have major 259, written with three digits; overlay and btrfs
    // have minors past 0xff.
    const std::pair<const char*, unsigned long> devices[] = {
        {"fd:01", 0xfd01UL}, {"fe:00", 0xfe00UL}, {"8", 0}, {"08", 0}, {"103:02", makedev(259, 2)}, {"00:1a3", makedev(0, 0x1a3)}};
    for (const auto& [text, dev] : devices) {
        EXPECT_EQ(FileAuditWatch::GetDevFromStr(text), dev) << text;
    }
}

// The index holds what the rules say it holds, and the second index names exactly what the scan
// in path order names, whatever happened (names chosen so that '/' and the bytes around it decide
// the order: "/w/a/b" sorts after "/w/a-b" and before "/w/a0").
TEST(FileWatchIndex, ChangesKeepToTheRulesAndTheInodeLookupAgreesWithTheScan)
{
    const char* names[] = {"/w", "/w/a", "/w/a/b", "/w/b", "/w/ab", "/w/a/c", "/x", "/w/a-b", "/w/a0", "/w/a/b/c", "/"};
    std::mt19937_64 next(20261122);
    InodeIndex index;
    std::map<std::string, uint64_t> model;  // path to inode, kept with the rules themselves
    for (int round = 0; round < 5000; ++round) {
        const std::string path = names[next() % std::size(names)];
        const uint64_t action = next() % 4;
        if (action < 2) {
            const InodeInfo info{next() % 4, next() % 2 == 0, next() % 2};
            index.Set(path, info);
            model[path] = info.inode * 2 + info.dev;
        } else if (action == 2) {
            index.Erase(path);
            model.erase(path);
        } else {
            index.EraseBelow(path);
            for (auto it = model.begin(); it != model.end();) {
                it = FileAuditWatch::IsChildFile(Rule(path, true), it->first) ? model.erase(it) : std::next(it);
            }
        }
        std::map<std::string, uint64_t> held;
        for (const auto& [key, info] : index.Entries()) {
            held[key] = info.inode * 2 + info.dev;
        }
        ASSERT_EQ(held, model) << "round " << round;
        ASSERT_EQ(index.size(), model.size());
        for (uint64_t inode = 0; inode < 8; ++inode) {
            ASSERT_EQ(index.PathOf(inode / 2, inode % 2), index.PathOfByScan(inode / 2, inode % 2)) << "round " << round;
        }
    }
}

// A watched tree holds at most its set number of entries; the first refusal names the watch, and
// it is named again only after it has had room again. Paths are one however their slashes fall.
TEST(FileWatchIndex, AWatchHoldsAtMostItsEntriesAndNamesItselfOnceWhenFull)
{
    InodeIndex index;
    index.SetMaxEntriesPerRoot(3);
    index.AddRoot("/w/");
    std::string full;
    const auto set = [&](const char* path) {
        const bool added = index.Set(path, InodeInfo{7, false, 1}, &full);
        return std::string(added ? "added" : "refused") + (full.empty() ? "" : " naming " + full);
    };
    EXPECT_EQ(set("/w"), "added") << "the watched path itself is not counted";
    EXPECT_EQ(set("/w/a"), "added");
    EXPECT_EQ(set("/w/sub/b"), "added");
    EXPECT_EQ(set("/w/sub"), "added");
    EXPECT_EQ(set("/w/c"), "refused naming /w");
    EXPECT_EQ(set("/w/sub/d"), "refused") << "named once";
    EXPECT_EQ(set("/w/a"), "added") << "a known entry may change";
    EXPECT_EQ(set("/x/y"), "added") << "outside the watch";
    EXPECT_TRUE(index.Full("/w/anything") && !index.Full("/x/z"));
    index.EraseBelow("/w/sub");
    EXPECT_EQ(set("/w/c"), "added");
    EXPECT_EQ(set("/w//d/"), "refused naming /w") << "full again after having had room";
    index.RemoveRoot("/w");
    EXPECT_EQ(set("/w/d"), "added") << "no longer a watch";
    EXPECT_EQ(index.size(), 6U);
    ASSERT_NE(index.Find("/w//d/"), nullptr);
    EXPECT_EQ(index.PathOf(7, 1), "/w") << "the first of the hard links in byte order";
    EXPECT_EQ(InodeIndex::Canonical("//w//d/") + " " + InodeIndex::Canonical("/"), "/w/d /");

    // A watch whose tree emptied (its directory not even an entry) stays a watch with its bound.
    InodeIndex emptied;
    emptied.SetMaxEntriesPerRoot(1);
    emptied.AddRoot("/v");
    ASSERT_TRUE(emptied.Set("/v/a", InodeInfo{8, false, 1}));
    ASSERT_TRUE(emptied.Erase("/v/a"));
    EXPECT_TRUE(emptied.Set("/v/b", InodeInfo{9, false, 1}));
    EXPECT_FALSE(emptied.Set("/v/c", InodeInfo{10, false, 1}));
}

namespace {

// One event as the kernel would log it: a SYSCALL record (items = the PATH records given), a CWD,
// and PATH records given as "name=... inode=... mode=... nametype=..." (dev fe:00 added).
std::shared_ptr<AuditEvent> Synthetic(int syscall, const std::string& args, const std::string& comm,
                                      const std::vector<std::string>& paths, const std::string& arch = "c000003e",
                                      const std::string& success = "yes", const std::string& oflag = "")
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
    if (!oflag.empty()) {  // openat2's flags, as the kernel writes its open_how
        lines.push_back("type=OPENAT2 " + stamp + "oflag=" + oflag + " mode=00 resolve=0x0");
    }
    return TestSupport::DecodeEvent(lines);
}

// The notifications of one event.
Notes Notify(FileAuditWatch& watch, Subscriber& sink, const std::shared_ptr<AuditEvent>& event, const std::string& root)
{
    AuditEventMessage msg;
    msg.event = event;
    watch.CheckMessageInfo(msg);
    return Take(sink, root);
}

// A PATH record's fields; a name with a blank is written in hex, as the kernel writes it.
std::string Record(const std::string& path, const std::string& inode, const std::string& type, const std::string& mode = "0100644",
                   const std::string& dev = "")
{
    std::string name = "\"" + path + "\"";
    if (path.find(' ') != std::string::npos) {
        name.clear();
        for (const unsigned char c : path) {
            name += "0123456789ABCDEF"[c >> 4];
            name += "0123456789ABCDEF"[c & 15];
        }
    }
    return "name=" + name + " inode=" + inode + " mode=" + mode + " nametype=" + type + (dev.empty() ? "" : " dev=" + dev);
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
    Subscriber sink("sink");
    watch.AddFileNotifyRule(Rule(w, true, kAllKinds, &sink));
    Subscriber flat("flat");  // not recursive, yet it hears of deeper paths once some rule lets them through
    watch.AddFileNotifyRule(Rule(w, false, kNotifyCreate, &flat));
    watch.Index().Set(w + "/a", InodeInfo{100, false, 0xfe00});  // the index knows the file as a, and c
    watch.Index().Set(w + "/c", InodeInfo{100, false, 0xfe00});
    watch.Index().Set(w + "/d", InodeInfo{200, true, 0xfe00});
    watch.Index().Set(w, InodeInfo{1, true, 0xfe00});
    for (const auto& [name, inode] : {std::pair<const char*, uint64_t>{"/t", 300}, {"/conf", 400}, {"/other", 500}}) {
        watch.Index().Set(w + name, InodeInfo{inode, false, 0xfe00});
    }
    ASSERT_EQ(mkdir((w + "/e").c_str(), 0755), 0);  // a path resolves only as far as the disk has it
    ASSERT_EQ(mkdir((w + "/d2").c_str(), 0755), 0);
    ASSERT_EQ(symlink("/tmp", (w + "/ln").c_str()), 0);
    const std::string b = Record(w + "/b", "100", "NORMAL");
    TestSupport::LogCapture capture(Poco::Message::PRIO_DEBUG);
    for (std::vector<std::string> row : TestSupport::TableRows("native_module/module_audit/tests/tables/filewatch-calls.txt")) {
        row.resize(6);
        std::vector<std::string> records;
        for (const std::string& item : SDK::StrUtils::Split(row[3], " ")) {
            std::vector<std::string> f = SDK::StrUtils::Split(item, ":");
            f.resize(5);
            std::string path = f[0].rfind("W", 0) == 0 ? w + f[0].substr(1) : f[0];
            std::replace(path.begin(), path.end(), '+', ' ');
            std::replace(f[4].begin(), f[4].end(), '.', ':');
            records.push_back(item == "b"        ? b
                              : item == "parent" ? Record(w, "1", "PARENT", "040755")
                              : f[1].empty()     ? "name=\"" + path + "\" nametype=" + f[2]
                                                 : Record(path, f[1], f[2], f[3].empty() ? "0100644" : f[3], f[4]));
        }
        const std::vector<std::string> call = SDK::StrUtils::Split(row[0], " ");
        const auto option = [&](const std::string& name, const std::string& otherwise) {
            for (size_t i = 1; i < call.size(); ++i) {
                if (call[i].rfind(name, 0) == 0) {
                    return call[i].substr(name.size());
                }
            }
            return otherwise;
        };
        const std::vector<std::string> a = SDK::StrUtils::Split(row[1], " ");
        const bool i386 = option("arch=", "c000003e") != "c000003e";
        int32_t number = -1;
        ASSERT_TRUE((i386 ? syscallNameToNumber32 : syscallNameToNumber64).Find(call[0], number)) << call[0];
        const auto event = Synthetic(number, "a1=" + a.at(0) + " a2=" + a.at(1) + " a3=" + a.at(2), row[2], records,
                                     option("arch=", "c000003e"), option("success=", "yes"), option("oflag=", ""));
        EXPECT_EQ(Notify(watch, sink, event, w), row[4].empty() ? Notes{} : SDK::StrUtils::Split(row[4], "; ")) << row[0] << ": " << row[5];
    }
    EXPECT_EQ(Take(flat, w), (Notes{"create W/n", "create W/e/deep", "create W/s", "create W/x", "create W/evil job", "create W/ln", "create W/hl", "create W/fifo", "create W/q"}));
    for (const char* text : {"old attr is 33261, new attr is 33188", "type=chmod", "a1=1ed"}) {  // the new mode first
        EXPECT_TRUE(capture.channel().Has(text)) << text;
    }
    EXPECT_TRUE(capture.channel().Has("new dir  " + w + "/n"));

    // What a change of mode or owner says besides.
    AuditEventMessage msg;
    watch.Index().Set(w + "/a", InodeInfo{100, false, 0xfe00});
    msg.event = Synthetic(268, "a1=0 a2=180 a3=0", "chmod", {b});
    watch.CheckMessageInfo(msg);
    msg.event = Synthetic(92, "a1=ffffffff a2=1 a3=0", "chown", {b});
    watch.CheckMessageInfo(msg);
    sink.Drain();
    ASSERT_EQ(sink.notifications.size(), 2U);
    const auto& chmod = sink.notifications[0].extra;
    EXPECT_EQ(chmod.at("access") + " " + chmod.at("oaccess") + " " + chmod.at("syscall"), std::to_string(0100600) + " " + std::to_string(0100644) + " 268");
    const auto& chown = sink.notifications[1].extra;
    EXPECT_EQ(chown.count("cuid"), 0U) << "the owner stayed";
    EXPECT_EQ(chown.at("ogid") + " " + chown.at("cgid"), "0 1");
}

// The index follows what the notifications say happened, on a real tree: a move renames, a
// directory moved into view brings its tree, a delete takes the tree away.
TEST(FileWatchEvents, TheIndexFollowsCreatesMovesAndDeletes)
{
    TestSupport::TempDir dir;
    const std::string w = dir.path() + "/w";
    dir.Write("w/f", "x");
    dir.Write("out/t/c", "x");
    FileAuditWatch watch;
    ASSERT_TRUE(watch.InitFileWatchLock());
    Subscriber sink("sink");
    watch.AddFileNotifyRule(Rule(w, true, kAllKinds, &sink));
    watch.RecordInodeInfo(w);
    const auto record = [](const std::string& path, const char* type, const char* mode = "0100644") {
        struct stat st {};
        stat(path.c_str(), &st);
        return Record(path, std::to_string(st.st_ino), type, mode);
    };
    const auto known = [&] {
        while (watch.ScanStep(2)) {
        }
        Notes paths;
        for (const auto& [path, info] : watch.Index().Entries()) {
            paths.push_back("W" + path.substr(w.size()) + (info.isDir ? "/" : ""));
        }
        return paths;
    };
    const std::string parent = record(w, "PARENT", "040755");
    const std::string f = record(w + "/f", "DELETE");
    ASSERT_EQ(std::rename((w + "/f").c_str(), (w + "/g").c_str()), 0);
    EXPECT_EQ(Notify(watch, sink, Synthetic(82, "a1=0 a2=0 a3=0", "mv", {parent, parent, f, record(w + "/g", "CREATE")}), w),
              Notes{"move W/f -> W/g"});
    EXPECT_EQ(known(), (Notes{"W/", "W/g"}));

    const std::string from = record(dir.path() + "/out/t", "DELETE", "040755");
    ASSERT_EQ(std::rename((dir.path() + "/out/t").c_str(), (w + "/t").c_str()), 0);
    const std::string to = record(w + "/t", "CREATE", "040755");
    EXPECT_EQ(Notify(watch, sink, Synthetic(82, "a1=0 a2=0 a3=0", "mv", {record(dir.path() + "/out", "PARENT", "040755"), parent, from, to}), w),
              Notes{"moved_to W/t dir"});
    EXPECT_EQ(known(), (Notes{"W/", "W/g", "W/t/", "W/t/c"}));

    const std::string gone = record(w + "/t", "DELETE", "040755");
    std::filesystem::remove_all(w + "/t");
    EXPECT_EQ(Notify(watch, sink, Synthetic(263, "a1=0 a2=200 a3=0", "rm", {parent, gone}), w), Notes{"delete W/t dir"});
    EXPECT_EQ(known(), (Notes{"W/", "W/g"}));
}

// A link swapped in for a created file, or for a directory while the tree is walked, leads the
// watch nowhere: the create is named by itself, and the walk never records what lies outside.
TEST(FileWatchEvents, LinksSwappedInRedirectNothing)
{
    TestSupport::TempDir dir;
    const std::string w = dir.path() + "/w";
    dir.Write("w/sub/inner", "x");
    dir.Write("outside/secret", "x");
    FileAuditWatch watch;
    ASSERT_TRUE(watch.InitFileWatchLock());
    Subscriber sink("sink");
    watch.AddFileNotifyRule(Rule(w, true, kAllKinds, &sink));
    watch.AddFileNotifyRule(Rule(dir.path() + "/outside", true, kAllKinds, &sink));
    watch.RecordInodeInfo(w);
    struct stat st {};
    ASSERT_EQ(stat(w.c_str(), &st), 0);
    const std::string parent = Record(w, std::to_string(st.st_ino), "PARENT", "040755");
    // The file was created, then replaced by a link into the other watched tree before its event
    // was handled.
    ASSERT_EQ(symlink((dir.path() + "/outside/secret").c_str(), (w + "/new").c_str()), 0);
    EXPECT_EQ(Notify(watch, sink, Synthetic(257, "a1=0 a2=41 a3=0", "cat", {parent, Record("new", "9", "CREATE")}), w),
              Notes{"create W/new"});
    ASSERT_NE(watch.Index().Find(w + "/new"), nullptr);
    ASSERT_EQ(lstat((w + "/new").c_str(), &st), 0);
    EXPECT_EQ(watch.Index().Find(w + "/new")->inode, st.st_ino) << "the link itself is recorded";

    // A directory and a link to the outside tree change places over and over while the tree is
    // walked again and again.
    ASSERT_EQ(symlink((dir.path() + "/outside").c_str(), (dir.path() + "/link").c_str()), 0);
    std::atomic<bool> stop{false};
    std::thread swapper([&] {
        while (!stop) {
            syscall(SYS_renameat2, AT_FDCWD, (w + "/sub").c_str(), AT_FDCWD, (dir.path() + "/link").c_str(), RENAME_EXCHANGE);
        }
    });
    bool escaped = false;
    for (int walk = 0; walk < 3000 && !escaped; ++walk) {
        InodeIndex index;
        FileAuditWatch::RecordInodeInfoRecursive(w, index);
        escaped = index.Find(w + "/sub/secret") != nullptr;
    }
    stop = true;
    swapper.join();
    EXPECT_FALSE(escaped) << "the walk followed a link swapped in for a directory";
}

// A tree is recorded a bounded number of entries at a time, so notifications go out meanwhile;
// a watch whose tree passes its most entries sends one overflow notification naming it.
TEST(FileWatchEvents, ATreeIsRecordedInStepsAndAFullWatchSendsOneOverflow)
{
    TestSupport::TempDir dir;
    const std::string w = dir.path() + "/w";
    for (int i = 0; i < 300; ++i) {
        dir.Write("w/d" + std::to_string(i % 3) + "/f" + std::to_string(i), "");
    }
    FileAuditWatch watch;
    ASSERT_TRUE(watch.InitFileWatchLock());
    Subscriber sink("sink");
    watch.AddFileWatch(WatchMessage(&sink, w, kAllKinds, true));
    EXPECT_EQ(watch.Index().size(), 1U) << "the tree waits to be read";
    EXPECT_TRUE(watch.ScanStep(50));
    const size_t afterOne = watch.Index().size();
    EXPECT_GT(afterOne, 1U);
    EXPECT_LE(afterOne, 52U);
    struct stat st {};
    ASSERT_EQ(stat(w.c_str(), &st), 0);
    dir.Write("w/new", "");
    const std::string parent = Record(w, std::to_string(st.st_ino), "PARENT", "040755");
    EXPECT_EQ(Notify(watch, sink, Synthetic(257, "a1=0 a2=41 a3=0", "cat", {parent, Record("new", "9", "CREATE")}), w),
              Notes{"create W/new"}) << "a notification between two steps";
    while (watch.ScanStep(50)) {
    }
    EXPECT_EQ(watch.Index().size(), 305U) << "the watched directory, three below it, their files, and new";
    EXPECT_TRUE(Take(sink, w).empty());

    FileAuditWatch small;
    ASSERT_TRUE(small.InitFileWatchLock());
    small.Index().SetMaxEntriesPerRoot(100);
    small.AddFileWatch(WatchMessage(&sink, w, kNotifyCreate, true));
    while (small.ScanStep(1000)) {
    }
    EXPECT_EQ(small.Index().size(), 101U);
    EXPECT_EQ(Take(sink, w), Notes{"overflow W dir"}) << "once, naming the watch";
    EXPECT_EQ(Notify(small, sink, Synthetic(257, "a1=0 a2=41 a3=0", "cat", {parent, Record("new", "9", "CREATE")}), w),
              Notes{"create W/new"}) << "creates are still reported";

    // A tree is read 256 directories deep, however deep it goes.
    const std::string deep = dir.path() + "/deep";
    std::string below;
    for (int level = 0; level < 258; ++level) {
        below += "/d";
    }
    std::filesystem::create_directories(deep + below);
    InodeIndex index;
    FileAuditWatch::RecordInodeInfoRecursive(deep, index);
    const std::string level256 = deep + below.substr(0, 256 * 2);
    EXPECT_NE(index.Find(level256), nullptr);
    EXPECT_EQ(index.Find(level256 + "/d"), nullptr);
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
    Notes Take()
    {
        BulkConsumeMsg(64);
        return std::exchange(seen, {});
    }
    Notes seen;
};

}  // namespace

TEST(FileWatchTask, AsksTheAuditTaskForEachNewWatchAndEachRemovalOfAHeldOne)
{
    Framework::TaskRegistry registry;
    AuditTaskDouble audit;
    registry.Add(&audit);
    FileWatchAuditTask task;
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
    EXPECT_EQ(audit.Take(), Notes{"-w " + wa});
    EXPECT_EQ(task.Receive(WatchMessage(&one, dir.path(), kNotifyCreate, true)), 0);
    EXPECT_TRUE(audit.Take().empty()) << "the same rule of one task goes once";
    EXPECT_FALSE(task.Watch().ScanStep(100));
    EXPECT_EQ(task.Watch().Index().size(), 2U) << "the tree is indexed";
    task.Receive(WatchMessage(&two, dir.path(), kNotifyCreate, true));
    EXPECT_EQ(audit.Take(), Notes{"-w " + wa}) << "another task's rule is its own";

    task.Receive(WatchMessage(&one, dir.path(), kNotifyDelete, true, true));
    EXPECT_TRUE(audit.Take().empty()) << "no such rule: nothing to remove";
    task.Receive(WatchMessage(&two, dir.path(), kNotifyCreate, true, true));
    EXPECT_EQ(audit.Take(), Notes{"-W " + wa});
    EXPECT_EQ(task.Watch().Index().size(), 2U) << "a removal leaves the index as it is";
    EXPECT_FALSE(task.Watch().Rules()[0].valid) << "the first identical rule went, though task one held it";

    lifecycle.channel().Clear();
    EXPECT_EQ(task.Receive(WatchMessage(nullptr, dir.path(), kNotifyCreate, true)), 2);
    EXPECT_EQ(task.Receive(AuditUnsubscribeMessage(nullptr)), 2);
    EXPECT_TRUE(audit.Take().empty()) << "messages without a sender change nothing";
    EXPECT_EQ(lifecycle.channel().Texts().size(), 2U);

    // An unsubscribe takes the sender's rules only, and the audit watch once nobody needs it.
    task.Receive(WatchMessage(&one, dir.path(), kNotifyCreate, true));
    audit.Take();
    EXPECT_EQ(task.Receive(AuditUnsubscribeMessage(&two)), 0);
    EXPECT_TRUE(audit.Take().empty()) << "task one still watches the path";
    EXPECT_FALSE(task.Watch().Rules()[1].valid);
    EXPECT_TRUE(task.Watch().Rules()[0].valid);
    EXPECT_EQ(task.Receive(AuditUnsubscribeMessage(&one)), 0);
    EXPECT_EQ(audit.Take(), Notes{"-W " + wa});
    task.UnInit();
    EXPECT_EQ(audit.Take(), Notes{"unsubscribe from=filewatch_audit_task"});
    EXPECT_TRUE(lifecycle.channel().Has("Uninit task(filewatch_audit_task)."));
}

// Both task threads read and extend the process-wide system-call tables; under the thread
// sanitizer a table without its lock is reported.
TEST(SharedTables, AreReadAndExtendedFromSeveralThreadsAtOnce)
{
    constexpr int kRounds = 2000;
    std::thread adder([] {
        for (int i = 0; i < kRounds; ++i) {
            syscallNameToNumber64["nosuchcall" + std::to_string(i)];
            syscallNumberToName32[1000 + i];
        }
    });
    for (int i = 0; i < kRounds; ++i) {
        int32_t number = 0;
        std::string name;
        syscallNameToNumber64.Find("nosuchcall" + std::to_string(kRounds - 1 - i), number);
        syscallNumberToName32.Find(1000 + kRounds - 1 - i, name);
    }
    adder.join();
    EXPECT_EQ(syscallNameToNumber64.count("nosuchcall" + std::to_string(kRounds - 1)), 1U);
    for (int i = 0; i < kRounds; ++i) {
        syscallNameToNumber64.erase("nosuchcall" + std::to_string(i));
        syscallNumberToName32.erase(1000 + i);
    }
}
