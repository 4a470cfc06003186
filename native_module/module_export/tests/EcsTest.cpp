// The ECS lines: real captured events through the audit module's own decoding, then the export's
// mapping with enrichment it is given; the argument decoding; the process table's refusal to
// guess; the id names read inside a root.
#include "EcsJson.h"
#include "EventJson.h"
#include "IdNames.h"
#include "ProcessTable.h"

#include "OfflineAudit.h"
#include "AuditMessages.h"

#include "framework/Task.h"

#include "TestCommon.h"

#include <Poco/JSON/Parser.h>

#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <map>

namespace {

// Names, processes and a container as a test says.
class FixedEnrichment : public Export::Enrichment {
public:
    bool Container(int32_t pid, int32_t, Export::ContainerFacts& container) override
    {
        if (pid != 5690) {
            return false;
        }
        container = {"c0ffee", "runc", "/run/containers/c0ffee/rootfs"};
        return true;
    }
    bool UserName(const std::string& root, uint32_t uid, std::string& name) override
    {
        return Lookup(root, uid, "user", name);
    }
    bool GroupName(const std::string& root, uint32_t gid, std::string& name) override
    {
        return Lookup(root, gid, "group", name);
    }
    const Export::ProcessFacts* Process(int32_t pid, uint64_t) override
    {
        const auto it = processes.find(pid);
        return it == processes.end() ? nullptr : &it->second;
    }
    void Exec(int32_t pid, uint64_t, Export::ProcessFacts facts) override { processes[pid] = std::move(facts); }

    std::map<int32_t, Export::ProcessFacts> processes;

private:
    static bool Lookup(const std::string& root, uint32_t id, const std::string& kind, std::string& name)
    {
        if (id == 4242) {
            return false;  // no entry
        }
        name = (root.empty() ? "" : "in-container-") + kind + std::to_string(id);
        return true;
    }
};

Export::EcsSettings Settings()
{
    Export::EcsSettings settings;
    settings.hostName = "host";
    settings.hostId = "machine";
    settings.agentVersion = "0.1.0";
    return settings;
}

// Every event of a log through the audit module's assembly and decoding.
class Decoder : public Framework::Task, public Engine::AbstructMessage<Engine::AuditEventMessage>::Receiver {
public:
    Decoder() : Framework::Task("ecs_test_task", "test", Framework::TaskCondition::kOnEvent, 100000) {}
    int Receive(const Engine::AuditEventMessage& msg) override
    {
        events.push_back(msg.event);
        return 0;
    }
    std::vector<std::shared_ptr<Engine::AuditEvent>> Decode(const std::string& log)
    {
        Engine::OfflineDecoder decoder(this);
        std::istringstream in(log);
        for (std::string line; std::getline(in, line);) {
            decoder.Line(line);
            BulkConsumeMsg(100000);
        }
        decoder.End();
        BulkConsumeMsg(100000);
        return events;
    }
    std::vector<std::shared_ptr<Engine::AuditEvent>> events;
};

std::shared_ptr<Engine::AuditEvent> OneEvent(const std::string& lines)
{
    Decoder decoder;
    const auto events = decoder.Decode(lines);
    return events.size() == 1 ? events.front() : nullptr;
}

bool ValidJson(const std::string& line)
{
    try {
        Poco::JSON::Parser().parse(line);
        return true;
    } catch (const Poco::Exception&) {
        return false;
    }
}

}  // namespace

// Every event of the captures, each a valid JSON object, against the golden file: the who, what,
// parent, address, paths and container as the mapping writes them (HW_UPDATE_GOLDEN=1 rewrites).
TEST(EcsEncoder, RealCapturesBecomeTheirGoldenEcsLines)
{
    Decoder decoder;
    const auto events = decoder.Decode(TestSupport::ReadFile(TestSupport::FixturesDir() + "kernel-6.18-raw.log"));
    ASSERT_GT(events.size(), 40U);
    FixedEnrichment enrichment;
    enrichment.processes[5640] = {1, "/usr/bin/bash", "bash", {"bash", "capture.sh"}, 0};
    Export::EcsEncoder encoder(Settings(), enrichment);
    std::string text;
    for (const auto& event : events) {
        std::string line;
        encoder.AppendEvent(line, *event, "t");
        EXPECT_TRUE(ValidJson(line)) << line;
        text += line + "\n";
    }
    TestSupport::ExpectGolden("native_module/module_export/tests/golden/ecs-kernel-6.18-raw.jsonl", text);
    EXPECT_EQ(enrichment.processes.count(5648), 0U) << "only program starts enter the table";
}

// A program start's arguments: quoted and hex ones decoded, split ones joined, several EXECVE
// records read in turn, any byte kept (the writer marks what is not UTF-8), and a list over the
// bound cut with a marker that says how much is missing.
TEST(EcsEncoder, ArgumentsAreDecodedJoinedAndCutWithAMarker)
{
    const std::string head = "type=SYSCALL msg=audit(1700000000.000:7): arch=c000003e syscall=59 success=yes exit=0 "
                             "ppid=1 pid=77 auid=4294967295 uid=0 gid=0 euid=0 suid=0 fsuid=0 egid=0 sgid=0 fsgid=0 "
                             "tty=(none) ses=4294967295 comm=\"x\" exe=\"/bin/x\" key=(null)\n";
    const auto args = [&](const std::string& execve, size_t max) {
        const auto event = OneEvent(head + execve);
        EXPECT_TRUE(event);
        return event ? Export::DecodeExecArgs(event->parsedEvent, max) : Export::ExecArgs();
    };
    auto result = args("type=EXECVE msg=audit(1700000000.000:7): argc=3 a0=\"x\" a1=68656C6C6F20776F726C64 a2=\"\"\n", 100);
    EXPECT_EQ(result.args, (std::vector<std::string>{"x", "hello world", ""}));
    EXPECT_EQ(result.count, 3U);
    result = args("type=EXECVE msg=audit(1700000000.000:7): argc=2 a0=\"x\" a1_len=6 a1[0]=616263 a1[1]=FF0A7A\n"
                  "type=EXECVE msg=audit(1700000000.000:7): a2=\"more\"\n", 100);
    EXPECT_EQ(result.args, (std::vector<std::string>{"x", "abc\xff\nz", "more"})) << "pieces joined, records in turn";
    result = args("type=EXECVE msg=audit(1700000000.000:7): argc=4 a0=\"x\" a1=\"abcdef\" a2=\"ghijkl\" a3=\"m\"\n", 5);
    EXPECT_EQ(result.args, (std::vector<std::string>{"x", "abcd", "[hostwarden: cut here, 9 more bytes of 3 arguments not shown]"}));
    EXPECT_EQ(result.count, 4U) << "the count stays the kernel's";

    // A program started is remembered as its process, with its arguments; a failed start is not.
    for (const bool success : {true, false}) {
        std::string failed = head;
        if (!success) {
            failed.replace(failed.find("success=yes exit=0"), 18, "success=no exit=-2");
        }
        const auto event = OneEvent((success ? head : failed) + "type=EXECVE msg=audit(1700000000.000:7): argc=2 a0=\"x\" a1=\"-v\"\n");
        ASSERT_TRUE(event);
        FixedEnrichment enrichment;
        Export::EcsEncoder encoder(Settings(), enrichment);
        std::string line;
        encoder.AppendEvent(line, *event, "");
        EXPECT_EQ(enrichment.processes.count(77), success ? 1U : 0U) << line;
        if (success) {
            EXPECT_EQ(enrichment.processes[77].args, (std::vector<std::string>{"x", "-v"}));
        }
    }

    std::vector<std::string> list = {"aaaa", "bbbb", "cccc", "dddd"};  // as a process's command line is read
    Export::CutArgs(list, 6);
    EXPECT_EQ(list, (std::vector<std::string>{"aaaa", "bb", "[hostwarden: cut here, 10 more bytes of 3 arguments not shown]"}));
    std::vector<std::string> utf8 = {"\xC3\xA9\xC3\xA9"};  // two two-byte characters
    Export::CutArgs(utf8, 3);
    EXPECT_EQ(utf8.front(), "\xC3\xA9") << "cut at a character boundary";
    EXPECT_EQ(Export::ProcessTitle("2F62696E2F7368002D630074727565"), "/bin/sh -c true");
}

// 10,000 arguments and one of 1 MB, as the kernel splits them, within the bound.
TEST(EcsEncoder, HugeArgumentListsStayWithinTheBound)
{
    std::string execve = "type=EXECVE msg=audit(1700000000.000:7): argc=10001 a0=\"x\"";
    for (int i = 1; i <= 10000; ++i) {
        execve += " a" + std::to_string(i) + "=\"arg" + std::to_string(i) + "\"";
    }
    auto event = OneEvent("type=SYSCALL msg=audit(1700000000.000:7): arch=c000003e syscall=59 success=yes ppid=1 pid=7 "
                          "uid=0 comm=\"x\" exe=\"/bin/x\"\n" + execve + "\n");
    ASSERT_TRUE(event);
    Export::ExecArgs result = Export::DecodeExecArgs(event->parsedEvent, 1000);
    size_t bytes = 0;
    for (size_t i = 0; i + 1 < result.args.size(); ++i) {
        bytes += result.args[i].size();
    }
    EXPECT_LE(bytes, 1000U);
    EXPECT_NE(result.args.back().find("arguments not shown"), std::string::npos);

    // The kernel writes a long argument in pieces, a record each.
    std::string big = "type=EXECVE msg=audit(1700000000.000:8): argc=2 a0=\"x\" a1_len=1048576\n";
    const std::string piece(7500, 'A');  // hex of 0xAA bytes
    for (int i = 0; i * 3750 < 1048576; ++i) {
        big += "type=EXECVE msg=audit(1700000000.000:8): a1[" + std::to_string(i) + "]=" + piece + "\n";
    }
    event = OneEvent("type=SYSCALL msg=audit(1700000000.000:8): arch=c000003e syscall=59 success=yes ppid=1 pid=7 "
                     "uid=0 comm=\"x\" exe=\"/bin/x\"\n" + big);
    ASSERT_TRUE(event);
    result = Export::DecodeExecArgs(event->parsedEvent, 65536);
    ASSERT_EQ(result.args.size(), 3U);
    EXPECT_EQ(result.args[1].size(), 65536U - 1);
    FixedEnrichment enrichment;
    std::string line;
    Export::EcsEncoder(Settings(), enrichment).AppendEvent(line, *event, "");
    EXPECT_TRUE(ValidJson(line));
    EXPECT_LT(line.size(), 200000U) << "bounded whatever the kernel wrote";
}

// Who: a uid without a passwd entry keeps its id without a name; an unset login uid is left out;
// a process in a container is named from the container's files.
TEST(EcsEncoder, UsersWithoutNamesAndUnsetLoginsAreLeftOutNotInvented)
{
    FixedEnrichment enrichment;
    Export::EcsEncoder encoder(Settings(), enrichment);
    auto event = OneEvent("type=SYSCALL msg=audit(1700000000.000:9): arch=c000003e syscall=42 success=no exit=-111 "
                          "ppid=1 pid=8 auid=4294967295 uid=4242 gid=4242 euid=4242 suid=4242 fsuid=4242 egid=4242 "
                          "sgid=4242 fsgid=4242 comm=\"nc\" exe=\"/bin/nc\"\n"
                          "type=SOCKADDR msg=audit(1700000000.000:9): saddr=0A000009000000000000000000000000000000000000000100000000\n");
    ASSERT_TRUE(event);
    std::string line;
    encoder.AppendEvent(line, *event, "");
    EXPECT_NE(line.find("\"user\":{\"id\":\"4242\",\"group\":{\"id\":\"4242\"}"), std::string::npos) << line;
    EXPECT_EQ(line.find("\"audit\""), std::string::npos) << line;
    EXPECT_NE(line.find("\"destination\":{\"ip\":\"::1\",\"port\":9,\"address\":\"::1\"},\"network\":{\"type\":\"ipv6\"}"),
              std::string::npos) << line;
    EXPECT_NE(line.find("\"outcome\":\"failure\""), std::string::npos);

    event = OneEvent("type=SYSCALL msg=audit(1700000000.000:10): arch=c000003e syscall=42 success=yes exit=0 ppid=1 "
                     "pid=5690 auid=1000 uid=0 gid=0 comm=\"c\" exe=\"/bin/c\"\n");
    line.clear();
    encoder.AppendEvent(line, *event, "");
    EXPECT_NE(line.find("\"user\":{\"id\":\"0\",\"name\":\"in-container-user0\""), std::string::npos) << line;
    EXPECT_NE(line.find("\"audit\":{\"id\":\"1000\",\"name\":\"in-container-user1000\"}"), std::string::npos) << line;
    EXPECT_NE(line.find("\"container\":{\"id\":\"c0ffee\",\"runtime\":\"runc\"}"), std::string::npos) << line;
    EXPECT_NE(line.find("\"root_path\":\"/run/containers/c0ffee/rootfs\""), std::string::npos) << line;
}

// A notification: the file as stat sees it now, the old name of a move, the actor of its call and
// the event's own time and serial.
TEST(EcsEncoder, NotificationsCarryTheFileAsItIsAndTheActor)
{
    TestSupport::TempDir dir;
    const std::string file = dir.Write("new", "12345");
    chmod(file.c_str(), 0640);
    FixedEnrichment enrichment;
    Export::EcsEncoder encoder(Settings(), enrichment);
    Engine::AuditEventMessage moved(nullptr, dir.path() + "/old", file, 192, false,
                                    {{"pid", "9"}, {"ppid", "1"}, {"uid", "1000"}, {"gid", "1000"}, {"exe", "/usr/bin/mv"},
                                     {"comm", "mv"}, {"syscall", "82"}, {"arch", "c000003e"}, {"success", "yes"},
                                     {"ouid", "0"}, {"cuid", "1000"},
                                     {Engine::kNotifyTimeMs, "1700000000123"}, {Engine::kNotifySerial, "77"}});
    std::string line;
    encoder.AppendNotification(line, moved.result, "files");
    EXPECT_TRUE(ValidJson(line)) << line;
    for (const std::string& part :
         {std::string("\"@timestamp\":\"2023-11-14T22:13:20.123Z\""),
          std::string("\"event\":{\"kind\":\"event\",\"category\":[\"file\"],\"type\":[\"change\"],\"action\":\"move\",\"outcome\":\"success\",\"id\":\"77\"}"),
          "\"file\":{\"path\":\"" + file + "\",\"type\":\"file\"", std::string("\"mode\":\"0640\""), std::string("\"size\":5"),
          "\"old_path\":\"" + dir.path() + "/old\"", std::string("\"user\":{\"id\":\"1000\",\"name\":\"user1000\""),
          std::string("\"process\":{\"pid\":9,\"executable\":\"/usr/bin/mv\",\"name\":\"mv\""), std::string("\"syscall\":\"rename\""),
          std::string("\"is_dir\":false,\"ouid\":\"0\",\"cuid\":\"1000\"")}) {
        EXPECT_NE(line.find(part), std::string::npos) << part << "\n" << line;
    }
    EXPECT_EQ(line.find("\"container\""), std::string::npos);

    // A change made inside a container names the container after its process.
    Engine::AuditEventMessage inside(nullptr, file, "", 2, false, {{"pid", "5690"}, {"ppid", "1"}, {"uid", "0"}, {"comm", "sh"}, {"success", "yes"}});
    line.clear();
    encoder.AppendNotification(line, inside.result, "files");
    EXPECT_NE(line.find("\"name\":\"sh\",\"parent\":{\"pid\":1}},\"container\":{\"id\":\"c0ffee\",\"runtime\":\"runc\"}"),
              std::string::npos) << line;
}

// The agent's notice of events it dropped is a line of its own, a metric, in both formats.
TEST(EcsEncoder, TheAgentsNoticeIsAMetricLineInBothFormats)
{
    Export::AgentNotice limited;
    limited.action = Export::AgentNotice::kRateLimited;
    limited.tag = "connect";
    limited.dropped = 20;
    limited.seconds = 10;
    limited.limit = 5;
    limited.users = {{"4242", "", 15}, {"0", "root", 5}};
    limited.programs = {{"/bin/nc", "", 20}};
    Export::AgentNotice lost;
    lost.action = Export::AgentNotice::kOutputLost;
    lost.dropped = 3;
    lost.seconds = 1;
    FixedEnrichment enrichment;
    Export::EcsEncoder encoder(Settings(), enrichment);
    std::string ecs;
    encoder.AppendNotice(ecs, limited, 1700000000123);
    std::string flat;
    Export::AppendNotice(flat, lost, 1700000000123);
    const std::string notice = R"("message":"subscription connect: 20 events over its limit of 5 a second dropped in 10 s; )"
                               R"(most from user 4242: 15, root (0): 5; program /bin/nc: 20","hostwarden":{"notice":{)"
                               R"("action":"rate-limited","dropped":20,"seconds":10,"limit":5,"users":[{"id":"4242",)"
                               R"("events":15},{"id":"0","name":"root","events":5}],"programs":[{"executable":"/bin/nc","events":20}]}}})";
    EXPECT_EQ(ecs, R"({"@timestamp":"2023-11-14T22:13:20.123Z","ecs":{"version":")" + std::string(Export::kEcsVersion) +
                       R"("},"host":{"name":"host","id":"machine"},"agent":{"type":"hostwarden","name":"host","version":"0.1.0"},)"
                       R"("tags":["connect"],"event":{"kind":"metric","action":"rate-limited"},)" + notice);
    EXPECT_EQ(flat, R"({"time_ms":1700000000123,"message":"output: 3 events could not be written whole and were lost in 1 s",)"
                    R"("hostwarden":{"notice":{"action":"output-lost","dropped":3,"seconds":1}}})");
    EXPECT_TRUE(ValidJson(ecs) && ValidJson(flat));
}

namespace {

// Processes as a test says: their start times, whether they live, what they run.
class FakeProcesses : public Export::ProcessSource {
public:
    bool StartMs(int32_t pid, uint64_t& startMs) override
    {
        ++asked;
        const auto it = live.find(pid);
        if (it == live.end()) {
            return false;
        }
        startMs = it->second.startMs;
        return true;
    }
    bool Read(int32_t pid, Export::ProcessFacts& facts) override
    {
        const auto it = live.find(pid);
        if (it == live.end()) {
            return false;
        }
        facts = it->second;
        return true;
    }
    std::vector<int32_t> Pids() override
    {
        std::vector<int32_t> pids;
        for (const auto& [pid, facts] : live) {
            pids.push_back(pid);
        }
        return pids;
    }
    std::map<int32_t, Export::ProcessFacts> live;
    int asked = 0;
};

Export::ProcessFacts Facts(const std::string& name, uint64_t startMs)
{
    return {1, "/bin/" + name, name, {name}, startMs};
}

}  // namespace

// A parent is what had its pid at the event's time: a seeded or started process that has ended
// since is still known; a pid a newer process holds, or one nobody knows, gives nothing.
TEST(ProcessTable, GivesAProcessOnlyForATimeItHeldThePid)
{
    FakeProcesses source;
    source.live[10] = Facts("seeded", 1000);
    Export::ProcessTable table(source, 100, std::chrono::milliseconds(0));
    table.Seed();
    source.live.erase(10);  // ended
    ASSERT_TRUE(table.Find(10, 5000));
    EXPECT_EQ(table.Find(10, 5000)->name, "seeded") << "known though ended";

    table.Exec(20, 6000, Facts("started", 0));
    EXPECT_EQ(table.Find(20, 6000)->name, "started") << "a start seen; the process ended before it was asked for";
    source.live[20] = Facts("newer", 7000);  // the pid taken by a newer process
    EXPECT_EQ(table.Find(20, 6500), nullptr) << "the newer process started after the event";
    EXPECT_EQ(table.Find(20, 8000)->name, "newer");

    EXPECT_EQ(table.Find(30, 9000), nullptr) << "never known, not alive";
    source.live[31] = Facts("late", 9500);
    EXPECT_EQ(table.Find(31, 9000), nullptr) << "alive, but started after the event";
    EXPECT_EQ(table.Find(31, 9600)->executable, "/bin/late") << "asked of the live processes";
    EXPECT_EQ(table.Find(31, 9700)->name, "late") << "known and still alive";
    EXPECT_EQ(table.Find(31, 9000), nullptr) << "known and alive, but asked for a time before it started";

    // A program start keeps its process's start time, whatever the caller guessed: the live
    // process that started before the exec is the one that ran it.
    table.Exec(40, 6000, Facts("after-exec", 6000));
    source.live[40] = Facts("before-exec", 5000);
    EXPECT_EQ(table.Find(40, 6100)->name, "after-exec");
}

// Rechecks of a live process are spared within the recheck time; a full table forgets ended
// processes first and still answers.
TEST(ProcessTable, StaysWithinItsCapacityAndSparesRechecks)
{
    FakeProcesses source;
    Export::ProcessTable table(source, 4, std::chrono::seconds(60));
    for (int32_t pid = 1; pid <= 4; ++pid) {
        source.live[pid] = Facts("p" + std::to_string(pid), 100);
        ASSERT_TRUE(table.Find(pid, 200));
    }
    const int asked = source.asked;
    EXPECT_TRUE(table.Find(1, 300));
    EXPECT_EQ(source.asked, asked) << "checked a moment ago";
    source.live.erase(2);
    source.live[5] = Facts("p5", 100);
    ASSERT_TRUE(table.Find(5, 300));
    EXPECT_EQ(table.size(), 4U) << "the ended process made room";
    source.live[6] = Facts("p6", 100);
    EXPECT_EQ(table.Find(6, 300)->name, "p6") << "a full table still answers";
    EXPECT_EQ(table.size(), 4U);
}

// A process as /proc gives it: this one, and a name with blanks and parentheses of its own.
TEST(ProcessTable, ProcGivesTheParentNameProgramArgumentsAndStartOfAProcess)
{
    Export::ProcProcessSource live(4096);
    Export::ProcessFacts self;
    ASSERT_TRUE(live.Read(getpid(), self));
    EXPECT_EQ(self.ppid, getppid());
    EXPECT_EQ(self.executable, std::filesystem::read_symlink("/proc/self/exe").string());
    EXPECT_EQ(self.name, TestSupport::ReadFile("/proc/self/comm").substr(0, self.name.size()));
    const uint64_t nowMs = static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                                     std::chrono::system_clock::now().time_since_epoch()).count());
    EXPECT_LE(self.startMs, nowMs);
    EXPECT_GT(self.startMs + 3600 * 1000, nowMs) << "started within the hour";

    TestSupport::TempDir proc;
    proc.Write("4242/stat", "4242 (a) b (c) S 77 4242 4242 0 -1 4194560 0 0 0 0 0 0 0 0 20 0 1 0 100 0 0\n");
    proc.Write("4242/cmdline", std::string("x\0-y\0", 5));
    std::filesystem::create_symlink("/bin/x", proc.path() + "/4242/exe");
    Export::ProcProcessSource fake(4096, proc.path());
    Export::ProcessFacts odd;
    ASSERT_TRUE(fake.Read(4242, odd));
    EXPECT_EQ(std::to_string(odd.ppid) + " " + odd.name + " " + odd.executable, "77 a) b (c /bin/x");
    EXPECT_EQ(odd.args, (std::vector<std::string>{"x", "-y"}));
    EXPECT_EQ(fake.Pids(), std::vector<int32_t>{4242});
}

// passwd and group texts: the first name of an id, comments and broken lines skipped.
TEST(IdNames, ReadsNamesOfBothFilesAndFollowsChanges)
{
    const auto names = Export::IdNames::ParseIdFile("root:x:0:0:root:/root:/bin/bash\n# comment\nbroken\n"
                                                    "toor:x:0:0::/:/bin/sh\nnobody:x:65534:65534::/:/bin/false\n"
                                                    "bad:x:notanumber:0::/:\nwheel:x:10:alice,bob");
    EXPECT_EQ(names.size(), 3U);
    EXPECT_EQ(names.at(0), "root");
    EXPECT_EQ(names.at(65534), "nobody");
    EXPECT_EQ(names.at(10), "wheel");

    TestSupport::TempDir root;
    std::filesystem::create_directories(root.path() + "/etc");
    root.Write("etc/passwd", "app:x:1000:1000::/:/bin/sh\n");
    Export::IdNames cache(std::chrono::milliseconds(0));
    std::string name;
    ASSERT_TRUE(cache.UserName(root.path(), 1000, name));
    EXPECT_EQ(name, "app");
    root.Write("etc/passwd", "renamed:x:1000:1000::/:/bin/sh\nother:x:1001:1001::/:/bin/sh\n");
    ASSERT_TRUE(cache.UserName(root.path(), 1000, name));
    EXPECT_EQ(name, "renamed") << "a changed file is read again";
    EXPECT_FALSE(cache.GroupName(root.path(), 1000, name)) << "no group file";
}

// A container's /etc/passwd is read as the container sees it: a link out of its root stays
// inside, and a FIFO planted there neither hangs the agent nor gives names.
TEST(IdNames, AContainersFilesAreReadInsideItsRoot)
{
    TestSupport::TempDir root;
    std::filesystem::create_directories(root.path() + "/etc");
    std::filesystem::create_directories(root.path() + "/inside/etc");
    root.Write("inside/etc/group", "mine:x:5:\n");
    // Absolute links resolve against the container's root, as they would inside it.
    ASSERT_EQ(symlink("/inside/etc/group", (root.path() + "/etc/group").c_str()), 0);
    ASSERT_EQ(symlink("/etc/hostname", (root.path() + "/etc/passwd").c_str()), 0);
    Export::IdNames cache;
    std::string name;
    ASSERT_TRUE(cache.GroupName(root.path(), 5, name));
    EXPECT_EQ(name, "mine");
    EXPECT_FALSE(cache.UserName(root.path(), 0, name)) << "the host's /etc/hostname is not reached";
    EXPECT_EQ(Export::OpenInRoot(root.path(), "../../../etc/passwd"), -1) << "no file of that name inside";

    TestSupport::TempDir fifoRoot;
    std::filesystem::create_directories(fifoRoot.path() + "/etc");
    ASSERT_EQ(mkfifo((fifoRoot.path() + "/etc/passwd").c_str(), 0644), 0);
    EXPECT_FALSE(cache.UserName(fifoRoot.path(), 0, name)) << "a FIFO is no passwd file";
}
