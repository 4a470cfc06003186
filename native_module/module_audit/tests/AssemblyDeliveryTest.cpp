// Record assembly and event delivery, driven line by line as the log reader drives them.
#include "AuditLog.h"
#include "AuditMessages.h"
#include "AuditRules.h"
#include "AuditUtil.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

using namespace Engine;
using TestSupport::NamedTask;
using TestSupport::Subscriber;

namespace {

std::string Line(const std::string& type, unsigned serial, const std::string& fields)
{
    return "type=" + type + " msg=audit(1795311540.000:" + std::to_string(serial) + "): " + fields;
}

const std::string kOpenSyscall = "arch=c000003e syscall=2 success=yes exit=3 a0=1 a1=2 a2=3 a3=4 items=2 ppid=10 pid=11 "
                                 "comm=\"cat\" exe=\"/usr/bin/cat\" key=\"k\"";

// An audit log with one subscriber routed for every event of syscall 2 (open).
struct Pipeline {
    NamedTask owner{"audit_task"};
    Subscriber subscriber;
    AuditRules rules;
    AuditLog log{&owner, &rules};
    Pipeline()
    {
        auditSyscallDest dest;
        dest.task = &subscriber;
        dest.tag = "t";
        log.syscallRoutes64.emplace(2, dest);
    }
    size_t Delivered() { return subscriber.Drain().size(); }
};

}  // namespace

TEST(Assembly, AnEventEndsAtItsFirstProctitleAndASecondEndRecordFindsNothing)
{
    TestSupport::LogCapture capture(Poco::Message::PRIO_WARNING);
    Pipeline p;
    p.log.HandleOneLineLog(Line("SYSCALL", 1, kOpenSyscall));
    p.log.HandleOneLineLog(Line("CWD", 1, "cwd=\"/tmp\""));
    p.log.HandleOneLineLog(Line("PATH", 1, "item=0 name=\"/tmp\" nametype=PARENT"));
    p.log.HandleOneLineLog(Line("PATH", 1, "item=1 name=\"x\" nametype=CREATE"));
    EXPECT_EQ(p.Delivered(), 0U);
    p.log.HandleOneLineLog(Line("PROCTITLE", 1, "proctitle=636174"));
    ASSERT_EQ(p.Delivered(), 1U);
    EXPECT_EQ(p.subscriber.received[0].second->lines.size(), 4U);
    EXPECT_EQ(p.subscriber.received[0].first, "t");
    p.log.HandleOneLineLog(Line("EOE", 1, ""));
    EXPECT_TRUE(capture.channel().Has("Find invalid audit log, finished but event is empty."));
    EXPECT_EQ(p.Delivered(), 1U);
}

TEST(Assembly, ANewSyscallOrAForeignRecordOrAnIdlePollEndsThePendingEvent)
{
    Pipeline p;
    p.log.HandleOneLineLog(Line("SYSCALL", 1, kOpenSyscall));
    p.log.HandleOneLineLog(Line("PATH", 1, "item=0 name=\"/a\""));
    p.log.HandleOneLineLog(Line("SYSCALL", 2, kOpenSyscall));
    EXPECT_EQ(p.Delivered(), 1U) << "the first event goes when the second starts";
    p.log.HandleOneLineLog(Line("PATH", 2, "item=0 name=\"/b\""));
    p.log.HandleOneLineLog(Line("USER_LOGIN", 3, "pid=1 uid=0 msg='op=login res=success'"));
    EXPECT_EQ(p.Delivered(), 2U) << "a record of another kind ends it and is dropped";
    EXPECT_EQ(p.subscriber.received[1].second->lines.size(), 2U);

    p.log.HandleOneLineLog(Line("SYSCALL", 4, kOpenSyscall));
    p.log.HandleOneLineLog(Line("PATH", 4, "item=0 name=\"/c\""));
    EXPECT_EQ(p.Delivered(), 2U);
    p.log.HandleNoEofScenarios();
    EXPECT_EQ(p.Delivered(), 3U) << "a poll without new data completes it";
    p.log.HandleNoEofScenarios();
    EXPECT_EQ(p.Delivered(), 3U);
}

TEST(Assembly, RecordsWithoutASyscallAndUnparsableEventsAreDropped)
{
    TestSupport::LogCapture capture(Poco::Message::PRIO_WARNING);
    Pipeline p;
    const std::string path = Line("PATH", 1, "item=0 name=\"/a\"");
    p.log.HandleOneLineLog(path);
    EXPECT_TRUE(capture.channel().Has("Find invalid audit msg(" + path + "), have expect log but event is empty."));
    // The bug-for-bug part of execve: BPRM_FCAPS closes the event before EXECVE, CWD and PATH.
    for (const std::string& line : TestSupport::EventLines("kernel-6.18-raw.log", 3558)) {
        p.log.HandleOneLineLog(line);
    }
    EXPECT_EQ(p.Delivered(), 0U);
    EXPECT_EQ(p.log.PackLogs("EOE", "x"), 2);
    EXPECT_EQ(p.log.PackLogs("CWD", "y"), 1);
}

TEST(Assembly, ConfigChangesPutOurRemovedRulesBackAndQueueRefusedWatches)
{
    TestSupport::FakeInstallation install(0, "No rules");
    Pipeline p;
    NamedTask task("fw_task");
    AuditFileSystemCtrlMessage msg(&task, "", {}, _FileNotifyOpt{});
    msg.tag = "t";
    msg.operate = "-w";
    msg.rule = "/tmp/fx/notyet/file -p wa";
    FileSystemRule rule;
    LinuxAuditUtil::auditDistractFilesystemRule(msg, rule);
    std::string stripped = msg.rule;
    p.rules.AddAuditRule(msg, rule, stripped);
    const std::string key = "fw_task***t***/tmp/fx/notyet/file***wapidppid";
    ASSERT_TRUE(p.rules.RuleExists(key));
    const size_t before = install.Commands().size();

    p.log.HandleOneLineLog(Line("CONFIG_CHANGE", 5, "auid=0 ses=1 op=remove_rule key=\"" + key + "\" list=4 res=1"));
    ASSERT_EQ(install.Commands().size(), before + 1);
    EXPECT_EQ(install.Commands().back(), "[-w][/tmp/fx/notyet/file][-p][wa][-k][" + key + "]");
    p.log.HandleOneLineLog(Line("CONFIG_CHANGE", 6, "op=remove_rule key=\"someone_else\" list=4 res=1"));
    p.log.HandleOneLineLog(Line("CONFIG_CHANGE", 7, "op=add_rule key=\"" + key + "\" list=4 res=1"));
    EXPECT_EQ(install.Commands().size(), before + 1) << "unknown keys and successful adds change nothing";

    p.log.HandleOneLineLog(Line("CONFIG_CHANGE", 8, "op=add_rule key=\"" + key + "\" list=4 res=0"));
    EXPECT_EQ(install.Commands().back(), "[-l][-k][" + key + "]") << "asks the kernel first";
    EXPECT_EQ(p.rules.scanPaths, std::set<std::string>{"/tmp/fx/notyet/file"});

    AuditLog orphan(nullptr, nullptr);  // no owner: nothing to fix
    orphan.HandleOneLineLog(Line("CONFIG_CHANGE", 9, "op=remove_rule key=\"" + key + "\""));
}

TEST(Delivery, TheArchitecturePicksTheTableAndFiltersAreCompared)
{
    NamedTask owner("audit_task");
    Subscriber a("a_task");
    AuditLog log(&owner, nullptr);
    auditSyscallDest any;
    any.task = &a;
    any.tag = "any";
    log.syscallRoutes32.emplace(2, any);  // number 2 in the 32-bit table only
    auto event = std::make_shared<AuditEvent>();
    event->arch = "c000003e";
    event->syscall = 2;
    log.DeliverEvent(event);
    EXPECT_TRUE(a.Drain().empty());
    event->arch = "40000003";
    log.DeliverEvent(event);
    EXPECT_EQ(a.Drain().size(), 1U);
    event->arch = "";
    log.DeliverEvent(event);
    EXPECT_EQ(a.Drain().size(), 2U) << "any other arch uses the 32-bit table";
    event->arch = "c00000b7";  // aarch64: not x86-64, whatever its prefix
    log.DeliverEvent(event);
    EXPECT_EQ(a.Drain().size(), 3U);

    auditSyscallDest filtered;
    filtered.hasFilter = 1;
    filtered.a1 = "1f";
    event->a0 = "zz";
    event->a1 = "1f";
    EXPECT_TRUE(log.CheckSyscallInfo(&filtered, event)) << "only a1 is compared";
    event->a1 = "1F";
    EXPECT_FALSE(log.CheckSyscallInfo(&filtered, event));
    filtered.hasFilter = 0;
    EXPECT_TRUE(log.CheckSyscallInfo(&filtered, event)) << "without hasFilter no argument counts";
    filtered.ppids = {"10"};
    event->pid = "5";
    event->ppid = "10";
    EXPECT_TRUE(log.CheckSyscallInfo(&filtered, event));
    event->ppid = "11";
    EXPECT_FALSE(log.CheckSyscallInfo(&filtered, event));
    filtered.pids = {"5"};
    EXPECT_TRUE(log.CheckSyscallInfo(&filtered, event));
}

TEST(Delivery, PathRoutesWalkUpOnceAndSendOneMessagePerTaskAndTag)
{
    NamedTask owner("audit_task");
    Subscriber sub("fw_task");
    AuditLog log(&owner, nullptr);
    const auto route = [&](const std::string& path, const std::string& tag, bool write) {
        auditFileSystemDest dest;
        dest.task = &sub;
        dest.tag = tag;
        dest.write = write ? 1 : 0;
        log.pathRoutes.emplace(path, dest);
    };
    route("/etc", "same", true);
    route("/etc/passwd", "same", true);
    route("/", "root", true);
    auto event = std::make_shared<AuditEvent>();
    event->read = true;  // write-only routes still pass: exec and attr are clear on both sides
    AuditLogPath parent;
    parent.hostPath = "/etc";
    parent.nametype = "PARENT";
    AuditLogPath entry;
    entry.hostPath = "/etc/passwd";
    entry.nametype = "NORMAL";
    AuditLogPath second = entry;
    event->paths = {parent, entry, second};
    log.DeliverEvent(event);
    const auto& got = sub.Drain();
    ASSERT_EQ(got.size(), 2U);  // "root" and "same", each once, in key order
    EXPECT_EQ(got[0].first, "root");
    EXPECT_EQ(got[1].first, "same");
    EXPECT_EQ(got[0].second, event) << "the event is shared, not copied";
    Subscriber twin("twin_task");  // the same tag from another task is a message of its own
    auditFileSystemDest twinDest;
    twinDest.task = &twin;
    twinDest.tag = "same";
    twinDest.write = 1;
    log.pathRoutes.emplace("/etc", twinDest);
    log.DeliverEvent(event);
    EXPECT_EQ(sub.Drain().size(), 4U);
    EXPECT_EQ(twin.Drain().size(), 1U);

    // A PARENT record alone never delivers; a relative path never reaches "/".
    Subscriber other("x_task");
    AuditLog alone(&owner, nullptr);
    auditFileSystemDest dest;
    dest.task = &other;
    alone.pathRoutes.emplace("/", dest);
    alone.pathRoutes.emplace("a", dest);
    event->paths = {parent};
    alone.DeliverEvent(event);
    EXPECT_TRUE(other.Drain().empty());
    entry.hostPath = "a/b";
    event->paths = {entry};
    alone.DeliverEvent(event);
    ASSERT_EQ(other.Drain().size(), 1U);
}

TEST(Delivery, FileRoutesFailOnlyWhenEveryAccessKindDiffers)
{
    AuditLog log(nullptr, nullptr);
    auditFileSystemDest writeOnly;
    writeOnly.write = 1;
    auto event = std::make_shared<AuditEvent>();
    event->read = true;
    EXPECT_TRUE(log.CheckFileEventInfo(&writeOnly, event));
    event->execute = true;
    event->attributeChange = true;
    EXPECT_FALSE(log.CheckFileEventInfo(&writeOnly, event));  // r, w, x, a all differ
    writeOnly.pids = {"1"};
    event->read = false;
    event->pid = "2";
    EXPECT_FALSE(log.CheckFileEventInfo(&writeOnly, event));
    event->pid = "1";
    EXPECT_TRUE(log.CheckFileEventInfo(&writeOnly, event));
}

// Real lines, mutated at random, through assembly, parsing, decoding and delivery: nothing may
// crash (the sanitizer builds run this too) and every delivered event has a SYSCALL record.
TEST(Assembly, SurvivesMutatedRealLines)
{
    std::vector<std::string> lines = TestSupport::ReadLines(TestSupport::FixturesDir() + "kernel-6.18-raw.log");
    ASSERT_FALSE(lines.empty());
    TestSupport::LogCapture quiet(Poco::Message::PRIO_FATAL);
    Pipeline p;
    for (int32_t number = 0; number < 512; ++number) {
        auditSyscallDest dest;
        dest.task = &p.subscriber;
        p.log.syscallRoutes64.emplace(number, dest);
        p.log.syscallRoutes32.emplace(number, dest);
    }
    auditFileSystemDest everything;
    everything.task = &p.subscriber;
    p.log.pathRoutes.emplace("/", everything);
    TestSupport::Random next(0x9E3779B97F4A7C15ULL);
    const char specials[] = {' ', '=', '"', '\'', '\x1d', ':', '/', '\0', 'F', '0'};
    for (int round = 0; round < 3; ++round) {
        for (std::string line : lines) {
            if (!line.empty() && next() % 3 == 0) {
                const size_t at = next() % line.size();
                switch (next() % 3) {
                case 0: line[at] = specials[next() % sizeof(specials)]; break;
                case 1: line.resize(at); break;
                default: line.insert(at, 1, specials[next() % sizeof(specials)]); break;
                }
            }
            p.log.HandleOneLineLog(line);
        }
        p.log.HandleNoEofScenarios();
    }
    const auto& delivered = p.subscriber.Drain();
    EXPECT_GT(delivered.size(), 50U);
    for (const auto& [tag, event] : delivered) {
        EXPECT_NE(event->parsedEvent.FindRecord("SYSCALL"), nullptr);
    }
}
