// The export module's pieces: the configuration it shares with the agent, the JSON of file
// notifications, and the export task's output (driven turn by turn on the test's thread).
#include "AgentConfig.h"
#include "RuleText.h"

#include <Poco/JSON/Object.h>
#include "EventJson.h"
#include "ExportTask.h"

#include "framework/TaskRegistry.h"

#include "TestCommon.h"

using TestSupport::ReadFile;

TEST(ExportConfig, AGoodFileGivesItsSettingsWithPathsFromTheInstallation)
{
    TestSupport::TempDir home;
    const std::string installation = home.path() + "/";
    Export::AgentConfig config;
    std::string error;
    ASSERT_TRUE(Export::ParseAgentConfig(R"({
        "log": {"level": "debug"},
        "cpu": {"share": 0.25},
        "file_watch": {"max_entries": 1000},
        "file_integrity": {"baseline": "state/b.db", "max_hash_size": "512 K", "scan_cpu_share": 0.5},
        "output": {"file": "var/events.jsonl", "rotate_size": "1 M", "keep": 2, "stdout": false},
        "subscriptions": [
            {"tag": "exec", "syscall": "exit,always -F arch=b64 -S execve", "rate_limit": 0},
            {"tag": "self", "watch": "$INSTALLATION", "recursive": true, "events": "create, 512", "rate_limit": 20},
            {"tag": "tmp", "watch": "/tmp/../tmp", "events": "moved_from,moved_to,6"}
        ]})", installation, config, error)) << error;
    EXPECT_EQ(config.logLevel + " " + std::to_string(config.cpuShare).substr(0, 4), "debug 0.25");
    EXPECT_EQ(config.output.file + " " + std::to_string(config.output.rotateBytes) + " " + std::to_string(config.output.keep), installation + "var/events.jsonl 1048576 2");
    EXPECT_FALSE(config.output.toStdout);
    EXPECT_EQ(config.maxWatchEntries, 1000U);
    EXPECT_EQ(config.integrity.baseline + " " + std::to_string(config.integrity.maxHashBytes), installation + "state/b.db 524288");
    EXPECT_EQ(config.integrity.scanShare, 0.5);
    ASSERT_EQ(config.subscriptions.size(), 3U);
    EXPECT_EQ(config.subscriptions[0].syscall, "exit,always -F arch=b64 -S execve");
    EXPECT_EQ(config.subscriptions[1].watch + " " + std::to_string(config.subscriptions[1].events), home.path() + " 768");
    EXPECT_TRUE(config.subscriptions[1].recursive);
    EXPECT_EQ(config.subscriptions[2].watch + " " + std::to_string(config.subscriptions[2].events), "/tmp 198") << "resolved";
    EXPECT_EQ(config.subscriptions[2].entry, "subscriptions[2]");
    EXPECT_EQ(std::to_string(config.subscriptions[0].rateLimit) + " " + std::to_string(config.subscriptions[1].rateLimit) +
                  " " + std::to_string(config.subscriptions[2].rateLimit),
              "0 20 5000") << "no limit, its own, the default";
}

class ConfigErrorTable : public testing::TestWithParam<TestSupport::TableRow> {};

TEST_P(ConfigErrorTable, ABadFileNamesTheEntryAndWhatIsWrong)
{
    const std::vector<std::string>& row = GetParam().cells;
    ASSERT_GE(row.size(), 2U) << "the table holds no rows";
    Export::AgentConfig config;
    std::string error;
    EXPECT_FALSE(Export::ParseAgentConfig(row.at(0), "/opt/hw/", config, error)) << row[0];
    EXPECT_EQ(error.compare(0, row.at(1).size(), row[1]), 0) << row[0] << " gave: " << error;
}

INSTANTIATE_TEST_SUITE_P(Rows, ConfigErrorTable,
                         testing::ValuesIn(TestSupport::TableParams("native_module/module_export/tests/tables/config-errors.txt", 1)),
                         TestSupport::TableRowName);

TEST(ExportConfig, ABadFileOrWatchedPathNamesWhatIsWrong)
{
    Export::AgentConfig config;
    std::string error;
    EXPECT_FALSE(Export::LoadAgentConfig("/no/such/file.json", "/opt/hw/", config, error));
    EXPECT_EQ(error, "/no/such/file.json: cannot be read");

    // Watched paths that exist but cannot be keyed or run: the key separator, a control
    // character, a key longer than the kernel's limit (one character shorter is taken).
    TestSupport::TempDir dir;
    const std::string fits = dir.path() + "/" + std::string(255 - Engine::FileWatchRuleKey(dir.path() + "/").size(), 'd');
    for (const auto& [name, problem] : std::vector<std::pair<std::string, std::string>>{
             {"a***b", "cannot watch a path that holds \"***\""}, {"a\x01b", "cannot watch a path that holds a control"},
             {fits.substr(dir.path().size() + 1) + "dd", "cannot watch '" + fits + "dd': its kernel rule key would be 257 bytes"},
             {fits.substr(dir.path().size() + 1), ""}}) {
        ASSERT_EQ(mkdir((dir.path() + "/" + name).c_str(), 0755), 0);
        Poco::JSON::Object subscription;
        subscription.set("tag", "t");
        subscription.set("watch", dir.path() + "/" + name);
        std::ostringstream text;
        text << R"({"subscriptions": [)";
        subscription.stringify(text);
        text << "]}";
        Export::AgentConfig parsed;
        EXPECT_EQ(Export::ParseAgentConfig(text.str(), "/opt/hw/", parsed, error), problem.empty()) << name;
        const std::string expected = problem.empty() ? error : "subscriptions[0].watch: " + problem;
        EXPECT_EQ(error.compare(0, expected.size(), expected), 0) << error;
    }
}

TEST(ExportTask, WritesEachTurnOnceInValidUtf8)
{
    TestSupport::TempDir dir;
    Export::AgentConfig config;
    config.output.file = dir.path() + "/out/events.jsonl";
    Export::ExportTask task(config, nullptr);
    ASSERT_EQ(task.Init(), 0);
    Engine::AuditEventMessage event;
    event.tag = "exec";
    event.event = std::make_shared<Engine::AuditEvent>();
    event.event->exe = std::string("/tmp/\xff\xfe", 7);
    task.Receive(event);
    task.Receive(Engine::AuditEventMessage(nullptr, "/nowhere/f", "/nowhere/g", 192, true, {{"syscall", "82"}, {"comm", "mv"}}));
    EXPECT_EQ(ReadFile(config.output.file), "") << "written at the end of the turn";
    task.EndTurn();
    const std::string first = ReadFile(config.output.file);
    EXPECT_EQ(std::count(first.begin(), first.end(), '\n'), 2);
    EXPECT_NE(first.find("\"tags\":[\"exec\"]"), std::string::npos);
    EXPECT_NE(first.find("\"executable\":\"hex:2F746D702FFFFE\""), std::string::npos) << "valid UTF-8 whatever the bytes";
    const std::string move = first.substr(first.find('\n') + 1);
    EXPECT_EQ(move.find("\"tags\""), std::string::npos) << "no subscription covers it: no tag";
    EXPECT_NE(move.find("\"action\":\"move\""), std::string::npos);
    EXPECT_NE(move.find("\"file\":{\"path\":\"/nowhere/g\",\"type\":\"dir\"}"), std::string::npos) << move;
    EXPECT_NE(move.find("\"old_path\":\"/nowhere/f\""), std::string::npos) << move;

    task.UnInit();
}

// The file-watch task sends one copy of a notification per matching rule, in the order the
// rules were subscribed; each copy gets the tag of its rule.
TEST(ExportTask, NotificationsCarryTheTagsOfTheWatchesThatCoverThem)
{
    Export::AgentConfig config;  // entry, tag, syscall, watch, recursive, events
    config.subscriptions = {{"", "etc", "", "/etc", false, 966}, {"", "ssh", "", "/etc/ssh", false, 256},
                            {"", "etcd", "", "/etcd", false, 966}, {"", "root", "", "/", false, 512}};
    Export::ExportTask task(config, nullptr);
    std::string tags;
    for (const auto& [path, kind] : {std::pair<const char*, int>{"/etc/passwd", 2}, {"/etc/passwd", 2}, {"/etc/ssh/x", 256},
                                     {"/etc/ssh/x", 256}, {"/etc/ssh/x", 256}, {"/etc/ssh/x", 512}, {"/etc/ssh/x", 512},
                                     {"/etcd/x", 2}, {"/var/x", 2}, {"/etc/ssh", 0x4000}}) {
        tags += task.NotificationTag(Engine::AuditEventMessage(nullptr, path, "", kind, false, {}).result) + " ";
    }
    // A repeat of the same notification is the next covering rule's copy; ssh wants no deletes,
    // etcd covers no /etc/ssh, and / wants deletes only. An overflow names the watch itself.
    EXPECT_EQ(tags, "etc etc etc ssh etc etc root etcd  ssh ");
}

namespace {

// Stands in for the audit module's two tasks: answers every subscription with result.
class AuditDouble : public Framework::Task,
                    public Engine::AbstructMessage<Engine::AuditSyscallCtrlMessage>::Receiver,
                    public Engine::AbstructMessage<Engine::AuditFileSystemCtrlMessage>::Receiver {
public:
    AuditDouble(const std::string& name, int answer) : Framework::Task(name, "test", Framework::TaskCondition::kLoop, 64), answer_(answer) {}
    int Receive(const Engine::AuditSyscallCtrlMessage&) override { return answer_; }
    int Receive(const Engine::AuditFileSystemCtrlMessage&) override { return answer_; }

private:
    int answer_;
};

}  // namespace

// The agent stops with status 1 unless every subscription reaches the kernel: the audit module
// refuses it, finds the audit system unusable, is not there to answer, or auditctl fails.
TEST(ExportTask, StopsTheAgentUnlessEverySubscriptionReachesTheKernel)
{
    Export::AgentConfig config;  // entry, tag, syscall, watch, recursive, events
    config.subscriptions = {{"", "exec", "exit,always -F arch=b64 -S execve", "", false, 0}, {"", "etc", "", "/etc", false, 256}};
    const std::string kernel = "-a always,exit -F arch=b64 -S execve -F key=export_task***execexecvepidppid\n"
                               "-w /etc -p wa -k filewatch_audit_task***submodule***/etc***wapidppid\n";
    const std::tuple<const char*, int, std::string, int> cases[] = {  // answer 99: no audit tasks
        {"installed", 0, kernel, 0}, {"audit unusable", -1, kernel, 1}, {"refused", 2, kernel, 1},
        {"no audit module", 99, kernel, 1}, {"a rule missing from the kernel", 0, kernel.substr(kernel.find('\n') + 1), 1}};
    for (const auto& [what, answer, rules, stop] : cases) {
        Framework::TaskRegistry registry;
        AuditDouble audit("audit_task", answer);
        AuditDouble fileWatch("filewatch_audit_task", answer);
        if (answer != 99) {
            registry.Add(&audit);
            registry.Add(&fileWatch);
        }
        int stopped = 0;
        Export::ExportTask::Hooks hooks;
        hooks.stop = [&](int code) { stopped = code; };
        hooks.listRules = [&, listed = rules](std::string& out) {
            out = listed;
            return true;
        };
        hooks.installTime = std::chrono::milliseconds(0);
        Export::ExportTask task(config, nullptr, hooks);
        task.AttachRegistry(&registry);
        task.Subscribe();
        audit.BulkConsumeMsg(64);
        fileWatch.BulkConsumeMsg(64);
        task.EndTurn();
        EXPECT_EQ(stopped, stop) << what;
    }

    // The kernel's rules are the installation's auditctl's listing; a failed listing gives none.
    std::string listed;
    {
        TestSupport::FakeInstallation listing(0, "-w /etc -p wa");
        EXPECT_TRUE(Export::ListKernelRules(listed));
        EXPECT_EQ(listed, "-w /etc -p wa\n");
    }
    TestSupport::FakeInstallation refusing(1);
    EXPECT_FALSE(Export::ListKernelRules(listed));
}

TEST(ExportTask, TheOutputRotatesBySizeAndWhatArrivedBeforeTheStopIsWritten)
{
    TestSupport::TempDir dir;
    Export::AgentConfig config;
    config.output.file = dir.path() + "/events.jsonl";
    config.output.rotateBytes = 4096;
    config.output.keep = 1;
    Export::ExportTask rotating(config, nullptr);
    ASSERT_EQ(rotating.Init(), 0);
    Engine::AuditEventMessage event;
    event.event = std::make_shared<Engine::AuditEvent>();
    for (int turn = 0; turn < 12; ++turn) {
        rotating.Receive(event);  // some 600 bytes a line
        rotating.EndTurn();
    }
    int archives = 0;
    for (int n = 0; n < 8; ++n) {
        archives += access((config.output.file + "." + std::to_string(n)).c_str(), F_OK) == 0 ? 1 : 0;
    }
    EXPECT_EQ(archives, 1) << "rotated at 1 KiB, one archive kept";
    EXPECT_LT(ReadFile(config.output.file).size(), 2500U);
    rotating.UnInit();

    config.output = Export::AgentConfig().output;
    config.output.file = dir.path() + "/all.jsonl";
    Export::ExportTask::Hooks hooks;
    hooks.stop = [](int) {};
    hooks.listRules = [](std::string&) { return true; };
    auto* task = new Export::ExportTask(config, nullptr, hooks);
    ASSERT_EQ(task->Init(), 0);
    for (int i = 0; i < 3000; ++i) {
        auto* message = new Engine::AuditEventMessage;
        message->event = std::make_shared<Engine::AuditEvent>();
        task->PostMsg(message);
    }
    task->Stop();
    EXPECT_EQ(task->Run(), 0) << "stopped before its first turn";
    task->UnInit();
    delete task;
    const std::string written = ReadFile(config.output.file);
    EXPECT_EQ(std::count(written.begin(), written.end(), '\n'), 3000) << "every event that arrived before the stop";
}
