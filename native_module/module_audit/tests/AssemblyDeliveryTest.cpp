// Record assembly and event delivery, driven line by line as the log reader drives them.
#include "AuditUtil.h"

#include "TestSupport.h"

#include <Poco/String.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

using namespace Engine;
using TestSupport::NamedTask;
using TestSupport::Pipeline;
using TestSupport::Subscriber;

namespace {

std::string Line(const std::string& type, unsigned serial, const std::string& fields)
{
    return "type=" + type + " msg=audit(1795311540.000:" + std::to_string(serial) + "): " + fields;
}

const std::string kOpen = "arch=c000003e syscall=2 success=yes exit=3 a0=1 a1=2 a2=3 a3=4 items=2 ppid=10 pid=11 "
                          "comm=\"cat\" exe=\"/usr/bin/cat\" key=\"k\"";

}  // namespace

// Each event delivered so far as serial:lines, in delivery order.
std::string DeliveredSerials(Subscriber& subscriber)
{
    std::string so_far;
    for (const auto& [tag, event] : subscriber.Drain()) {
        const std::string& first = event->lines.front();
        const size_t colon = first.find(':', first.find("msg=audit("));
        so_far += (so_far.empty() ? "" : " ") + first.substr(colon + 1, first.find(')') - colon - 1) + ":" +
                  std::to_string(event->lines.size());
    }
    return so_far;
}

// Records join the open event of their stamp; an event ends at its first PROCTITLE or EOE, at a
// record of another kind with its stamp (itself dropped), or at a poll that found no new line.
TEST(Assembly, RecordsGroupByStampAndEventsEndAtTheirEndRecordOrAnIdlePoll)
{
    TestSupport::LogCapture capture(Poco::Message::PRIO_WARNING);
    Pipeline p;
    for (std::vector<std::string> row : TestSupport::TableRows("native_module/module_audit/tests/tables/assembly.txt")) {
        row.resize(3);
        Poco::replaceInPlace(row[0], std::string("OPEN"), kOpen);
        row[0].empty() ? p.log.HandleNoEofScenarios() : p.log.HandleOneLineLog(row[0]);
        EXPECT_EQ(DeliveredSerials(p.subscriber), row[1]) << "after " << row[0] << ": " << row[2];
    }
    EXPECT_TRUE(capture.channel().Has("Find invalid audit log, finished but event is empty."));
    EXPECT_TRUE(capture.channel().Has("Find invalid audit msg(" + Line("PATH", 6, "item=0 name=\"/a\"") +
                                      "), have expect log but event is empty."));
    EXPECT_EQ(p.log.PackLogs("EOE", "x"), 2);
    EXPECT_EQ(p.log.PackLogs("CWD", "y"), 1);

    // At most 16 events are open: the 17th completes the oldest.
    const std::string before = DeliveredSerials(p.subscriber);
    for (unsigned serial = 100; serial < 100 + AuditLog::kMaxOpenEvents + 1; ++serial) {
        p.log.HandleOneLineLog(Line("SYSCALL", serial, kOpen));
    }
    EXPECT_EQ(DeliveredSerials(p.subscriber), before + " 100:1");
    p.log.HandleNoEofScenarios();
    EXPECT_EQ(DeliveredSerials(p.subscriber).substr(before.size()), " 100:1 101:1 102:1 103:1 104:1 105:1 106:1 107:1 108:1 109:1 110:1 111:1 112:1 113:1 114:1 115:1 116:1");
}

// A root execve: the kernel writes BPRM_FCAPS between SYSCALL and EXECVE, and the event still
// arrives whole, with its arguments, working directory and paths; so do two execs whose records
// auditd wrote interleaved.
TEST(Assembly, RootExecsArriveWholeEvenInterleaved)
{
    std::vector<std::string> exec;
    for (const std::string& line : TestSupport::ReadLines(TestSupport::FixturesDir() + "kernel-6.18-raw.log")) {
        if (line.find(":3558):") != std::string::npos) {
            exec.push_back(line);
        }
    }
    ASSERT_EQ(exec.size(), 7U);
    std::vector<std::string> twin = exec;
    for (std::string& line : twin) {
        Poco::replaceInPlace(line, std::string(":3558):"), std::string(":3559):"));
    }
    Pipeline p;
    p.log.syscallRoutes64.emplace(59, p.log.syscallRoutes64.begin()->second);
    for (size_t i = 0; i < exec.size(); ++i) {
        p.log.HandleOneLineLog(exec[i]);
        p.log.HandleOneLineLog(twin[i]);
    }
    const auto events = p.subscriber.Drain();
    ASSERT_EQ(events.size(), 2U);
    for (const auto& [tag, event] : events) {
        EXPECT_EQ(event->lines.size(), 6U) << "SYSCALL, BPRM_FCAPS, EXECVE, CWD and two PATH records";
        EXPECT_EQ(event->execveFields.Get("a1"), "\"hello\"");
        EXPECT_EQ(event->cwd, "/tmp/fx/watched");
        EXPECT_EQ(event->paths.size(), 2U);
    }
    EXPECT_NE(events[0].second->lines[0], events[1].second->lines[0]);
}

// Records of a rule of ours removed, or refused, make the keeper compare with the kernel's list
// (off the reading thread) and add what it lacks; other keys and successful adds do nothing.
TEST(Assembly, ConfigChangesPutOurMissingRulesBack)
{
    TestSupport::FakeInstallation install(0, "No rules");
    Pipeline p;
    NamedTask task("fw_task");
    TestSupport::WatchSub watch(&task, "t", "/tmp/fx/notyet/file -p wa");
    watch.AddTo(p.rules);
    const std::string key = "fw_task***t***/tmp/fx/notyet/file***wapidppid";
    ASSERT_TRUE(p.rules.RuleExists(key));
    const std::string add = "[-w][/tmp/fx/notyet/file][-p][wa][-k][" + key + "]";
    const auto change = [&](const std::string& fields) { p.log.HandleOneLineLog(Line("CONFIG_CHANGE", 5, fields)); };
    // Put back, and the keeper's round over: a record arriving during a round is that round's.
    const auto putBack = [&](size_t runs) {
        return TestSupport::WaitUntil([&] { return install.Commands().size() == runs && p.rules.Waiting().empty(); }) &&
               install.Commands()[runs - 2] == "[-l]" && install.Commands()[runs - 1] == add;
    };

    change("auid=0 ses=1 op=remove_rule key=\"" + key + "\" list=4 res=1");
    EXPECT_TRUE(putBack(3));
    change("op=remove_rule key=\"someone_else\" list=4 res=1");
    change("op=add_rule key=\"" + key + "\" list=4 res=1");
    change("op=add_rule key=\"" + key + "\" list=4 res=0");
    EXPECT_TRUE(putBack(5)) << "only the refused add asks";

    AuditLog orphan(nullptr, nullptr);  // no owner: nothing to fix
    orphan.HandleOneLineLog(Line("CONFIG_CHANGE", 9, "op=remove_rule key=\"" + key + "\""));
    p.rules.DeleteAllRules();
}

TEST(Delivery, TheArchitecturePicksTheTableAndFiltersAreCompared)
{
    Pipeline p;
    AuditLog& log = p.log;
    log.syscallRoutes32.insert(log.syscallRoutes64.extract(2));  // number 2 in the 32-bit table only
    auto event = std::make_shared<AuditEvent>();
    event->syscall = 2;
    // Only x86-64 uses the 64-bit table, whatever another arch's prefix (aarch64 is c00000b7).
    for (const auto& [arch, delivered] : {std::pair<const char*, size_t>{"c000003e", 0}, {"40000003", 1}, {"", 2}, {"c00000b7", 3}}) {
        event->arch = arch;
        log.DeliverEvent(event);
        EXPECT_EQ(p.subscriber.Drain().size(), delivered) << arch;
    }

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

    // A file route fails only when every access kind differs, or the process filter.
    auditFileSystemDest writeOnly;
    writeOnly.write = 1;
    event->read = true;
    EXPECT_TRUE(log.CheckFileEventInfo(&writeOnly, event));
    event->execute = event->attributeChange = true;
    EXPECT_FALSE(log.CheckFileEventInfo(&writeOnly, event));
    writeOnly.pids = {"1"};
    event->read = event->execute = event->attributeChange = false;
    EXPECT_FALSE(log.CheckFileEventInfo(&writeOnly, event));
    event->pid = "1";
    EXPECT_TRUE(log.CheckFileEventInfo(&writeOnly, event));
}

TEST(Delivery, PathRoutesWalkUpOnceAndSendOneMessagePerTaskAndTag)
{
    NamedTask owner("audit_task");
    Subscriber sub("fw_task");
    Subscriber twin("twin_task");
    AuditLog log(&owner, nullptr);
    const auto route = [](AuditLog& to, const std::string& path, Subscriber& task, const std::string& tag) {
        auditFileSystemDest dest;
        dest.task = &task;
        dest.tag = tag;
        dest.write = 1;
        to.pathRoutes.emplace(path, dest);
    };
    route(log, "/etc", sub, "same");
    route(log, "/etc/passwd", sub, "same");
    route(log, "/", sub, "root");
    auto event = std::make_shared<AuditEvent>();
    event->read = true;  // write-only routes still pass: exec and attr are clear on both sides
    AuditLogPath parent;
    parent.hostPath = "/etc";
    parent.nametype = "PARENT";
    AuditLogPath entry;
    entry.hostPath = "/etc/passwd";
    event->paths = {parent, entry, entry};
    log.DeliverEvent(event);
    const auto& got = sub.Drain();
    ASSERT_EQ(got.size(), 2U);  // "root" and "same", each once, in key order
    EXPECT_EQ(got[0].first + " " + got[1].first, "root same");
    EXPECT_EQ(got[0].second, event) << "the event is shared, not copied";
    route(log, "/etc", twin, "same");  // the same tag from another task is a message of its own
    log.DeliverEvent(event);
    EXPECT_EQ(sub.Drain().size(), 4U);
    EXPECT_EQ(twin.Drain().size(), 1U);

    // A PARENT record alone never delivers; a relative path never reaches "/".
    AuditLog alone(&owner, nullptr);
    route(alone, "/", twin, "");
    route(alone, "a", twin, "");
    event->paths = {parent};
    alone.DeliverEvent(event);
    EXPECT_EQ(twin.Drain().size(), 1U);
    entry.hostPath = "a/b";
    event->paths = {entry};
    alone.DeliverEvent(event);
    EXPECT_EQ(twin.Drain().size(), 2U);
}

// The fuzzing harness of the whole line path (every event routed, each delivered one checked)
// over its seed capture: it stays built and sound between fuzzing runs.
TEST(Assembly, TheLinePathFuzzingHarnessTakesARealCapture)
{
    const std::string input = TestSupport::ReadFile(TestSupport::FixturesDir() + "kernel-6.18-raw.log");
    EXPECT_EQ(LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(input.data()), input.size()), 0);
}
