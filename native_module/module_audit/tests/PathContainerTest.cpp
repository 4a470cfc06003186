// Path resolution and container translation, through a ContainerMetaInfo test double.
#include "AuditLog.h"
#include "AuditMessages.h"
#include "AuditRules.h"
#include "AuditUtil.h"

#include "TestSupport.h"

#include "container/ContainerMetaInfo.h"
#include "framework/Engine.h"
#include "framework/Module.h"

#include <gtest/gtest.h>

#include <unistd.h>

using namespace Engine;

namespace {

// Containers by id and by process, recording every lookup.
class FakeContainers : public Framework::Task, public Framework::ContainerMetaInfo {
public:
    FakeContainers() : Framework::Task(Framework::kContainerCollectTaskName, "test", Framework::TaskCondition::kLoop, 8) {}
    bool GetContainerInfoById(const std::string& id, std::shared_ptr<Framework::ContainerInfo>& info) override
    {
        lookups.push_back("id:" + id);
        const auto it = byId.find(id);
        if (it == byId.end()) {
            return false;
        }
        info = it->second;
        return true;
    }
    bool GetContainerInfoByPid(int pid, std::shared_ptr<Framework::ContainerInfo>& info) override
    {
        lookups.push_back("pid:" + std::to_string(pid));
        const auto it = byPid.find(pid);
        if (it == byPid.end()) {
            return false;
        }
        info = it->second;
        return true;
    }
    std::map<std::string, std::shared_ptr<Framework::ContainerInfo>> byId;
    std::map<int, std::shared_ptr<Framework::ContainerInfo>> byPid;
    std::vector<std::string> lookups;
};

class ContainerModule : public Framework::Module {
public:
    explicit ContainerModule(FakeContainers* task) : Framework::Module("container_module"), task_(task) {}
    int Init() override { return RegisterTask(task_, false); }

private:
    FakeContainers* task_;
};

// An engine whose container task is the double; the module caches the provider per process.
class Containers : public testing::Test {
protected:
    void SetUp() override
    {
        auto info = std::make_shared<Framework::ContainerInfo>();
        info->id = "abc";
        info->rootPath = "/var/lib/docker/overlay2/abc/merged";
        info->mounts = {{"/srv/data", "/data", "", true}, {"/srv/logs", "/var/log", "", true},
                        {"/srv/cache", "/cache/", "", true}};
        fake_.byId["abc"] = info;
        fake_.byPid[500] = info;
        ASSERT_EQ(engine_.AddModule(std::make_unique<ContainerModule>(&fake_)), 0);
        ASSERT_EQ(engine_.StartTasks(), 0);
        LinuxAuditUtil::ResetContainerMetaCache();
    }
    void TearDown() override
    {
        engine_.StopAll();
        LinuxAuditUtil::ResetContainerMetaCache();
    }
    std::shared_ptr<AuditEvent> Event(const std::string& pid, const std::string& ppid, const std::string& key = "")
    {
        auto event = std::make_shared<AuditEvent>();
        event->pid = pid;
        event->ppid = ppid;
        event->key = key;
        return event;
    }
    std::string HostPath(const std::shared_ptr<AuditEvent>& event, const std::string& path)
    {
        AuditLogPath record;
        record.path = path;
        record.hostPath = path;
        EXPECT_EQ(log_.LogPathProcForContainer(event, record), 0);
        return record.hostPath;
    }
    FakeContainers fake_;
    Framework::Engine engine_;
    AuditLog log_{nullptr, nullptr};
};

}  // namespace

// A host path is the file as the host names it: relative parts and links resolved when it exists.
TEST(PathHelpers, HostPathsAreResolved)
{
    TestSupport::TempDir dir;
    dir.Write("real/x", "");
    ASSERT_EQ(symlink((dir.path() + "/real").c_str(), (dir.path() + "/link").c_str()), 0);
    AuditLog log(nullptr, nullptr);
    auto event = std::make_shared<AuditEvent>();
    const auto host = [&](const std::string& name, const std::string& cwd) {
        SDK::AuditFields record;
        record.Add("name", "\"" + name + "\"");
        event->paths.clear();
        EXPECT_EQ(log.GenerateLogPathForOneRecord(event, record, cwd), 0);
        return event->paths.back().hostPath;
    };
    EXPECT_EQ(host("./x", dir.path() + "/real"), dir.path() + "/real/x");
    EXPECT_EQ(host("../real/x", dir.path() + "/link"), dir.path() + "/real/x");
    EXPECT_EQ(host("x", dir.path() + "/link"), dir.path() + "/real/x") << "through the symlinked directory";
    EXPECT_EQ(host("gone", dir.path() + "/link"), dir.path() + "/link/gone") << "a deleted file keeps its path";
}

TEST(PathHelpers, AbsolutePathsPrefixesAndContainerKeys)
{
    EXPECT_EQ(getFilepath("/home/u", "a.txt"), "/home/u/a.txt");
    EXPECT_EQ(getFilepath("/home/u", "/etc/passwd"), "/etc/passwd");
    EXPECT_EQ(getFilepath("/tmp", "./a"), "/tmp/./a");
    EXPECT_EQ(getFilepath("", "a"), "/a");
    EXPECT_EQ(getFilepath("/tmp", ""), "");
    EXPECT_TRUE(StartsWith("/data/x/y", "/data"));
    EXPECT_FALSE(StartsWith("/database/z", "/data"));
    EXPECT_FALSE(StartsWith("/data", "/data"));
    EXPECT_TRUE(StartsWith("/data/", "/data/"));
    EXPECT_TRUE(StartsWith("/x", ""));
    EXPECT_FALSE(StartsWith("x", ""));
    std::string id = "kept";
    getContainerId("task***tag***rest", id);
    EXPECT_EQ(id, "kept");
    getContainerId("task***cid:abc***rest", id);
    EXPECT_EQ(id, "abc");
    std::string two = "kept";
    getContainerId("task***cid:abc", two);
    EXPECT_EQ(two, "kept") << "fewer than three pieces";
}

TEST_F(Containers, AKeyWithAContainerIdSkipsTheProcessLookups)
{
    EXPECT_EQ(HostPath(Event("1", "2", "task***cid:abc***x"), "/data/x/y"), "/srv/data/x/y");
    EXPECT_EQ(fake_.lookups, std::vector<std::string>{"id:abc"});
}

TEST_F(Containers, TheParentProcessIsAskedFirstThenTheProcess)
{
    EXPECT_EQ(HostPath(Event("500", "400"), "/data/file"), "/srv/data/file");
    EXPECT_EQ(fake_.lookups, (std::vector<std::string>{"pid:400", "pid:500", "id:abc"}));
    fake_.lookups.clear();
    EXPECT_EQ(HostPath(Event("7", "500"), "/var/log/syslog"), "/srv/logs/syslog");
    EXPECT_EQ(fake_.lookups, (std::vector<std::string>{"pid:500", "id:abc"}));
    // The rest of the path follows the source as it is: a destination written with a trailing
    // slash has taken the separator with it.
    EXPECT_EQ(HostPath(Event("7", "500"), "/cache/item"), "/srv/cacheitem");
}

TEST_F(Containers, WithoutAMatchingMountTheContainerRootIsPrefixed)
{
    EXPECT_EQ(HostPath(Event("500", "1"), "/database/z"), "/var/lib/docker/overlay2/abc/merged/database/z");
    EXPECT_EQ(HostPath(Event("500", "1"), "/data"), "/var/lib/docker/overlay2/abc/merged/data");
    EXPECT_EQ(HostPath(Event("9", "8"), "/data/x"), "/data/x") << "a process outside containers is left alone";
    EXPECT_EQ(HostPath(Event("1", "2", "t***cid:gone***x"), "/data/x"), "/data/x") << "an unknown id too";
}

TEST_F(Containers, AnUnconvertibleProcessIdDropsTheRecordAndStopsThePaths)
{
    AuditLogPath record;
    EXPECT_EQ(log_.LogPathProcForContainer(Event("x1", "2"), record), -1);
    EXPECT_EQ(log_.LogPathProcForContainer(Event("1", ""), record), -1);

    auto event = Event("abc", "1");
    SDK::AuditParser parser;
    parser.FeedLine("type=SYSCALL msg=audit(1.000:1): arch=c000003e syscall=2 items=2 pid=abc ppid=1");
    parser.FeedLine("type=CWD msg=audit(1.000:1): cwd=\"/\"");
    parser.FeedLine("type=PATH msg=audit(1.000:1): item=0 name=\"/a\"");
    parser.FeedLine("type=PATH msg=audit(1.000:1): item=1 name=\"/b\"");
    parser.Flush();
    event->parsedEvent = parser.GetEvents()[0];
    EXPECT_EQ(log_.setFileSystemInfo(event), -1);
    EXPECT_TRUE(event->paths.empty());
    EXPECT_FALSE(event->write) << "flags are skipped too";

    // The event itself is still delivered.
    TestSupport::NamedTask owner("audit_task");
    TestSupport::Subscriber sub;
    AuditLog routed(&owner, nullptr);
    auditSyscallDest dest;
    dest.task = &sub;
    routed.syscallRoutes64.emplace(2, dest);
    auto delivered = Event("abc", "1");
    delivered->lines = {"type=SYSCALL msg=audit(1.000:1): arch=c000003e syscall=2 items=1 pid=abc ppid=1",
                        "type=CWD msg=audit(1.000:1): cwd=\"/\"", "type=PATH msg=audit(1.000:1): item=0 name=\"/a\""};
    EXPECT_EQ(routed.ParseAndDeliverLogs(delivered), 0);
    EXPECT_EQ(sub.Drain().size(), 1U);
}

TEST(CreatedPaths, ACreateOnAWaitedWatchPathInstallsTheWatchOnce)
{
    TestSupport::FakeInstallation install;
    TestSupport::TempDir dir;
    TestSupport::NamedTask owner("audit_task");
    TestSupport::NamedTask task("fw_task");
    AuditRules rules;
    AuditLog log(&owner, &rules);
    const std::string file = dir.Write("appeared", "x");
    AuditFileSystemCtrlMessage msg(&task, "", {}, _FileNotifyOpt{});
    msg.tag = "t";
    msg.operate = "-w";
    msg.rule = file + " -p wa";
    FileSystemRule rule;
    LinuxAuditUtil::auditDistractFilesystemRule(msg, rule);
    std::string stripped = msg.rule;
    rules.AddAuditRule(msg, rule, stripped);
    log.AddLogRoute(msg, rule);
    const size_t before = install.Commands().size();

    auto event = std::make_shared<AuditEvent>();
    SDK::AuditFields create;
    create.Add("name", "\"" + file + "\"");
    create.Add("nametype", "CREATE");
    ASSERT_EQ(log.GenerateLogPathForOneRecord(event, create, "/"), 0);
    const std::vector<std::string> commands = install.Commands();
    ASSERT_EQ(commands.size(), before + 2);
    EXPECT_EQ(commands[before], "[-W][" + file + "][-p][wa][-k][" + getRuleKey("fw_task", "t", rule) + "]");
    EXPECT_EQ(commands[before + 1], "[-w][" + file + "][-p][wa][-k][" + getRuleKey("fw_task", "t", rule) + "]");

    SDK::AuditFields normal;
    normal.Add("name", "\"" + file + "\"");
    normal.Add("objtype", "NORMAL");  // objtype wins over nametype
    normal.Add("nametype", "CREATE");
    ASSERT_EQ(log.GenerateLogPathForOneRecord(event, normal, "/"), 0);
    EXPECT_EQ(install.Commands().size(), before + 2);
    EXPECT_EQ(event->paths.back().nametype, "NORMAL");
    EXPECT_EQ(event->paths.back().item, -1) << "no item field";
}
