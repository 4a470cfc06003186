#include "integrity/Baseline.h"
#include "integrity/FileFacts.h"
#include "integrity/TreeScan.h"

#include "TestCommon.h"

#include <Poco/Data/Session.h>

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>

#include <atomic>

namespace {

using Integrity::Baseline;
using Integrity::Difference;
using Integrity::FileFacts;
using Integrity::HashState;
using TestSupport::TempDir;

constexpr uint64_t kMaxHash = 64ULL << 20;

FileFacts Facts(uint32_t mode, uint64_t size, const std::string& sha = "")
{
    FileFacts f;
    f.mode = mode;
    f.inode = 7;
    f.device = 0xfd01;
    f.uid = 1000;
    f.gid = 1000;
    f.size = size;
    f.mtimeNs = 1700000000123456789;
    f.ctimeNs = 1700000000223456789;
    f.sha256 = sha;
    f.hash = sha.empty() ? HashState::kNone : HashState::kDone;
    return f;
}

// The scratch directory of the test that started this program again as nobody; empty in a
// program started as usual.
std::string NobodyScratch()
{
    const char* dir = std::getenv("HW_TEST_NOBODY_SCRATCH");
    return dir == nullptr ? std::string() : dir;
}

// Runs the current test again in a new copy of this program as nobody (65534), with scratch for
// its files: true when it passes there. (A forked copy of this process could not be trusted:
// the libraries' threads do not survive a fork.)
bool PassesAsNobody(const std::string& scratch)
{
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    const std::string filter = std::string("--gtest_filter=") + info->test_suite_name() + "." + info->name();
    const pid_t child = ::fork();
    if (child == 0) {
        ::setenv("HW_TEST_NOBODY_SCRATCH", scratch.c_str(), 1);
        if (::setresgid(65534, 65534, 65534) == 0 && ::setresuid(65534, 65534, 65534) == 0) {
            ::execl("/proc/self/exe", "integrity_tests", filter.c_str(), static_cast<char*>(nullptr));
        }
        ::_exit(127);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// A baseline in memory, opened.
struct MemoryBaseline : Baseline {
    MemoryBaseline()
    {
        std::string note;
        EXPECT_EQ(Open(":memory:", note), Opened::kCreated) << note;
    }
};

// Every difference of a scan of root, run to its end in steps of budget.
std::vector<Difference> ScanAll(Baseline& baseline, const Integrity::Root& root, bool report, size_t budget = 64)
{
    Integrity::FactsReader reader(kMaxHash);
    Integrity::TreeScan scan(root, baseline, reader, report, true);
    std::vector<Difference> found;
    while (scan.Step(budget, found)) {
    }
    return found;
}

std::map<std::string, Difference> ByPath(const std::vector<Difference>& found)
{
    std::map<std::string, Difference> map;
    for (const Difference& d : found) {
        EXPECT_TRUE(map.emplace(d.path, d).second) << "reported twice: " << d.path;
    }
    return map;
}

TEST(IntegrityFacts, DifferencesNameWhatChangedAndIgnoreADirectorysTimesAndSize)
{
    const FileFacts file = Facts(S_IFREG | 0644, 10, std::string(32, 'a'));
    struct Case {
        const char* name;
        std::function<void(FileFacts&)> change;
        std::vector<std::string> expected;
    };
    const Case cases[] = {
        {"nothing", [](FileFacts&) {}, {}},
        {"content", [](FileFacts& f) { f.sha256 = std::string(32, 'b'); }, {"content"}},
        {"content unknown after", [](FileFacts& f) { f.sha256.clear(); f.hash = HashState::kTooLarge; }, {}},
        {"write", [](FileFacts& f) { f.size = 11; f.mtimeNs += 1; f.sha256 = std::string(32, 'c'); },
         {"content", "size", "mtime"}},
        {"chmod", [](FileFacts& f) { f.mode = S_IFREG | 0600; }, {"mode"}},
        {"chown", [](FileFacts& f) { f.uid = 0; f.gid = 0; }, {"owner", "group"}},
        {"ctime only", [](FileFacts& f) { f.ctimeNs += 5; }, {}},
        {"replaced", [](FileFacts& f) { f.inode = 8; }, {"inode"}},
        {"now a link", [](FileFacts& f) { f.mode = S_IFLNK | 0644; }, {"type"}},
    };
    for (const Case& c : cases) {
        FileFacts after = file;
        c.change(after);
        std::vector<std::string> names;
        for (const char* n : Integrity::ChangeNames(Integrity::Differences(file, after))) {
            names.push_back(n);
        }
        EXPECT_EQ(names, c.expected) << c.name;
    }
    FileFacts dir = Facts(S_IFDIR | 0755, 4096);
    FileFacts grown = dir;
    grown.size = 8192;
    grown.mtimeNs += 1;
    EXPECT_EQ(Integrity::Differences(dir, grown), 0U);
    grown.mode = S_IFDIR | 0777;
    EXPECT_EQ(Integrity::Differences(dir, grown), uint32_t{Integrity::kChangedMode});

    // A recorded hash state is kept for an unchanged file unless reading again could do better.
    FileFacts recorded = file;
    EXPECT_TRUE(Integrity::HashHolds(recorded, 100));
    recorded.hash = HashState::kTooLarge;
    EXPECT_TRUE(Integrity::HashHolds(recorded, 9));
    EXPECT_FALSE(Integrity::HashHolds(recorded, 10)) << "the limit was raised";
    for (const HashState state : {HashState::kUnreadable, HashState::kUnstable}) {
        recorded.hash = state;
        EXPECT_FALSE(Integrity::HashHolds(recorded, 100));
    }
}

TEST(IntegrityFacts, HashesContentAndLinkTargetsWithoutFollowingOrOpeningSpecialFiles)
{
    TempDir dir;
    const std::string abc = dir.Write("abc", "abc");
    Integrity::FactsReader reader(kMaxHash);
    FileFacts facts;
    int error = 0;
    ASSERT_TRUE(reader.ReadPath(abc, facts, error));
    EXPECT_EQ(facts.hash, HashState::kDone);
    EXPECT_EQ(Integrity::Hex(facts.sha256), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(facts.size, 3U);

    // A link is described and its target hashed, never followed.
    ASSERT_EQ(::symlink("abc", (dir.path() + "/link").c_str()), 0);
    ASSERT_TRUE(reader.ReadPath(dir.path() + "/link", facts, error));
    EXPECT_TRUE(S_ISLNK(facts.mode));
    EXPECT_EQ(Integrity::Hex(facts.sha256), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");

    Integrity::FactsReader small(2);
    ASSERT_TRUE(small.ReadPath(abc, facts, error));
    EXPECT_EQ(facts.hash, HashState::kTooLarge);
    EXPECT_TRUE(facts.sha256.empty());

    // A FIFO without a writer would hold up a reader for ever; a device could be endless. inotify
    // sees every open of them: there must be none.
    const std::string fifo = dir.path() + "/fifo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0666), 0);
    std::vector<std::string> special{fifo};
    const std::string device = dir.path() + "/null";
    if (::mknod(device.c_str(), S_IFCHR | 0666, makedev(1, 3)) == 0) {
        special.push_back(device);
    }
    const int watch = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    for (const std::string& path : special) {
        ASSERT_GE(::inotify_add_watch(watch, path.c_str(), IN_OPEN), 0);
        ASSERT_TRUE(reader.ReadPath(path, facts, error));
        EXPECT_EQ(facts.hash, HashState::kNone) << path;
    }
    char events[4096];
    EXPECT_LT(::read(watch, events, sizeof(events)), 0) << "a special file was opened";
    ::close(watch);

    EXPECT_FALSE(reader.ReadPath(dir.path() + "/missing", facts, error));
    EXPECT_EQ(error, ENOENT);
}

TEST(IntegrityFacts, AFileItsReaderMayNotReadKeepsItsAttributesWithoutAHash)
{
    if (NobodyScratch().empty() && ::geteuid() == 0) {
        TempDir dir;
        ::chmod(dir.path().c_str(), 0755);
        dir.Write("secret", "root only", 0600);
        EXPECT_TRUE(PassesAsNobody(dir.path()));
        return;
    }
    // Here as nobody, or as an unprivileged user with a file of no permissions.
    std::unique_ptr<TempDir> own;
    std::string secret = NobodyScratch() + "/secret";
    if (NobodyScratch().empty()) {
        own = std::make_unique<TempDir>();
        secret = own->Write("secret", "root only", 0);
    }
    Integrity::FactsReader reader(kMaxHash);
    FileFacts facts;
    int error = 0;
    ASSERT_TRUE(reader.ReadPath(secret, facts, error));
    EXPECT_EQ(facts.hash, HashState::kUnreadable);
    EXPECT_EQ(facts.size, 9U);
    EXPECT_TRUE(facts.sha256.empty());
}

TEST(IntegrityFacts, AFileWrittenWhileItIsHashedIsNeverGivenAHashOfAnotherVersion)
{
    // A file that always reads longer than its size, as /proc's do: read three times, one byte
    // past its size each time, then called unstable.
    Integrity::FactsReader proc(kMaxHash);
    FileFacts procFacts;
    int procError = 0;
    ASSERT_TRUE(proc.ReadPath("/proc/self/stat", procFacts, procError)) << procError;
    EXPECT_EQ(procFacts.hash, HashState::kUnstable);
    EXPECT_EQ(proc.BytesHashed(), 3U);

    TempDir dir;
    const std::string path = dir.Write("growing", std::string(16 << 20, 'x'));
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        const int fd = ::open(path.c_str(), O_WRONLY | O_APPEND);
        ASSERT_GE(fd, 0);
        while (!stop) {
            (void)!::write(fd, "y", 1);
        }
        ::close(fd);
    });
    Integrity::FactsReader reader(kMaxHash);
    FileFacts facts;
    int error = 0;
    // The file only grows: whatever version was read, its bytes are the file's first facts.size.
    for (int i = 0; i < 5; ++i) {
        ASSERT_TRUE(reader.ReadPath(path, facts, error));
        if (facts.hash == HashState::kDone) {
            std::ifstream in(path, std::ios::binary);
            std::string prefix(facts.size, '\0');
            in.read(prefix.data(), static_cast<std::streamsize>(prefix.size()));
            unsigned char out[EVP_MAX_MD_SIZE];
            unsigned int size = 0;
            EVP_Digest(prefix.data(), prefix.size(), out, &size, EVP_sha256(), nullptr);
            EXPECT_EQ(facts.sha256, std::string(reinterpret_cast<const char*>(out), size));
        } else {
            EXPECT_EQ(facts.hash, HashState::kUnstable);
            EXPECT_TRUE(facts.sha256.empty());
        }
    }
    stop = true;
    writer.join();
    ASSERT_TRUE(reader.ReadPath(path, facts, error));
    EXPECT_EQ(facts.hash, HashState::kDone) << "once it rests";
}

TEST(IntegrityBaseline, KeepsAnyByteOfANameAndMovesAndErasesWholeSubtrees)
{
    TempDir dir;
    const std::string db = dir.path() + "/state/baseline.db";
    const std::string odd = "/w/a\nb \xff\x01";
    {
        Baseline baseline;
        std::string note;
        ASSERT_EQ(baseline.Open(db, note), Baseline::Opened::kCreated) << note;
        // Beside /w/a in byte order: "/w/a-b" ('-' before '/'), "/w/a0" ('0' after '/'), "/w/a\xff".
    const std::vector<std::string> paths{"/w",      "/w/a",    "/w/a/x",    "/w/a/d", "/w/a/d/y", "/w/a-b",
                                         "/w/a-b/f", "/w/a0", "/w/a0/f", "/w/a\xff", "/w/a\xff/f", odd};
    for (const std::string& path : paths) {
            baseline.Put(path, Facts(path == "/w/a" || path == "/w/a/d" || path == "/w/a-b" || path == "/w/a0" ||
                                             path == "/w/a\xff"
                                         ? S_IFDIR | 0755
                                         : S_IFREG | 0644,
                                     path.size(), std::string(32, '\0') + path));
        }
        FileFacts got;
        ASSERT_TRUE(baseline.Get(odd, got));
        EXPECT_EQ(got.sha256, std::string(32, '\0') + odd);
        EXPECT_EQ(baseline.Children("/w").size(), 5U);
        EXPECT_TRUE(baseline.Children("/w").at("a") == Facts(S_IFDIR | 0755, 4, std::string(32, '\0') + "/w/a"))
            << "a child's every fact, its hash too";
        EXPECT_EQ(baseline.CountBelow("/w/a"), 3U);

        baseline.Move("/w/a", "/w/moved");
        EXPECT_FALSE(baseline.Get("/w/a/d/y", got));
        ASSERT_TRUE(baseline.Get("/w/moved/d/y", got));
        EXPECT_EQ(got.size, std::string("/w/a/d/y").size());
        for (const char* beside : {"/w/a-b/f", "/w/a0/f", "/w/a\xff/f"}) {
            EXPECT_TRUE(baseline.Get(beside, got)) << beside << " is not below /w/a";
        }
        baseline.SetComplete({"/w", true}, true);
        baseline.Put("/top", Facts(S_IFREG | 0644, 1));
        EXPECT_EQ(baseline.Children("/").count("top"), 1U) << "a name directly below the root";
        baseline.Erase("/top");
        EXPECT_EQ(baseline.TakeError(), "");
    }
    // What was written survives the process.
    Baseline again;
    std::string note;
    ASSERT_EQ(again.Open(db, note), Baseline::Opened::kExisting) << note;
    EXPECT_TRUE(again.Complete({"/w", true}));
    EXPECT_FALSE(again.Complete({"/w", false}));
    EXPECT_EQ(again.Count(), 12U);
    again.Erase("/w/moved");
    EXPECT_EQ(again.Count(), 8U);
    EXPECT_EQ(again.CountBelow("/w/a0"), 1U);
    FileFacts got;
    EXPECT_TRUE(again.Get("/w/a-b", got));
    EXPECT_TRUE(again.Get(odd, got));
    EXPECT_EQ(again.TakeError(), "");
    again.Flush();

    // A reader beside the writer (baseline check while the agent runs), and one with no file.
    Baseline reader;
    ASSERT_EQ(reader.OpenReadOnly(db, note), Baseline::Opened::kExisting) << note;
    EXPECT_EQ(reader.Count(), 8U);
    reader.Put("/w/new", got);
    reader.Flush();
    EXPECT_NE(reader.TakeError().find("readonly"), std::string::npos) << "a write to a read-only baseline fails";
    EXPECT_EQ(reader.TakeError(), "") << "and says so once";
    EXPECT_EQ(reader.OpenReadOnly(db + ".none", note), Baseline::Opened::kFailed);
    EXPECT_EQ(note, db + ".none: No such file or directory");
}

TEST(IntegrityBaseline, AGarbageOrTruncatedBaselineIsSetAsideAndRebuilt)
{
    TempDir dir;
    const std::string db = dir.path() + "/baseline.db";
    {
        Baseline baseline;
        std::string note;
        ASSERT_EQ(baseline.Open(db, note), Baseline::Opened::kCreated);
        for (int i = 0; i < 5000; ++i) {
            baseline.Put("/w/" + std::to_string(i) + std::string(100, 'n'), Facts(S_IFREG | 0644, i));
        }
    }
    const auto sizeBefore = std::filesystem::file_size(db);
    ASSERT_EQ(::truncate(db.c_str(), static_cast<off_t>(sizeBefore / 2)), 0);
    for (const std::string& damage : {std::string("truncated"), std::string("garbage"), std::string("another version")}) {
        if (damage == "garbage") {
            dir.Write("baseline.db", std::string(9000, '\x5a'));
        } else if (damage == "another version") {
            Poco::Data::Session other("SQLite", db);
            other << "CREATE TABLE entries (dir TEXT)", Poco::Data::Keywords::now;
            other << "PRAGMA user_version = 99", Poco::Data::Keywords::now;
        }
        Baseline baseline;
        std::string note;
        EXPECT_EQ(baseline.Open(db, note), Baseline::Opened::kSetAside) << damage << ": " << note;
        EXPECT_NE(note.find("moved to " + db + ".corrupt-"), std::string::npos) << note;
        if (damage == "another version") {
            EXPECT_NE(note.find("not a baseline of this version (schema 99)"), std::string::npos) << note;
        }
        baseline.Put("/w/new", Facts(S_IFREG | 0644, 1));
        baseline.Flush();
        EXPECT_EQ(baseline.Count(), 1U);
        EXPECT_EQ(baseline.TakeError(), "");
        // The damaged file is kept for a look, under its new name.
        size_t aside = 0;
        for (const auto& entry : std::filesystem::directory_iterator(dir.path())) {
            aside += entry.path().filename().string().rfind("baseline.db.corrupt-", 0) == 0 ? 1 : 0;
        }
        EXPECT_GE(aside, 1U);
        std::filesystem::remove(db);
        for (const auto& entry : std::filesystem::directory_iterator(dir.path())) {
            std::filesystem::remove(entry.path());
        }
        if (damage == "truncated") {
            Baseline fresh;
            ASSERT_EQ(fresh.Open(db, note), Baseline::Opened::kCreated);
        }
    }
}

TEST(IntegrityBaseline, AStateDirectoryThatCannotBeWrittenLeavesABaselineInMemory)
{
    if (!NobodyScratch().empty()) {
        Baseline baseline;
        std::string note;
        ASSERT_EQ(baseline.Open(NobodyScratch() + "/state/baseline.db", note), Baseline::Opened::kInMemory);
        EXPECT_NE(note.find("in memory"), std::string::npos) << note;
        baseline.Put("/w/f", Facts(S_IFREG | 0644, 3));
        FileFacts got;
        EXPECT_TRUE(baseline.Get("/w/f", got));
        EXPECT_EQ(got.size, 3U);
        EXPECT_TRUE(baseline.Path().empty());
        return;
    }
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root, to become nobody and meet a directory nobody may write";
    }
    TempDir dir;
    ::chmod(dir.path().c_str(), 0755);
    ASSERT_EQ(::mkdir((dir.path() + "/state").c_str(), 0755), 0);
    EXPECT_TRUE(PassesAsNobody(dir.path()));
    EXPECT_FALSE(std::filesystem::exists(dir.path() + "/state/baseline.db"));
}

TEST(IntegrityScan, ASecondScanReportsEachChangeOnceWithBeforeAndAfterAndRereadsOnlyWhatChanged)
{
    TempDir dir;
    const std::string root = dir.path() + "/tree";
    dir.Write("tree/edited", "first version\n");
    dir.Write("tree/same-size", "aaaa");
    dir.Write("tree/chmoded", "x", 0644);
    dir.Write("tree/removed", "gone soon");
    dir.Write("tree/sub/deep/file", "deep");
    dir.Write("tree/sub/deep/other", "deep");
    dir.Write("tree/kept/unchanged", "same");
    const std::string odd = "tree/kept/odd\n\xff name";
    dir.Write(odd, "odd");
    Baseline baseline;
    std::string note;
    ASSERT_EQ(baseline.Open(dir.path() + "/baseline.db", note), Baseline::Opened::kCreated);
    const Integrity::Root tree{root, true};
    EXPECT_TRUE(ScanAll(baseline, tree, false).empty());
    EXPECT_EQ(baseline.Count(), 12U);
    FileFacts firstVersion;
    ASSERT_TRUE(baseline.Get(root + "/edited", firstVersion));

    dir.Write("tree/edited", "second version, longer\n");
    // Same size, and the old mtime put back: only the ctime and the content tell.
    struct stat st {};
    ::stat((root + "/same-size").c_str(), &st);
    dir.Write("tree/same-size", "bbbb");
    const timespec times[2] = {st.st_atim, st.st_mtim};
    ::utimensat(AT_FDCWD, (root + "/same-size").c_str(), times, 0);
    ::chmod((root + "/chmoded").c_str(), 0600);
    ::unlink((root + "/removed").c_str());
    std::filesystem::remove_all(root + "/sub");
    dir.Write("tree/created", "new");
    ::unlink((dir.path() + "/" + odd).c_str());

    Integrity::FactsReader reader(kMaxHash);
    Integrity::TreeScan scan(tree, baseline, reader, true, true);
    std::vector<Difference> found;
    while (scan.Step(1, found)) {
    }
    const auto byPath = ByPath(found);
    std::vector<std::string> paths;
    for (const auto& [path, d] : byPath) {
        paths.push_back(path.substr(root.size()));
    }
    EXPECT_EQ(paths, (std::vector<std::string>{"/chmoded", "/created", "/edited", "/kept/odd\n\xff name",
                                               "/removed", "/same-size", "/sub"}));
    const Difference& edited = byPath.at(root + "/edited");
    EXPECT_EQ(edited.kind, Difference::Kind::kChanged);
    EXPECT_EQ(edited.changes & Integrity::kChangedContent, uint32_t{Integrity::kChangedContent});
    EXPECT_EQ(edited.before->size, 14U);
    EXPECT_EQ(edited.after->size, 23U);
    EXPECT_EQ(Integrity::Hex(edited.before->sha256), Integrity::Hex(firstVersion.sha256)) << "the hash recorded before";
    EXPECT_EQ(firstVersion.sha256.size(), 32U);
    EXPECT_NE(edited.before->sha256, edited.after->sha256);
    EXPECT_EQ(byPath.at(root + "/same-size").changes, uint32_t{Integrity::kChangedContent});
    EXPECT_EQ(byPath.at(root + "/chmoded").changes, uint32_t{Integrity::kChangedMode});
    EXPECT_EQ(byPath.at(root + "/chmoded").before->mode & 07777, 0644U);
    EXPECT_EQ(byPath.at(root + "/created").kind, Difference::Kind::kCreated);
    EXPECT_FALSE(byPath.at(root + "/created").before);
    EXPECT_EQ(byPath.at(root + "/removed").kind, Difference::Kind::kDeleted);
    EXPECT_EQ(byPath.at(root + "/sub").below, 3U);
    // Four files were read again: the edited one, the one of the same size, the chmod'ed one
    // (its ctime moved) and the new one. The unchanged ones keep their recorded hashes.
    EXPECT_EQ(scan.Hashed(), 4U);

    // Recorded: a third scan finds nothing and reads nothing.
    Integrity::TreeScan third(tree, baseline, reader, true, true);
    found.clear();
    while (third.Step(1000, found)) {
    }
    EXPECT_TRUE(found.empty());
    EXPECT_EQ(third.Hashed(), 0U);
    EXPECT_EQ(third.Entries(), baseline.Count());

    // A change a live notification recorded after the scan listed the directory, and before the
    // scan came to the entry, is the notification's to report: the scan does not report it again.
    dir.Write("tree/edited", "third version");
    Integrity::TreeScan racing(tree, baseline, reader, true, true);
    found.clear();
    ASSERT_TRUE(racing.Step(1, found));  // the root
    ASSERT_TRUE(racing.Step(1, found));  // its listing, and chmoded
    FileFacts live;
    int error = 0;
    ASSERT_TRUE(reader.ReadPath(root + "/edited", live, error)) << error;
    baseline.Put(root + "/edited", live);
    while (racing.Step(1, found)) {
    }
    EXPECT_TRUE(found.empty()) << found.size() << " found";

    // The whole tree gone: one finding, its root, with all it held; the baseline forgets it.
    const uint64_t held = baseline.Count();
    FileFacts rootBefore;
    ASSERT_TRUE(baseline.Get(root, rootBefore));
    std::filesystem::remove_all(root);
    Integrity::TreeScan gone(tree, baseline, reader, true, true);
    found.clear();
    EXPECT_FALSE(gone.Step(1000, found)) << "nothing remains to scan";
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0].path, root);
    EXPECT_EQ(found[0].kind, Difference::Kind::kDeleted);
    EXPECT_EQ(found[0].below, held - 1);
    ASSERT_TRUE(found[0].before);
    EXPECT_TRUE(found[0].before->IsDir() && found[0].before->inode == rootBefore.inode);
    EXPECT_EQ(baseline.Count(), 0U);
}

TEST(IntegrityScan, ADirectorySwappedForALinkIsNotFollowedAndOtherFileSystemsAreNotEntered)
{
    TempDir dir;
    const std::string root = dir.path() + "/tree";
    dir.Write("tree/sub/inside", "in");
    dir.Write("outside/secret", "out");
    MemoryBaseline baseline;
    Integrity::FactsReader reader(kMaxHash);
    Integrity::TreeScan scan({root, true}, baseline, reader, false, true);
    std::vector<Difference> found;
    ASSERT_TRUE(scan.Step(2, found));  // the root and its listing: sub is queued
    std::filesystem::rename(root + "/sub", dir.path() + "/old-sub");
    ASSERT_EQ(::symlink((dir.path() + "/outside").c_str(), (root + "/sub").c_str()), 0);
    while (scan.Step(1, found)) {
    }
    FileFacts facts;
    EXPECT_FALSE(baseline.Get(root + "/sub/secret", facts));
    EXPECT_FALSE(baseline.Get(root + "/sub/inside", facts));

    // /dev/pts is a file system of its own inside /dev: it is recorded, not entered.
    Integrity::FactsReader devReader(kMaxHash);
    MemoryBaseline devBaseline;
    Integrity::TreeScan dev({"/dev", true}, devBaseline, devReader, false, true);
    while (dev.Step(100, found)) {
    }
    struct stat devSt {};
    struct stat ptsSt {};
    if (::stat("/dev/pts", &ptsSt) == 0 && ::stat("/dev", &devSt) == 0 && ptsSt.st_dev != devSt.st_dev) {
        EXPECT_TRUE(devBaseline.Get("/dev/pts", facts));
        EXPECT_FALSE(devBaseline.Get("/dev/pts/ptmx", facts));
    }
    EXPECT_TRUE(devBaseline.Get("/dev/null", facts));
    EXPECT_EQ(facts.hash, HashState::kNone) << "a device is never read";
}

TEST(IntegrityScan, ATreeLargerThanTheBoundIsRecordedOnlyToTheBoundAndNothingBeyondIsReported)
{
    TempDir dir;
    for (int i = 0; i < 20; ++i) {
        dir.Write("tree/f" + std::to_string(i), "x");
    }
    MemoryBaseline baseline;
    Integrity::FactsReader reader(kMaxHash);
    for (const bool report : {false, true}) {
        Integrity::TreeScan scan({dir.path() + "/tree", true}, baseline, reader, report, true);
        scan.SetMostEntries(8);
        std::vector<Difference> found;
        while (scan.Step(3, found)) {
        }
        EXPECT_TRUE(scan.Capped());
        EXPECT_LE(baseline.Count(), 9U);
        EXPECT_TRUE(found.empty()) << "neither the entries beyond nor the recorded ones are differences";
    }
}

TEST(IntegrityScan, ATreeOfAHundredThousandFilesIsRecordedInBoundedStepsAndRescannedWithoutReading)
{
    // In memory where there is a tmpfs: making 100,000 files on a disk takes longer than the scan.
    TempDir dir(std::filesystem::is_directory("/dev/shm") ? "/dev/shm" : nullptr);
    const std::string root = dir.path() + "/big";
    for (int d = 0; d < 100; ++d) {
        const std::string sub = root + "/d" + std::to_string(d);
        std::filesystem::create_directories(sub);
        for (int f = 0; f < 1000; ++f) {
            std::ofstream(sub + "/f" + std::to_string(f)) << f;
        }
    }
    Baseline baseline;
    std::string note;
    ASSERT_EQ(baseline.Open(dir.path() + "/baseline.db", note), Baseline::Opened::kCreated);
    Integrity::FactsReader reader(kMaxHash);
    Integrity::TreeScan first({root, true}, baseline, reader, false, true);
    std::vector<Difference> found;
    size_t steps = 0;
    while (first.Step(4096, found)) {
        ++steps;
    }
    EXPECT_GE(steps, 100000U / 4096);
    EXPECT_EQ(baseline.Count(), 100101U);
    EXPECT_EQ(first.Hashed(), 100000U);
    Integrity::TreeScan again({root, true}, baseline, reader, true, true);
    while (again.Step(4096, found)) {
    }
    EXPECT_TRUE(found.empty());
    EXPECT_EQ(again.Hashed(), 0U);
    EXPECT_EQ(again.Entries(), 100101U);
}

}  // namespace
