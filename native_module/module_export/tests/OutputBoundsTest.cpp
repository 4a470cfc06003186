// What keeps the export within bounds when someone floods it: the rate limits and their
// summaries, and an output file that holds only whole lines when its disk is full.
#include "EventFile.h"
#include "ExportTask.h"
#include "RateLimits.h"

#include <sys/mount.h>

#include <Poco/JSON/Parser.h>

#include "TestCommon.h"

#include <cstring>
#include <fstream>
#include <sstream>

using Clock = Export::RateLimits::Clock;
using namespace std::chrono_literals;

namespace {

// A tmpfs mounted over path for the life of the object (needs root).
struct SmallFileSystem {
    SmallFileSystem(std::string at, const char* options)
        : path(std::move(at)), mounted(mount("tmpfs", path.c_str(), "tmpfs", 0, options) == 0) {}
    ~SmallFileSystem()
    {
        if (mounted) {
            umount2(path.c_str(), MNT_DETACH);
        }
    }
    std::string path;
    bool mounted;
};

std::pair<std::string, std::string> Cause(const std::string& uid, const std::string& program)
{
    return {uid, program};
}

std::string Causes(const std::vector<Export::NoticeCause>& causes)
{
    std::string text;
    for (const Export::NoticeCause& cause : causes) {
        text += cause.id + "=" + std::to_string(cause.events) + " ";
    }
    return text;
}

}  // namespace

TEST(RateLimits, ALimitPassesABurstThenItsRateAndSummarisesTheRestByAuthorEveryTenSeconds)
{
    Export::RateLimits limits;
    limits.Set("connect", 10);
    limits.Set("open", 0);
    const Clock::time_point start = Clock::now();
    int passed = 0;
    for (int i = 0; i < 25; ++i) {
        passed += limits.Admit("connect", start, [&] { return Cause(i < 20 ? "4242" : "0", i % 2 ? "/bin/a" : "/bin/b"); });
    }
    EXPECT_EQ(passed, 10) << "one second's worth at once";
    for (int i = 0; i < 10; ++i) {
        passed += limits.Admit("connect", start + 500ms, [] { return Cause("4242", "/bin/a"); });
    }
    EXPECT_EQ(passed, 15) << "half a second later, half a second's worth more";
    int unlimited = 0;
    for (int i = 0; i < 1000; ++i) {
        unlimited += limits.Admit("open", start, [] { return Cause("0", "x"); });
        unlimited += limits.Admit("tag without a limit", start, [] { return Cause("0", "x"); });
    }
    EXPECT_EQ(unlimited, 2000);

    EXPECT_TRUE(limits.TakeSummaries(start + 9s).empty()) << "not yet ten seconds since the first drop";
    const std::vector<Export::AgentNotice> notices = limits.TakeSummaries(start + 10s);
    ASSERT_EQ(notices.size(), 1U);
    const Export::AgentNotice& notice = notices[0];
    EXPECT_EQ(notice.tag + " " + notice.action + " " + std::to_string(notice.dropped) + " " +
                  std::to_string(notice.limit) + " " + std::to_string(notice.seconds),
              "connect rate-limited 20 10 10");
    EXPECT_EQ(Causes(notice.users), "4242=15 0=5 ");
    EXPECT_EQ(Causes(notice.programs), "/bin/a=12 /bin/b=8 ");
    EXPECT_EQ(Export::NoticeMessage(notice), "subscription connect: 20 events over its limit of 10 a second dropped in "
                                             "10 s; most from user 4242: 15, root (0): 5; program /bin/a: 12, /bin/b: 8");
    EXPECT_TRUE(limits.TakeSummaries(start + 30s, true).empty()) << "counted afresh after a summary";

    // A flood from many authors names the three that caused most and keeps a bounded count.
    for (int i = 0; i < 5000; ++i) {
        limits.Admit("connect", start + 40s, [&] { return Cause(std::to_string(i % 1000), "/bin/p" + std::to_string(i % 7 ? 1 : i)); });
    }
    const std::vector<Export::AgentNotice> flood = limits.TakeSummaries(start + 40s, true);
    ASSERT_EQ(flood.size(), 1U);
    EXPECT_EQ(flood[0].dropped, 4990U);
    EXPECT_EQ(flood[0].users.size(), Export::RateLimits::kNamedCauses);
    EXPECT_EQ(flood[0].programs[0].id + " " + std::to_string(flood[0].programs[0].events), "/bin/p1 4277");
}

TEST(ExportTask, TheRateLimitDropsAFloodAndItsSummaryLineNamesTheAuthor)
{
    TestSupport::TempDir dir;
    Export::AgentConfig config;
    config.output.file = dir.path() + "/events.jsonl";
    config.output.lines.flat = true;
    config.subscriptions.push_back(Export::Subscription{"subscriptions[0]", "connect", "exit,always -S connect", "", false, 0, 100});
    // A second subscription of the tag with a lower limit: the tag keeps the larger.
    config.subscriptions.push_back(Export::Subscription{"subscriptions[1]", "connect", "exit,always -S accept", "", false, 0, 50});
    // A tag limited by one subscription and not by another is not limited.
    config.subscriptions.push_back(Export::Subscription{"subscriptions[2]", "open", "exit,always -S open", "", false, 0, 5});
    config.subscriptions.push_back(Export::Subscription{"subscriptions[3]", "open", "exit,always -S openat", "", false, 0, 0});
    Export::ExportTask task(config, nullptr);
    ASSERT_EQ(task.Init(), 0);
    TestSupport::LoggerCapture log(Poco::Logger::get("export_module"));
    auto event = std::make_shared<Engine::AuditEvent>();
    event->exe = "/usr/bin/flood";
    event->parsedEvent.records.emplace_back();
    event->parsedEvent.records.back().type = "SYSCALL";
    event->parsedEvent.records.back().fields.Add("uid", "4242");
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 1000; ++i) {
        Engine::AuditEventMessage msg;
        msg.tag = i < 50 ? "open" : "connect";
        msg.event = event;
        task.Receive(msg);
    }
    // A second's worth passes, and what the rate adds while the flood lasts (a slow build takes
    // longer than the 10 ms one more event needs).
    const auto lasted = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    const long most = 100 + static_cast<long>(lasted * 100) + 1;
    task.Finish();
    task.UnInit();
    const std::string written = TestSupport::ReadFile(config.output.file);
    long opens = 0;
    for (size_t at = written.find("\"tag\":\"open\""); at != std::string::npos; at = written.find("\"tag\":\"open\"", at + 1)) {
        ++opens;
    }
    EXPECT_EQ(opens, 50);
    const long events = static_cast<long>(std::count(written.begin(), written.end(), '\n')) - 1 - opens;  // less the summary
    EXPECT_GE(events, 100);
    EXPECT_LE(events, most);
    const std::string last = written.substr(written.rfind('\n', written.size() - 2) + 1);
    const auto line = Poco::JSON::Parser().parse(last).extract<Poco::JSON::Object::Ptr>();
    const auto notice = line->getObject("hostwarden")->getObject("notice");
    EXPECT_EQ(notice->getValue<std::string>("action") + " " + notice->getValue<std::string>("dropped"),
              "rate-limited " + std::to_string(950 - events));
    EXPECT_EQ(notice->getArray("users")->getObject(0)->getValue<std::string>("id"), "4242");
    EXPECT_EQ(notice->getArray("programs")->getObject(0)->getValue<std::string>("executable"), "/usr/bin/flood");
    EXPECT_TRUE(log.channel().Has(line->getValue<std::string>("message") + ".")) << "and the agent's log says it";
}

TEST(ExportTask, OnAFullDiskTheFileHoldsOnlyWholeLinesCountsTheLossAndWritesAgainWhenSpaceReturns)
{
    TestSupport::TempDir dir;
    const SmallFileSystem small(dir.path(), "size=256k");
    if (!small.mounted) {
        GTEST_SKIP() << "cannot mount a small file system for the output (needs root): " << std::strerror(errno);
    }
    const std::string filler = dir.path() + "/filler";
    std::ofstream(filler) << std::string(232 * 1024, 'x');  // some 24 KiB left for the output

    Export::AgentConfig config;
    config.output.file = dir.path() + "/events.jsonl";
    config.output.rotateBytes = 0;
    config.output.lines.flat = true;
    Export::ExportTask task(config, nullptr);
    ASSERT_EQ(task.Init(), 0);
    auto event = std::make_shared<Engine::AuditEvent>();
    event->exe = std::string(700, 'e');  // lines of about a kilobyte, five a turn
    const auto turns = [&](int count) {
        for (int turn = 0; turn < count; ++turn) {
            for (int i = 0; i < 5; ++i) {
                Engine::AuditEventMessage msg;
                msg.event = event;
                task.Receive(msg);
            }
            task.EndTurn();
        }
    };
    turns(60);
    const size_t whileFull = std::count(std::istreambuf_iterator<char>(*std::make_unique<std::ifstream>(config.output.file)), {}, '\n');
    EXPECT_LT(whileFull, 40U) << "the disk filled";
    std::remove(filler.c_str());
    turns(10);
    task.Finish();
    task.UnInit();

    size_t events = 0;
    uint64_t lost = 0;
    int notices = 0;
    std::istringstream lines(TestSupport::ReadFile(config.output.file));
    for (std::string line; std::getline(lines, line);) {
        Poco::JSON::Object::Ptr object;
        ASSERT_NO_THROW(object = Poco::JSON::Parser().parse(line).extract<Poco::JSON::Object::Ptr>()) << line;
        if (object->has("hostwarden")) {
            ++notices;
            lost = object->getObject("hostwarden")->getObject("notice")->getValue<uint64_t>("dropped");
        } else {
            ++events;
        }
    }
    EXPECT_EQ(notices, 1) << "one notice when writing resumed";
    EXPECT_GT(lost, 0U);
    EXPECT_EQ(events + lost, 350U) << "every event is either in the file or counted as lost";
    EXPECT_GE(events, whileFull + 50) << "everything after the space returned is written";
}

// A rotation whose new file cannot be made (no inode left) writes on to the rotated file and says so.
TEST(ExportTask, ARotationThatCannotMakeItsNewFileWritesOnToTheOldOne)
{
    TestSupport::TempDir dir;
    const SmallFileSystem small(dir.path(), "size=256k,nr_inodes=2");
    if (!small.mounted) {
        GTEST_SKIP() << "cannot mount a small file system for the output (needs root): " << std::strerror(errno);
    }
    TestSupport::LoggerCapture log(Poco::Logger::get("export_module"));
    const std::string path = dir.path() + "/events.jsonl";
    Export::EventFile file(path, 100, 3);
    std::string error;
    ASSERT_TRUE(file.Open(error)) << error;
    EXPECT_EQ(file.Write(std::string(120, 'a') + "\n"), 0U);
    EXPECT_EQ(file.Write("after\n"), 0U) << "written on";
    EXPECT_EQ(TestSupport::ReadFile(path + ".1"), std::string(120, 'a') + "\nafter\n");
    const std::vector<std::string> texts = log.channel().Texts();
    EXPECT_TRUE(std::any_of(texts.begin(), texts.end(), [&](const std::string& text) {
        return text.rfind("Cannot open " + path + " after rotating it: ", 0) == 0;
    }));
}
