// The container provider: cgroup and mountinfo texts (real ones captured from runc containers on
// this machine, and the forms the runtimes document), and the cache over a /proc of the test's own.
#include "ContainerCollectTask.h"
#include "ContainerProc.h"

#include "TestCommon.h"

#include <Poco/String.h>

#include <sys/stat.h>
#include <unistd.h>

using namespace Container;

namespace {

const std::string kId(64, 'a');
const std::string kOther = "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef";

std::string Fixture(const std::string& name)
{
    return TestSupport::ReadFile(std::string(HW_SOURCE_DIR) + "/native_module/module_container/tests/fixtures/" + name);
}

std::string Describe(const Framework::ContainerInfo& info)
{
    std::string out = "root=" + info.rootPath;
    for (const Framework::MountPoint& m : info.mounts) {
        out += " | " + m.destination + "=" + m.source + (m.readWrite ? "" : " ro");
    }
    return out;
}

}  // namespace

class CgroupTable : public testing::TestWithParam<TestSupport::TableRow> {};

TEST_P(CgroupTable, EachRuntimesFormNamesItsContainerAndTheHostsUnitsNone)
{
    std::vector<std::string> row = GetParam().cells;
    ASSERT_FALSE(row.empty()) << "the table holds no rows";
    row.resize(3);
    std::string text = row[0].rfind("fixture:", 0) == 0 ? Fixture(row[0].substr(8)) : row[0];
    Poco::replaceInPlace(text, std::string("\\n"), std::string("\n"));
    const CgroupOwner owner = OwnerFromCgroup(text);
    EXPECT_EQ(owner.id.substr(0, 4) + " " + owner.runtime, row[1] + " " + row[2]) << row[0];
    EXPECT_EQ(owner.id.size(), row[1].empty() ? 0U : 64U) << row[0];
}

INSTANTIATE_TEST_SUITE_P(Rows, CgroupTable,
                         testing::ValuesIn(TestSupport::TableParams("native_module/module_container/tests/tables/cgroups.txt", 3)),
                         TestSupport::TableRowName);


TEST(MountInfo, ContainerMountsAreNamedAsTheHostSeesThemDeepestFirst)
{
    const auto host = ParseMountInfo(Fixture("host-mountinfo.txt"));
    ASSERT_EQ(host.size(), 21U);
    EXPECT_EQ(host[5].mountPoint + " " + host[5].device + " " + host[5].fsType + " " + host[5].source, "/ 254:0 ext4 /dev/vda");

    Framework::ContainerInfo plain;
    DescribeMounts(ParseMountInfo(Fixture("runc-docker-mountinfo.txt")), host, "/proc/1/root", plain);
    std::string cgroups;
    for (const char* controller : {"cpu", "cpuacct", "cpuset", "memory", "devices", "freezer", "blkio", "pids", "systemd"}) {
        cgroups += std::string(" | /sys/fs/cgroup/") + controller + "=/sys/fs/cgroup/" + controller + "/docker/" + kId + " ro";
    }
    EXPECT_EQ(Describe(plain), "root=/tmp/hwct/rootfs" + cgroups + " | /data=/tmp/hwct/vol");
    Framework::ContainerInfo overlay;
    DescribeMounts(ParseMountInfo(Fixture("runc-podman-overlay-mountinfo.txt")), host, "/proc/2/root", overlay);
    EXPECT_EQ(overlay.rootPath, "/tmp/hwct/ov/merged") << "the overlay's merged directory on the host";
    EXPECT_EQ(overlay.mounts.back().destination + "=" + overlay.mounts.back().source, "/data=/tmp/hwct/vol");

    // A root the host does not see falls back to the process's root link; escapes are undone; a
    // deeper mount comes before the one it sits in; the host's deepest matching root wins.
    const auto hostMounts = ParseMountInfo("1 0 8:1 / / rw - ext4 /dev/sda1 rw\n2 1 8:2 / /srv rw - ext4 /dev/sda2 rw\n"
                                           "3 1 8:2 /vols /mnt/vols rw - ext4 /dev/sda2 rw\n");
    Framework::ContainerInfo nested;
    DescribeMounts(ParseMountInfo("9 0 0:99 / / rw - overlay overlay rw\n"
                                  "10 9 8:2 /vols/my\\040vol /data ro,relatime - ext4 /dev/sda2 rw\n"
                                  "11 10 8:1 /etc/hosts /data/sub/hosts rw - ext4 /dev/sda1 rw\n"
                                  "12 9 0:50 / /tmp rw - tmpfs tmpfs rw\n"),
                   hostMounts, "/proc/7/root", nested);
    EXPECT_EQ(Describe(nested), "root=/proc/7/root | /data/sub/hosts=/etc/hosts | /data=/mnt/vols/my vol ro");
    EXPECT_TRUE(ParseMountInfo("1 2 3\nnot a line at all\n").empty());
}

TEST(ProcStat, StartTimeAndWhetherTheProcessStillRuns)
{
    unsigned long long start = 0;
    bool running = false;
    ASSERT_TRUE(StartTimeFromStat("5 (a) b) (c) Z 1 5 5 0 -1 0 0 0 0 0 0 0 0 0 20 0 1 0 42 0 0", start, running));
    EXPECT_EQ(start, 42ULL) << "the command name may hold parentheses and blanks";
    EXPECT_FALSE(running) << "a zombie";
    EXPECT_FALSE(StartTimeFromStat("7 (cut) S 1 2", start, running));
    EXPECT_FALSE(StartTimeFromStat("", start, running));

    // A process's identity on the real /proc: its directory's inode number, none once it is gone.
    const ProcSource proc;
    struct stat own {};
    ASSERT_EQ(stat(("/proc/" + std::to_string(getpid())).c_str(), &own), 0);
    EXPECT_EQ(proc.ProcessInode(getpid()), own.st_ino);
    EXPECT_EQ(proc.ProcessInode(1 << 30), 0UL) << "past the largest process id";
}

namespace {

// A /proc of the test's own. Its directories' inode numbers are given, new for each new process
// as /proc's are, since a file system may reuse a removed directory's number.
struct NumberedSource : ProcSource {
    unsigned long ProcessInode(int pid) const override { return std::strtoul(Read(std::to_string(pid) + "/inode").c_str(), nullptr, 10); }
};

class FakeProc {
public:
    FakeProc() { dir.Write("self/mountinfo", "1 0 254:0 / / rw - ext4 /dev/vda rw\n"); }
    void Process(int pid, unsigned long long start, const std::string& cgroup, const std::string& root = "/ctr", char state = 'S')
    {
        const std::string p = std::to_string(pid) + "/";
        dir.Write(p + "stat", std::to_string(pid) + " (sh) " + state + " 1 1 1 0 -1 0 0 0 0 0 0 0 0 0 20 0 1 0 " + std::to_string(start) + " 0 0");
        dir.Write(p + "cgroup", cgroup);
        dir.Write(p + "mountinfo", "5 1 254:0 " + root + " / rw - ext4 /dev/vda rw\n6 5 254:0 /vol /data rw - ext4 /dev/vda rw\n");
        if (TestSupport::ReadFile(dir.path() + "/" + p + "inode").empty()) {
            dir.Write(p + "inode", std::to_string(++inodes_));
        }
    }
    void End(int pid) { std::filesystem::remove_all(dir.path() + "/" + std::to_string(pid)); }
    std::unique_ptr<ProcSource> Source() const
    {
        auto source = std::make_unique<NumberedSource>();
        source->root = dir.path();
        return source;
    }
    TestSupport::TempDir dir;

private:
    unsigned long inodes_ = 1000;
};

}  // namespace

TEST(ContainerCollectTask, AnswersFromACacheThatNewProcessesAndEndedOnesKeepHonest)
{
    FakeProc proc;
    proc.Process(100, 5000, "0::/docker/" + kId);
    proc.Process(101, 5001, "0::/docker/" + kId);
    proc.Process(200, 6000, "0::/system.slice/ssh.service");
    ContainerCollectTask task(proc.Source(), std::chrono::milliseconds(0));  // a look every time
    std::shared_ptr<Framework::ContainerInfo> info;
    ASSERT_TRUE(task.GetContainerInfoByPid(100, info));
    EXPECT_EQ(info->id + " " + info->runtime + " " + Describe(*info), kId + " docker root=/ctr | /data=/vol");
    EXPECT_FALSE(task.GetContainerInfoByPid(200, info)) << "a process of the host";
    EXPECT_FALSE(task.GetContainerInfoByPid(300, info)) << "no such process";
    EXPECT_EQ(task.CacheMisses(), 2U);
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(task.GetContainerInfoByPid(100, info));
        EXPECT_FALSE(task.GetContainerInfoByPid(200, info));
        EXPECT_TRUE(task.GetContainerInfoById(kId, info));
    }
    EXPECT_EQ(task.CacheMisses(), 2U) << "answered from the cache";

    // Process 200 ends and a process of another container takes its id: asked anew. (By default a
    // process of the host is trusted to stay one for 50 ms.)
    ContainerCollectTask trusting(proc.Source());
    EXPECT_FALSE(trusting.GetContainerInfoByPid(200, info));
    proc.End(200);
    proc.Process(200, 7000, "0::/machine.slice/libpod-" + kOther + ".scope", "/other");
    EXPECT_FALSE(trusting.GetContainerInfoByPid(200, info)) << "within the 50 ms";
    ASSERT_TRUE(task.GetContainerInfoByPid(200, info));
    EXPECT_EQ(info->id + " " + info->runtime + " " + info->rootPath, kOther + " podman /other");

    // The process the cache knew the container by ends: another of its processes still answers.
    proc.End(100);
    EXPECT_FALSE(task.GetContainerInfoByPid(100, info));
    ASSERT_TRUE(task.GetContainerInfoById(kId, info));
    std::vector<std::shared_ptr<Framework::ContainerInfo>> all;
    ASSERT_TRUE(task.ListContainers(all));
    ASSERT_EQ(all.size(), 2U);
    EXPECT_EQ(all[0]->id + " " + all[1]->id, kOther + " " + kId);

    // The container stops: its last process a zombie, then gone. Nothing answers for it.
    proc.Process(101, 5001, "0::/docker/" + kId, "/ctr", 'Z');
    EXPECT_FALSE(task.GetContainerInfoById(kId, info));
    proc.End(101);
    EXPECT_FALSE(task.GetContainerInfoByPid(101, info));
    EXPECT_FALSE(task.GetContainerInfoById(kId, info));
    ASSERT_TRUE(task.ListContainers(all));
    EXPECT_EQ(all.size(), 1U);
}

namespace {

// Processes of the host only, kept in memory: pid n has inode n.
struct HostProcesses : ProcSource {
    std::string Read(const std::string& relative) const override
    {
        const std::string pid = relative.substr(0, relative.find('/'));
        return relative.find("/cgroup") != std::string::npos ? "0::/system.slice/ssh.service\n"
                                                              : pid + " (sh) S 1 1 1 0 -1 0 0 0 0 0 0 0 0 0 20 0 1 0 9 0 0";
    }
    unsigned long ProcessInode(int pid) const override { return static_cast<unsigned long>(pid); }
};

}  // namespace

TEST(ContainerCollectTask, ForgetsTheProcessesCheckedLongestAgoPastItsBound)
{
    ContainerCollectTask task(std::make_unique<HostProcesses>(), std::chrono::milliseconds(0));  // a look every time
    std::shared_ptr<Framework::ContainerInfo> info;
    const int most = static_cast<int>(ContainerCollectTask::kMaxProcesses);
    for (int pid = 1; pid <= most; ++pid) {
        EXPECT_FALSE(task.GetContainerInfoByPid(pid, info));
    }
    EXPECT_FALSE(task.GetContainerInfoByPid(1, info));
    EXPECT_EQ(task.CacheHits(), 1U) << "all held while they fit";
    EXPECT_FALSE(task.GetContainerInfoByPid(most + 1, info));  // one more: the oldest quarter goes
    const uint64_t misses = task.CacheMisses();
    EXPECT_FALSE(task.GetContainerInfoByPid(1, info));
    EXPECT_EQ(task.CacheHits(), 2U) << "pid 1 was asked for again, so it stayed";
    EXPECT_FALSE(task.GetContainerInfoByPid(2, info));
    EXPECT_EQ(task.CacheMisses(), misses + 1) << "pid 2 was forgotten";
    EXPECT_FALSE(task.GetContainerInfoByPid(most, info));
    EXPECT_EQ(task.CacheHits(), 3U) << "the newest stay";
}
