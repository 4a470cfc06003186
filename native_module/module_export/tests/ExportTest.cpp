// The export module's pieces: the configuration it shares with the agent, the JSON of file
// notifications, and the export task's output (driven turn by turn on the test's thread).
#include "AgentConfig.h"
#include "EventJson.h"
#include "ExportTask.h"

#include "FileAuditWatch.h"

#include "framework/TaskRegistry.h"

#include "TestCommon.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>

namespace {

using TestSupport::ReadFile;

Engine::AuditEventResult Notification(const std::string& path, int kind)
{
    Engine::AuditEventResult result;
    result.path = path;
    result.event = kind;
    return result;
}

}  // namespace

TEST(ExportConfig, EventListsTakeNamesAndNumbersAndRefuseAnythingElse)
{
    struct Case {
        const char* list;
        bool ok;
        uint32_t mask;
    };
    const Case cases[] = {
        {"", true, 2 | 4 | 64 | 128 | 256 | 512}, {"create", true, 256}, {"moved_from,moved_to", true, 192},
        {"create, 512", true, 768},                {"6", true, 6},        {"1", true, 1},
        {"8", false, 0},                           {"0", false, 0},       {"create,", false, 0},
        {"move", false, 0},                        {"2x", false, 0},      {"CREATE", false, 0},
    };
    for (const Case& c : cases) {
        uint32_t mask = 0;
        std::string bad;
        EXPECT_EQ(Export::ParseEventMask(c.list, mask, bad), c.ok) << c.list;
        if (c.ok) {
            EXPECT_EQ(mask, c.mask) << c.list;
        }
    }
}

TEST(ExportConfig, AGoodFileGivesItsSettingsWithPathsFromTheInstallation)
{
    TestSupport::TempDir home;
    const std::string installation = home.path() + "/";
    Export::AgentConfig config;
    std::string error;
    ASSERT_TRUE(Export::ParseAgentConfig(R"({
        "log": {"level": "debug"},
        "cpu": {"share": 0.25},
        "output": {"file": "var/events.jsonl", "rotate_size": "1 M", "keep": 2, "stdout": false},
        "subscriptions": [
            {"tag": "exec", "syscall": "exit,always -F arch=b64 -S execve"},
            {"tag": "self", "watch": "$INSTALLATION", "recursive": true, "events": "create,delete"},
            {"tag": "tmp", "watch": "/tmp/../tmp"}
        ]})", installation, config, error)) << error;
    EXPECT_EQ(config.logLevel, "debug");
    EXPECT_DOUBLE_EQ(config.cpuShare, 0.25);
    EXPECT_EQ(config.output.file, installation + "var/events.jsonl");
    EXPECT_EQ(config.output.rotateSize, "1 M");
    EXPECT_EQ(config.output.keep, 2);
    EXPECT_FALSE(config.output.toStdout);
    ASSERT_EQ(config.subscriptions.size(), 3U);
    EXPECT_EQ(config.subscriptions[0].syscall, "exit,always -F arch=b64 -S execve");
    EXPECT_EQ(config.subscriptions[1].watch, home.path());
    EXPECT_TRUE(config.subscriptions[1].recursive);
    EXPECT_EQ(config.subscriptions[1].events, 768U);
    EXPECT_EQ(config.subscriptions[2].watch, "/tmp") << "resolved";
    EXPECT_EQ(config.subscriptions[2].events, 966U) << "every kind by default";
    EXPECT_EQ(config.subscriptions[2].entry, "subscriptions[2]");

    Export::AgentConfig defaults;
    ASSERT_TRUE(Export::ParseAgentConfig("{}", installation, defaults, error));
    EXPECT_TRUE(defaults.output.file.empty());
    EXPECT_TRUE(defaults.output.toStdout);
}

TEST(ExportConfig, ABadFileNamesTheEntryAndWhatIsWrong)
{
    const std::pair<const char*, const char*> cases[] = {
        {"[1", "the file: not JSON"},
        {"[]", "the file: must be an object"},
        {R"({"logs": {}})", "logs: unknown key"},
        {R"({"log": {"level": 3}})", "log.level: must be a string"},
        {R"({"log": {"colour": "red"}})", "log.colour: unknown key"},
        {R"({"cpu": {"share": 1.5}})", "cpu.share: must be a number from 0 (no limit) to below 1"},
        {R"({"output": {"keep": 0}})", "output.keep: must be a whole number from 1 to 1000"},
        {R"({"output": {"rotate_size": "10MB"}})", "output.rotate_size: '10MB' is not a rotation"},
        {R"({"output": {"stdout": "yes"}})", "output.stdout: must be true or false"},
        {R"({"subscriptions": {}})", "subscriptions: must be a list"},
        {R"({"subscriptions": [7]})", "subscriptions[0]: must be an object"},
        {R"({"subscriptions": [{"syscall": "exit,always -S open"}]})", "subscriptions[0].tag: must be given"},
        {R"({"subscriptions": [{"tag": "a b", "syscall": "x"}]})", "subscriptions[0].tag: must be given"},
        {R"({"subscriptions": [{"tag": "t"}]})", "subscriptions[0]: needs exactly one of syscall"},
        {R"({"subscriptions": [{"tag": "t", "syscall": "x", "watch": "/tmp"}]})", "subscriptions[0]: needs exactly one"},
        {R"({"subscriptions": [{"tag": "t", "syscall": "x", "recursive": true}]})",
         "subscriptions[0]: recursive and events belong to watches"},
        {R"({"subscriptions": [{"tag": "t", "watch": "/no/such/dir"}]})",
         "subscriptions[0].watch: no such file or directory: '/no/such/dir'"},
        {R"({"subscriptions": [{"tag": "t", "watch": "/tmp", "events": "create,grow"}]})",
         "subscriptions[0].events: unknown event 'grow'"},
        {R"({"subscriptions": [{"tag": "t", "watch": "/tmp", "mode": 1}]})", "subscriptions[0].mode: unknown key"},
        {R"({"subscriptions": [{"tag": "a", "watch": "/tmp"}, {"tag": "b", "watch": "/tmp/"}]})",
         "subscriptions[1]: watches what subscriptions[0] watches"},
    };
    for (const auto& [text, expected] : cases) {
        Export::AgentConfig config;
        std::string error;
        EXPECT_FALSE(Export::ParseAgentConfig(text, "/opt/hw/", config, error)) << text;
        EXPECT_EQ(error.compare(0, std::string(expected).size(), expected), 0) << text << " gave: " << error;
    }
    Export::AgentConfig config;
    std::string error;
    EXPECT_FALSE(Export::LoadAgentConfig("/no/such/file.json", "/opt/hw/", config, error));
    EXPECT_EQ(error, "/no/such/file.json: cannot be read");
}

TEST(ExportJson, ANotificationIsOneJsonLineWithItsKindNamed)
{
    Engine::AuditEventResult result = Notification("/w/a", 192);
    result.destPath = "/w/b";
    result.isDir = true;
    result.extra = {{"syscall", "82"}, {"comm", "mv"}};
    EXPECT_EQ(Export::NotificationToJson(result, "t"),
              "{\"tag\":\"t\",\"path\":\"/w/a\",\"event\":192,\"kind\":\"move\",\"isDir\":true,\"destPath\":\"/w/b\","
              "\"extra\":{\"comm\":\"mv\",\"syscall\":\"82\"}}");
    EXPECT_EQ(Export::NotificationKindName(64) + Export::NotificationKindName(1), "moved_from1");
}

TEST(ExportTask, WritesEachTurnOnceAndReopensAMovedFile)
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
    task.Receive(Engine::AuditEventMessage(nullptr, "/nowhere/f", "", 256, false, {}));
    EXPECT_EQ(ReadFile(config.output.file), "") << "written at the end of the turn";
    task.EndTurn();
    const std::string first = ReadFile(config.output.file);
    EXPECT_EQ(std::count(first.begin(), first.end(), '\n'), 2);
    EXPECT_NE(first.find("\"tag\":\"exec\""), std::string::npos);
    EXPECT_NE(first.find("\"exe\":\"hex:2F746D702FFFFE\""), std::string::npos) << "valid UTF-8 whatever the bytes";
    EXPECT_NE(first.find("{\"tag\":\"\",\"path\":\"/nowhere/f\""), std::string::npos) << "no subscription covers it";

    ASSERT_EQ(std::rename(config.output.file.c_str(), (config.output.file + ".1").c_str()), 0);  // logrotate
    task.RequestReopen();
    task.Receive(event);
    task.EndTurn();
    EXPECT_EQ(ReadFile(config.output.file + ".1"), first) << "nothing more into the moved file";
    EXPECT_NE(ReadFile(config.output.file).find("\"tag\":\"exec\""), std::string::npos);
    task.UnInit();
}

// The file-watch task sends one copy of a notification per matching rule, in the order the
// rules were subscribed; each copy gets the tag of its rule.
TEST(ExportTask, NotificationsCarryTheTagsOfTheWatchesThatCoverThem)
{
    Export::AgentConfig config;
    const auto watch = [&](const char* tag, const char* path, uint32_t events) {
        Export::Subscription s;
        s.tag = tag;
        s.watch = path;
        s.events = events;
        config.subscriptions.push_back(s);
    };
    watch("etc", "/etc", 966);
    watch("ssh", "/etc/ssh", 256);
    watch("etcd", "/etcd", 966);
    watch("root", "/", 512);
    Export::ExportTask task(config, nullptr);
    const auto tag = [&](const char* path, int kind) { return task.NotificationTag(Notification(path, kind)); };
    EXPECT_EQ(tag("/etc/passwd", 2), "etc");
    EXPECT_EQ(tag("/etc/passwd", 2), "etc") << "a second event, with one rule covering it";
    EXPECT_EQ(tag("/etc/ssh/x", 256), "etc");
    EXPECT_EQ(tag("/etc/ssh/x", 256), "ssh") << "the second copy";
    EXPECT_EQ(tag("/etc/ssh/x", 256), "etc") << "the next event's first copy";
    EXPECT_EQ(tag("/etc/ssh/x", 512), "etc") << "ssh does not want deletes";
    EXPECT_EQ(tag("/etc/ssh/x", 512), "root") << "nor does etcd cover it, but / does";
    EXPECT_EQ(tag("/etcd/x", 2), "etcd");
    EXPECT_EQ(tag("/var/x", 2), "");
}

namespace {

// Stands in for the audit module's two tasks: answers every subscription with result.
class AuditDouble : public Framework::Task,
                    public Engine::AbstructMessage<Engine::AuditSyscallCtrlMessage>::Receiver,
                    public Engine::AbstructMessage<Engine::AuditFileSystemCtrlMessage>::Receiver {
public:
    AuditDouble(const std::string& name, int answer)
        : Framework::Task(name, "test", Framework::TaskCondition::kLoop, 64), answer_(answer) {}
    int Receive(const Engine::AuditSyscallCtrlMessage&) override { return answer_; }
    int Receive(const Engine::AuditFileSystemCtrlMessage&) override { return answer_; }

private:
    int answer_;
};

Export::AgentConfig TwoSubscriptions()
{
    Export::AgentConfig config;
    Export::Subscription rule;
    rule.entry = "subscriptions[0]";
    rule.tag = "exec";
    rule.syscall = "exit,always -F arch=b64 -S execve";
    Export::Subscription watch;
    watch.entry = "subscriptions[1]";
    watch.tag = "etc";
    watch.watch = "/etc";
    watch.events = 256;
    config.subscriptions = {rule, watch};
    return config;
}

}  // namespace

// The agent stops with status 1 unless every subscription reaches the kernel: the audit module
// refuses it, finds the audit system unusable, is not there to answer, or auditctl fails.
TEST(ExportTask, StopsTheAgentUnlessEverySubscriptionReachesTheKernel)
{
    const std::string kernel = "-a always,exit -F arch=b64 -S execve -F key=export_task***execexecvepidppid\n"
                               "-w /etc -p wa -k filewatch_audit_task***submodule***/etc***wapidppid\n";
    struct Case {
        const char* what;
        int answer;  // the audit tasks' result; 99: no audit tasks at all
        std::string rules;
        int stopped;  // the stop code asked for; 0: none
    };
    const Case cases[] = {
        {"installed", 0, kernel, 0},
        {"audit unusable", -1, kernel, 1},
        {"refused", 2, kernel, 1},
        {"no audit module", 99, kernel, 1},
        {"a rule missing from the kernel", 0, kernel.substr(kernel.find('\n') + 1), 1},
    };
    for (const Case& c : cases) {
        Framework::TaskRegistry registry;
        AuditDouble audit("audit_task", c.answer);
        AuditDouble fileWatch("filewatch_audit_task", c.answer);
        if (c.answer != 99) {
            registry.Add(&audit);
            registry.Add(&fileWatch);
        }
        int stopped = 0;
        Export::ExportTask::Hooks hooks;
        hooks.stop = [&](int code) { stopped = code; };
        hooks.listRules = [&](std::string& rules) {
            rules = c.rules;
            return true;
        };
        hooks.installTime = std::chrono::milliseconds(0);
        Export::ExportTask task(TwoSubscriptions(), nullptr, hooks);
        task.AttachRegistry(&registry);
        task.Subscribe();
        audit.BulkConsumeMsg(64);
        fileWatch.BulkConsumeMsg(64);
        task.EndTurn();
        EXPECT_EQ(stopped, c.stopped) << c.what;
    }
}

TEST(ExportTask, TheOutputRotatesBySizeAndKeepsItsArchives)
{
    TestSupport::TempDir dir;
    Export::AgentConfig config;
    config.output.file = dir.path() + "/events.jsonl";
    config.output.rotateSize = "1 K";
    config.output.keep = 1;
    Export::ExportTask task(config, nullptr);
    ASSERT_EQ(task.Init(), 0);
    Engine::AuditEventMessage event;
    event.event = std::make_shared<Engine::AuditEvent>();
    for (int turn = 0; turn < 6; ++turn) {
        task.Receive(event);  // some 600 bytes a line
        task.Receive(event);
        task.EndTurn();
    }
    int archives = 0;
    for (int n = 0; n < 8; ++n) {
        archives += access((config.output.file + "." + std::to_string(n)).c_str(), F_OK) == 0 ? 1 : 0;
    }
    EXPECT_EQ(archives, 1) << "rotated at 1 KiB, one archive kept";
    EXPECT_LT(ReadFile(config.output.file).size(), 2500U);
}

// Events that arrived before the stop are written, however many.
TEST(ExportTask, WhatArrivedBeforeTheStopIsWritten)
{
    TestSupport::TempDir dir;
    Export::AgentConfig config;
    config.output.file = dir.path() + "/events.jsonl";
    Export::ExportTask::Hooks hooks;
    hooks.stop = [](int) {};
    hooks.listRules = [](std::string&) { return true; };
    auto* task = new Export::ExportTask(config, nullptr, hooks);
    ASSERT_EQ(task->Init(), 0);
    for (int i = 0; i < 3000; ++i) {
        auto* event = new Engine::AuditEventMessage;
        event->event = std::make_shared<Engine::AuditEvent>();
        task->PostMsg(event);
    }
    task->Stop();
    EXPECT_EQ(task->Run(), 0) << "stopped before its first turn";
    task->UnInit();
    const std::string written = ReadFile(config.output.file);
    EXPECT_EQ(std::count(written.begin(), written.end(), '\n'), 3000);
    delete task;
}
