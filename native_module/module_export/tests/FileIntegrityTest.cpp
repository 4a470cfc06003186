// The export's file integrity without the kernel: notifications as the file-watch task sends them
// keep the baseline in step and come back with the file before and after; a start-up scan's
// findings; and how both read in ECS.
#include "EcsJson.h"
#include "EventJson.h"
#include "FileIntegrity.h"

#include "FileNotify.h"

#include "TestCommon.h"

#include <Poco/JSON/Parser.h>

namespace {

using Export::FileChange;
using Export::FileIntegrity;
using TestSupport::TempDir;

class NoEnrichment : public Export::Enrichment {
public:
    bool Container(int32_t, int32_t, Export::ContainerFacts&) override { return false; }
    bool UserName(const std::string&, uint32_t id, std::string& name) override
    {
        name = "user" + std::to_string(id);
        return true;
    }
    bool GroupName(const std::string&, uint32_t, std::string&) override { return false; }
    const Export::ProcessFacts* Process(int32_t, uint64_t) override { return nullptr; }
    void Exec(int32_t, uint64_t, Export::ProcessFacts) override {}
};

Engine::AuditEventResult Notification(const std::string& path, int kind, uint64_t serial, const std::string& dest = "")
{
    Engine::AuditEventResult result;
    result.path = path;
    result.event = kind;
    result.destPath = dest;
    result.extra[Engine::kNotifySerial] = std::to_string(serial);
    return result;
}

std::string Sha(const FileChange& change, bool after)
{
    const auto& facts = after ? change.after : change.before;
    return facts ? Integrity::Hex(facts->sha256).substr(0, 8) : "none";
}

// Runs the queued scans to their end.
std::vector<Export::ScanFinding> Scan(FileIntegrity& integrity)
{
    std::vector<Export::ScanFinding> found;
    while (integrity.Step(found)) {
        int waitMs = 0;
        integrity.Scanning(waitMs);
        std::this_thread::sleep_for(std::chrono::milliseconds(waitMs));
    }
    return found;
}

Export::IntegritySettings Settings(const TempDir& dir)
{
    Export::IntegritySettings settings;
    settings.baseline = dir.path() + "/state/baseline.db";
    settings.scanShare = 0;
    return settings;
}

TEST(FileIntegrity, EachTreeIsScannedOnceAndNoneInsideARecursiveOne)
{
    using Integrity::Root;
    const auto paths = [](const std::vector<Root>& roots) {
        std::string text;
        for (const Root& r : roots) {
            text += r.path + (r.recursive ? "/** " : " ");
        }
        return text;
    };
    EXPECT_EQ(paths(FileIntegrity::RootsOf({{"/etc", true}, {"/etc/ssh", false}, {"/etc", false}, {"/etc", true},
                                            {"/etc-old", false}, {"/var/x", false}, {"/var/x/y", false}})),
              "/etc/** /etc-old /var/x /var/x/y ");
}

TEST(FileIntegrity, NotificationsKeepTheBaselineInStepAndCarryTheFileBeforeAndAfter)
{
    TempDir dir;
    const std::string tree = dir.path() + "/tree";
    dir.Write("tree/kept", "one");
    dir.Write("tree/sub/inner", "inner");
    FileIntegrity integrity(Settings(dir), {{tree, true}});
    integrity.Start();
    EXPECT_TRUE(Scan(integrity).empty()) << "a tree recorded the first time reports nothing";

    // Created: nothing before.
    dir.Write("tree/new", "fresh");
    const FileChange* created = integrity.Observe(Notification(tree + "/new", Engine::kNotifyCreate, 1));
    ASSERT_NE(created, nullptr);
    EXPECT_EQ(Sha(*created, false) + " " + Sha(*created, true), "none " + Integrity::Hex(created->after->sha256).substr(0, 8));

    // Written: both hashes, and what changed. A copy for a second watch is the same answer.
    dir.Write("tree/kept", "two, longer");
    const FileChange* written = integrity.Observe(Notification(tree + "/kept", Engine::kNotifyModify, 2));
    ASSERT_NE(written, nullptr);
    EXPECT_NE(Sha(*written, false), Sha(*written, true));
    EXPECT_EQ(written->changes & (Integrity::kChangedContent | Integrity::kChangedSize),
              uint32_t{Integrity::kChangedContent | Integrity::kChangedSize});
    EXPECT_EQ(integrity.Observe(Notification(tree + "/kept", Engine::kNotifyModify, 2)), written);

    // The same bytes again: the content did not change.
    dir.Write("tree/kept", "two, longer");
    const FileChange* same = integrity.Observe(Notification(tree + "/kept", Engine::kNotifyModify, 3));
    EXPECT_EQ(same->changes & Integrity::kChangedContent, 0U);
    EXPECT_EQ(same->before->sha256, same->after->sha256);

    // A directory renamed within the tree takes its records along.
    std::filesystem::rename(tree + "/sub", tree + "/moved");
    const FileChange* moved = integrity.Observe(Notification(tree + "/sub", Engine::kNotifyMove, 4, tree + "/moved"));
    ASSERT_NE(moved, nullptr);
    EXPECT_TRUE(moved->before && moved->after && moved->changes == 0);
    const FileChange* inner = integrity.Observe(Notification(tree + "/moved/inner", Engine::kNotifyAttrib, 5));
    ASSERT_TRUE(inner->before) << "the record moved with its directory";

    // Deleted: the record goes, and what it said comes with the notification.
    std::filesystem::remove(tree + "/new");
    const FileChange* deleted = integrity.Observe(Notification(tree + "/new", Engine::kNotifyDelete, 6));
    ASSERT_NE(deleted, nullptr);
    EXPECT_FALSE(deleted->after);
    EXPECT_EQ(deleted->before->size, 5U);
    EXPECT_EQ(integrity.Observe(Notification(dir.path() + "/elsewhere", Engine::kNotifyCreate, 7)), nullptr);

    // Bytes written after the notification the open gave are found by the re-check a second on.
    dir.Write("tree/kept", "three: written after its notification");
    std::vector<Export::ScanFinding> late;
    ASSERT_TRUE(TestSupport::WaitUntil([&] {
        integrity.Step(late);
        return !late.empty();
    }));
    ASSERT_EQ(late.size(), 1U);
    EXPECT_EQ(late[0].result.path + ": " + late[0].change.reason, tree + "/kept: re-check: changed after its notification");
    EXPECT_EQ(integrity.RechecksLeft(tree + "/kept"), 2U) << "looked at again 5 and 30 s on";
    integrity.Flush();

    // The next start finds the baseline as the notifications left it: nothing to report.
    FileIntegrity restarted(Settings(dir), {{tree, true}});
    restarted.Start();
    EXPECT_TRUE(Scan(restarted).empty());
}

TEST(FileIntegrity, AStartUpFindingReadsInEcsWithItsReasonAndOnlyWhatChangedBefore)
{
    TempDir dir;
    const std::string tree = dir.path() + "/tree";
    dir.Write("tree/file", "before", 0644);
    for (const char* name : {"tree/sub/a", "tree/sub/b", "tree/sub/c"}) {
        dir.Write(name, "");
    }
    {
        FileIntegrity integrity(Settings(dir), {{tree, true}});
        integrity.Start();
        Scan(integrity);
    }
    dir.Write("tree/file", "after!", 0600);
    dir.Write("tree/new", "");
    std::filesystem::remove_all(tree + "/sub");
    FileIntegrity integrity(Settings(dir), {{tree, true}});
    integrity.Start();
    auto found = Scan(integrity);
    ASSERT_EQ(found.size(), 3U);
    std::sort(found.begin(), found.end(), [](const auto& a, const auto& b) { return a.result.path < b.result.path; });
    EXPECT_EQ(found[0].result.event, Engine::kNotifyModify);
    EXPECT_EQ(found[1].result.event, Engine::kNotifyCreate);
    EXPECT_STREQ(found[1].change.reason, "start-up scan: created while the agent was not running");
    EXPECT_STREQ(found[2].change.reason, "start-up scan: deleted while the agent was not running");

    NoEnrichment enrichment;
    Export::EcsEncoder encoder(Export::EcsSettings(), enrichment);
    std::string line;
    encoder.AppendNotification(line, found[0].result, "fim", &found[0].change);
    const auto json = Poco::JSON::Parser().parse(line).extract<Poco::JSON::Object::Ptr>();
    EXPECT_EQ(json->getObject("event")->getValue<std::string>("reason"),
              "start-up scan: changed while the agent was not running");
    const auto file = json->getObject("file");
    EXPECT_EQ(file->getValue<std::string>("mode"), "0600");
    EXPECT_EQ(file->getObject("hash")->getValue<std::string>("sha256"), Integrity::Hex(found[0].change.after->sha256));
    const auto mine = json->getObject("hostwarden")->getObject("file");
    EXPECT_EQ(mine->getValue<std::string>("content"), "changed");
    const auto before = mine->getObject("before");
    EXPECT_EQ(before->getValue<std::string>("mode"), "0644");
    EXPECT_EQ(before->getObject("hash")->getValue<std::string>("sha256"), Integrity::Hex(found[0].change.before->sha256));
    EXPECT_FALSE(before->has("size")) << "the size did not change:\n" << line;
    EXPECT_FALSE(before->has("uid"));

    // A directory found deleted says how much it held; the flat line is JSON with both hashes.
    const Export::ScanFinding& gone = found[2];
    EXPECT_EQ(gone.result.path + " " + Export::NotificationKindName(gone.result.event), tree + "/sub delete");
    line.clear();
    encoder.AppendNotification(line, gone.result, "fim", &gone.change);
    const auto deleted = Poco::JSON::Parser().parse(line).extract<Poco::JSON::Object::Ptr>();
    EXPECT_EQ(deleted->getObject("file")->getValue<std::string>("type"), "dir");
    EXPECT_EQ(deleted->getObject("hostwarden")->getObject("file")->getValue<uint64_t>("entries_below"), 3U);
    line.clear();
    Export::AppendNotification(line, found[0].result, "fim", &found[0].change);
    const auto flat = Poco::JSON::Parser().parse(line).extract<Poco::JSON::Object::Ptr>()->getObject("integrity");
    ASSERT_TRUE(flat) << line;
    EXPECT_EQ(flat->getValue<std::string>("sha256"), Integrity::Hex(found[0].change.after->sha256));
    EXPECT_EQ(flat->getValue<std::string>("before_sha256"), Integrity::Hex(found[0].change.before->sha256));
    const auto changes = flat->getArray("changes");
    ASSERT_TRUE(changes) << line;
    EXPECT_EQ(changes->getElement<std::string>(0), "content") << line;
}

}  // namespace
