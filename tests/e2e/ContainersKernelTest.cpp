// A real OCI container, started by runc from a busybox root file system, against the real kernel
// and auditd: files it makes in a volume and in its own root come out with the paths the host
// sees, through the shipped hostwarden and its container module.
#include "KernelAudit.h"

#include <Poco/JSON/Parser.h>

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
