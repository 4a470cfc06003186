// Real runc containers on a busybox root: their files come out with the paths the host sees, and
// the provider gives no stale answer once a container has stopped or its process id is reused.
#include "KernelAudit.h"

#include "ContainerCollectTask.h"

#include <Poco/JSON/Parser.h>

#include <sys/mount.h>

using Json = Poco::JSON::Object::Ptr;

namespace {

Json Parse(const std::string& text)
{
    return Poco::JSON::Parser().parse(text).extract<Json>();
}

class ContainersKernel : public E2E::KernelTest {
protected:
    void SetUp() override
    {
        E2E::KernelTest::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        if (access("/usr/sbin/runc", X_OK) != 0 || access("/bin/busybox", X_OK) != 0) {
            GTEST_SKIP() << "container test skipped: needs runc and busybox-static";
        }
        const std::string rootfs = dir_ + "/rootfs";
        for (const char* sub : {"bin", "proc", "sys", "dev", "tmp", "work"}) {
            std::filesystem::create_directories(rootfs + "/" + sub);
        }
        std::filesystem::copy_file("/bin/busybox", rootfs + "/bin/busybox");
        for (const char* tool : {"sh", "sleep", "echo", "mv", "rm"}) {
            std::filesystem::create_symlink("busybox", rootfs + "/bin/" + tool);
        }
        std::filesystem::create_directories(dir_ + "/vol");
    }
    void TearDown() override
    {
        for (const std::string& id : started_) {
            E2E::Command("runc kill " + id + " KILL");
            E2E::Command("runc delete -f " + id);
        }
        if (!overlay_.empty()) {
            umount2(overlay_.c_str(), MNT_DETACH);
        }
        E2E::KernelTest::TearDown();
    }
    // Starts a container that sleeps, with rootfs as its root, the volume at /data and its cgroup
    // at cgroupsPath; returns its id.
    std::string Start(const std::string& name, const std::string& rootfs, const std::string& cgroupsPath)
    {
        const std::string bundle = dir_ + "/" + name;
        std::filesystem::create_directories(bundle);
        EXPECT_EQ(E2E::Command("runc spec --bundle " + bundle), 0);
        Json config = Parse(TestSupport::ReadFile(bundle + "/config.json"));
        Json process = config->getObject("process");
        process->remove("rlimits");  // setting them needs CAP_SYS_RESOURCE, which this machine lacks
        process->set("terminal", false);
        process->set("args", Parse(R"({"a": ["sleep", "600"]})")->getArray("a"));
        config->set("root", Parse(R"({"path": ")" + rootfs + R"(", "readonly": false})"));
        config->getArray("mounts")->add(
            Parse(R"({"destination": "/data", "type": "bind", "source": ")" + dir_ + R"(/vol", "options": ["rbind", "rw"]})"));
        config->getObject("linux")->set("cgroupsPath", cgroupsPath);
        std::ostringstream text;
        config->stringify(text);
        std::ofstream(bundle + "/config.json", std::ios::trunc) << text.str();
        // The container keeps runc's standard output and error: not a pipe anyone waits on to close.
        TestSupport::Program runc({"/usr/sbin/runc", "run", "--detach", "--bundle", bundle, name});
        EXPECT_EQ(runc.Wait(), 0) << runc.err;
        started_.push_back(name);
        return name;
    }
    std::string Overlay()
    {
        overlay_ = dir_ + "/ov/merged";
        for (const char* sub : {"upper", "work", "merged"}) {
            std::filesystem::create_directories(dir_ + "/ov/" + sub);
        }
        const std::string data = "lowerdir=" + dir_ + "/rootfs,upperdir=" + dir_ + "/ov/upper,workdir=" + dir_ + "/ov/work";
        EXPECT_EQ(mount("overlay", overlay_.c_str(), "overlay", 0, data.c_str()), 0);
        return overlay_;
    }
    // Makes, appends to, renames and removes files in the volume and in the container's root;
    // expects every one of them, named as the host sees it, from hostwarden audit watching the
    // host's directories. The shell outlives its work: a process is told apart only while it or
    // its parent runs.
    void ExpectHostPaths(const std::string& container, const std::string& rootOnHost)
    {
        const std::string seen = PathLines(AuditWhile({"--watch", dir_ + "/vol", "--watch", rootOnHost + "/work", "--tag", "c"}, [&] {
            std::string output;
            ASSERT_EQ(E2E::Command("runc exec " + container + " sh -c \"echo a > /data/f; echo b >> /data/f; mv /data/f /data/g; rm /data/g; "
                              "echo c > /work/h; mv /work/h /work/i; rm /work/i; sleep 1\"", &output), 0) << output;
        }, dir_ + "/vol/end"));
        for (const std::string& expected : {"CREATE /data/f -> " + dir_ + "/vol/f", "NORMAL /data/f -> " + dir_ + "/vol/f",
                                             "CREATE /data/g -> " + dir_ + "/vol/g", "DELETE /data/g -> " + dir_ + "/vol/g",
                                             "CREATE /work/h -> " + rootOnHost + "/work/h", "DELETE /work/i -> " + rootOnHost + "/work/i"}) {
            EXPECT_NE(seen.find(expected + "\n"), std::string::npos) << expected << "\n" << seen;
        }
    }

    std::vector<std::string> started_;
    std::string overlay_;
};

}  // namespace

TEST_F(ContainersKernel, FilesOfAContainerWithARootDirectoryAreNamedAsTheHostSeesThem)
{
    const std::string id = Start("hwe2e-" + std::string(64, 'a').substr(0, 10), dir_ + "/rootfs", "/docker/" + std::string(64, 'a'));
    ExpectHostPaths(id, dir_ + "/rootfs");

    auto list = Hostwarden({"containers", "--log-level=error"});
    ASSERT_EQ(list->Wait(), 0) << list->err << list->out;
    const std::string expected = "{\"id\":\"" + std::string(64, 'a') + "\",\"runtime\":\"docker\",\"rootPath\":\"" + dir_ + "/rootfs\"";
    EXPECT_NE(list->out.find(expected), std::string::npos) << list->out;
    EXPECT_NE(list->out.find("{\"source\":\"" + dir_ + "/vol\",\"destination\":\"/data\""), std::string::npos) << list->out;
}

TEST_F(ContainersKernel, FilesOfAContainerOnAnOverlayAreNamedAsTheHostSeesThem)
{
    const std::string id = Start("hwe2e-overlay", Overlay(), "/machine.slice/libpod-" + std::string(64, 'b') + ".scope");
    ExpectHostPaths(id, dir_ + "/ov/merged");
}

// A process of the container, then none: the container's answers end with it; and its process id,
// taken again by a host process, does not inherit them.
TEST_F(ContainersKernel, AStoppedContainerAndAReusedProcessIdGiveNoStaleAnswer)
{
    const std::string id = Start("hwe2e-stop", dir_ + "/rootfs", "/docker/" + std::string(64, 'c'));
    auto exec = std::make_unique<TestSupport::Program>(std::vector<std::string>{"/usr/sbin/runc", "exec", id, "sleep", "601"});
    int pid = 0;
    ASSERT_TRUE(TestSupport::WaitUntil([&] {
        for (const int candidate : Container::ProcSource().Pids()) {
            if (TestSupport::ReadFile("/proc/" + std::to_string(candidate) + "/cmdline") == std::string("sleep\0" "601\0", 10)) {
                pid = candidate;
            }
        }
        return pid != 0;
    }));
    Container::ContainerCollectTask provider;
    std::shared_ptr<Framework::ContainerInfo> info;
    ASSERT_TRUE(provider.GetContainerInfoByPid(pid, info));
    EXPECT_EQ(info->id + " " + info->rootPath, std::string(64, 'c') + " " + dir_ + "/rootfs");

    kill(pid, SIGKILL);
    exec->Wait();  // runc exec reaps it: the id is free
    E2E::Command("runc kill " + id + " KILL");
    ASSERT_TRUE(TestSupport::WaitUntil([&] { return !provider.GetContainerInfoById(std::string(64, 'c'), info); }))
        << "the container has stopped";
    EXPECT_FALSE(provider.GetContainerInfoByPid(pid, info));

    std::ofstream lastPid("/proc/sys/kernel/ns_last_pid");
    if (!(lastPid << pid - 1).flush()) {
        GTEST_SKIP() << "cannot choose the next process id here (/proc/sys/kernel/ns_last_pid)";
    }
    lastPid.close();
    const TestSupport::Program host({"/bin/sleep", "600"});
    if (host.Pid() != pid) {
        GTEST_SKIP() << "another process took id " << pid << " first";
    }
    EXPECT_FALSE(provider.GetContainerInfoByPid(pid, info)) << "a host process now has the container's old process id";
}
