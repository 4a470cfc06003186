// Path resolution and container translation, through a ContainerMetaInfo test double.
#include "AuditUtil.h"

#include "TestSupport.h"
#include "TasksModule.h"

#include "container/ContainerMetaInfo.h"
#include "framework/Engine.h"

using namespace Engine;

namespace {

// Container "abc" by id and as the container of process 500, recording every lookup.
class FakeContainers : public Framework::Task, public Framework::ContainerMetaInfo {
public:
    FakeContainers() : Framework::Task(Framework::kContainerCollectTaskName, "test", Framework::TaskCondition::kLoop, 8)
    {
        abc_->id = "abc";
        abc_->rootPath = "/var/lib/docker/overlay2/abc/merged";
        abc_->mounts = {{"/srv/data", "/data", "", true}, {"/srv/logs", "/var/log", "", true}, {"/srv/cache", "/cache/", "", true}};
    }
    bool GetContainerInfoById(const std::string& id, std::shared_ptr<Framework::ContainerInfo>& info) override
    {
        lookups += " id:" + id;
        return Found(id == "abc", info);
    }
    bool GetContainerInfoByPid(int pid, std::shared_ptr<Framework::ContainerInfo>& info) override
    {
        lookups += " pid:" + std::to_string(pid);
        return Found(pid == 500, info);
    }
    std::string lookups;

private:
    bool Found(bool found, std::shared_ptr<Framework::ContainerInfo>& info)
    {
        info = found ? abc_ : info;
        return found;
    }
    std::shared_ptr<Framework::ContainerInfo> abc_ = std::make_shared<Framework::ContainerInfo>();
};

std::shared_ptr<AuditEvent> Event(const std::string& pid, const std::string& ppid, const std::string& key = "")
{
    auto event = std::make_shared<AuditEvent>();
    event->pid = pid;
    event->ppid = ppid;
    event->key = key;
    return event;
}

}  // namespace

// A host path is the file as the host names it: relative parts and links resolved when it exists.
TEST(PathHelpers, HostPathsAreResolvedAndNamesMadeAbsolute)
{
    TestSupport::TempDir dir;
    dir.Write("real/x", "");
    ASSERT_EQ(symlink((dir.path() + "/real").c_str(), (dir.path() + "/link").c_str()), 0);
    AuditLog log(nullptr, nullptr);
    auto event = std::make_shared<AuditEvent>();
    const auto host = [&](const std::string& name, const std::string& cwd) {
        SDK::AuditFields record;
        record.Add("name", name.rfind("hex:", 0) == 0 || name == "(null)" ? name.substr(name[0] == 'h' ? 4 : 0) : "\"" + name + "\"");
        event->paths.clear();
        EXPECT_EQ(log.GenerateLogPathForOneRecord(event, record, cwd), 0);
        return event->paths.back().hostPath;
    };
    EXPECT_EQ(host("./x", dir.path() + "/real"), dir.path() + "/real/x");
    EXPECT_EQ(host("../real/x", dir.path() + "/link"), dir.path() + "/real/x");
    EXPECT_EQ(host("x", dir.path() + "/link"), dir.path() + "/real/x") << "through the symlinked directory";
    EXPECT_EQ(host("gone", dir.path() + "/link"), dir.path() + "/real/gone") << "a deleted file: its directory resolves";
    EXPECT_EQ(host("link", dir.path()), dir.path() + "/link") << "a symbolic link is named by itself";
    EXPECT_EQ(host("hex:6C696E6B2F612062", dir.path()), dir.path() + "/real/a b") << "a hex name (link/a b) is decoded";
    EXPECT_EQ(host("gone/x", dir.path() + "/link"), dir.path() + "/link/gone/x") << "a missing directory: kept as named";
    EXPECT_EQ(host("(null)", dir.path()), "") << "no name";
    EXPECT_EQ(DecodedAuditText("2F746D702F6120622F"), "/tmp/a b/");

    // A container's directories resolve inside its root: a link inside leads inside, an absolute
    // link leads to the root's own directory, never to the host's.
    dir.Write("root/usr/lib/x", "");
    ASSERT_EQ(symlink("usr/lib", (dir.path() + "/root/lib").c_str()), 0);
    ASSERT_EQ(symlink("/usr/lib", (dir.path() + "/root/abs").c_str()), 0);
    ASSERT_EQ(symlink("/etc", (dir.path() + "/root/etc").c_str()), 0);
    const std::string root = dir.path() + "/root";
    EXPECT_EQ(LinuxAuditUtil::RealPathInRoot(root, "/lib/x"), root + "/usr/lib/x");
    EXPECT_EQ(LinuxAuditUtil::RealPathInRoot(root, "/abs/x"), root + "/usr/lib/x");
    EXPECT_EQ(LinuxAuditUtil::RealPathInRoot(root, "/etc/passwd"), "") << "the container has no /etc: nothing, not the host's";
    EXPECT_EQ(LinuxAuditUtil::RealPathInRoot(root, "/../../etc/passwd"), "") << "no way up out of the root";

    const std::tuple<const char*, const char*, const char*> absolute[] = {
        {"/home/u", "a.txt", "/home/u/a.txt"}, {"/home/u", "/etc/passwd", "/etc/passwd"}, {"/tmp", "./a", "/tmp/./a"},
        {"", "a", "/a"}, {"/tmp", "", ""}};
    for (const auto& [cwd, name, path] : absolute) {
        EXPECT_EQ(getFilepath(cwd, name), path) << cwd << " " << name;
    }
}

// An agent whose container provider is FakeContainers.
class WithContainers : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(engine_.AddModule(std::make_unique<TestSupport::TasksModule>(std::vector<Framework::Task*>{fake_})), 0);
        ASSERT_EQ(engine_.StartTasks(), 0);
        LinuxAuditUtil::ResetContainerMetaCache();  // the module caches the provider per process
    }
    void TearDown() override
    {
        engine_.StopAll();
        LinuxAuditUtil::ResetContainerMetaCache();
    }
    FakeContainers* fake_ = new FakeContainers;  // owned by the engine once added

private:
    Framework::Engine engine_;
};

class ContainerPath : public WithContainers, public testing::WithParamInterface<TestSupport::TableRow> {};

TEST_P(ContainerPath, IsTranslatedToTheHostThroughTheProvider)
{
    std::vector<std::string> row = GetParam().cells;
    ASSERT_GE(row.size(), 6U) << "the table holds no rows";
    AuditLogPath record;
    record.path = record.hostPath = row[3];
    EXPECT_EQ(AuditLog(nullptr, nullptr).LogPathProcForContainer(Event(row[0], row[1], row[2]), record), 0);
    EXPECT_EQ(record.hostPath + " |" + fake_->lookups, row[4] + " | " + row[5]);
}

INSTANTIATE_TEST_SUITE_P(Rows, ContainerPath,
                         testing::ValuesIn(TestSupport::TableParams("native_module/module_audit/tests/tables/container-paths.txt")),
                         TestSupport::TableRowName);

// A process id that does not convert drops the event's paths, but not the event.
TEST_F(WithContainers, ABadProcessIdDropsThePathsButNotTheEvent)
{
    AuditLogPath record;
    EXPECT_EQ(AuditLog(nullptr, nullptr).LogPathProcForContainer(Event("1", ""), record), -1);
    TestSupport::Pipeline routed;
    auto event = Event("abc", "1");
    event->lines = {"type=SYSCALL msg=audit(1.000:1): arch=c000003e syscall=2 items=2 pid=abc ppid=1",
                    "type=CWD msg=audit(1.000:1): cwd=\"/\"", "type=PATH msg=audit(1.000:1): item=0 name=\"/a\"",
                    "type=PATH msg=audit(1.000:1): item=1 name=\"/b\""};
    EXPECT_EQ(routed.log.ParseAndDeliverLogs(event), 0);
    EXPECT_EQ(routed.Delivered(), std::vector<size_t>{4});
    EXPECT_TRUE(event->paths.empty());
    EXPECT_FALSE(event->write) << "the access kinds are skipped too";
}

TEST(PathHelpers, TheProviderIsLookedUpOnTheFirstNineCallsOnly)
{
    Framework::Engine engine;
    LinuxAuditUtil::ResetContainerMetaCache();
    for (int i = 0; i < 9; ++i) {
        EXPECT_EQ(LinuxAuditUtil::GetContainerMeta(), nullptr);
    }
    // The provider appears now, but the nine look-ups are spent.
    ASSERT_EQ(engine.AddModule(std::make_unique<TestSupport::TasksModule>(std::vector<Framework::Task*>{new FakeContainers})), 0);
    ASSERT_EQ(engine.StartTasks(), 0);
    EXPECT_EQ(LinuxAuditUtil::GetContainerMeta(), nullptr);
    engine.StopAll();
    LinuxAuditUtil::ResetContainerMetaCache();
}

// A created path runs nothing for a watch the kernel has; one that waited for it is added at once,
// not at the keeper's next round, and the others keep waiting.
TEST(CreatedPaths, ACreateOnAWaitingWatchPathAddsItAndNothingElse)
{
    TestSupport::TempDir dir;
    TestSupport::NamedTask task("fw_task");
    TestSupport::Pipeline p(3600 * 1000);
    // Their directories are missing, so nothing but the record tells of the file (the keeper
    // watches the directory above, where nothing happens).
    const std::string file = dir.path() + "/later/appeared";
    TestSupport::WatchSub watch(&task, "t", file + " -p wa");
    TestSupport::WatchSub other(&task, "o", dir.path() + "/never/not-yet -p wa");
    TestSupport::LogCapture capture(Poco::Message::PRIO_DEBUG);
    {
        // One at a time, each waited for until the keeper's round watches the directory above
        // it: then no wake-up is left pending.
        TestSupport::FakeInstallation refusing(1);
        for (const auto& [sub, tag, below] : {std::tuple{&other, "o", "/never"}, std::tuple{&watch, "t", "/later"}}) {
            sub->AddTo(p.rules);
            ASSERT_TRUE(TestSupport::WaitUntil([&, sub = sub, tag = tag, below = below] {
                return capture.channel().Has("Rule(" + getRuleKey("fw_task", tag, sub->rule) + ") waits for " + dir.path() +
                                             below + " to appear below " + dir.path() + ".");
            }));
        }
    }
    const std::string otherKey = getRuleKey("fw_task", "o", other.rule);
    TestSupport::FakeInstallation install(0, "");
    p.log.AddLogRoute(watch.msg, watch.rule);
    const std::string key = getRuleKey("fw_task", "t", watch.rule);

    auto event = std::make_shared<AuditEvent>();
    const auto record = [&](const char* objtype) {
        SDK::AuditFields fields;
        fields.Add("name", "\"" + file + "\"");
        if (*objtype != '\0') {
            fields.Add("objtype", objtype);  // objtype wins over nametype
        }
        fields.Add("nametype", "CREATE");
        EXPECT_EQ(p.log.GenerateLogPathForOneRecord(event, fields, "/"), 0);
    };
    record("");
    ASSERT_TRUE(TestSupport::WaitUntil([&] { return p.rules.Waiting() == std::set<std::string>{otherKey}; }));
    EXPECT_EQ(install.Commands(), (std::vector<std::string>{"[-l]", "[-w][" + file + "][-p][wa][-k][" + key + "]"}));
    record("");
    record("NORMAL");
    EXPECT_EQ(install.Commands().size(), 2U) << "the kernel has it now";
    EXPECT_EQ(event->paths.back().nametype, "NORMAL");
    EXPECT_EQ(event->paths.back().item, -1) << "no item field";
}
