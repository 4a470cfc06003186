// hostwarden's commands for people, run as programs against the real kernel and auditd.
#include "KernelAudit.h"

#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <thread>

#include <cstdlib>
#include <sstream>

namespace {

class CommandsKernel : public testing::Test {
protected:
    void SetUp() override
    {
        const std::string why = E2E::WhyKernelAuditIsUnusable();
        if (!why.empty()) {
            GTEST_SKIP() << "real-kernel test skipped: " << why;
        }
        install_ = std::make_unique<E2E::TestInstallation>();
        char pattern[] = "/tmp/hwe2e_cmd_XXXXXX";
        dir_ = mkdtemp(pattern);
    }
    void TearDown() override
    {
        if (!install_) {
            return;
        }
        const std::string rules = E2E::ListKernelRules();
        E2E::RemoveTestRules(dir_);
        EXPECT_EQ(rules.find(dir_), std::string::npos) << "rules left behind:\n" << rules;
        std::system(("rm -rf " + dir_).c_str());
    }
    std::unique_ptr<E2E::Program> Hostwarden(const std::vector<std::string>& args)
    {
        std::vector<std::string> argv{HW_HOSTWARDEN};
        argv.insert(argv.end(), args.begin(), args.end());
        return std::make_unique<E2E::Program>(argv, std::vector<std::string>{"HOSTWARDEN_HOME=" + install_->Home()});
    }
    static std::vector<Poco::JSON::Object::Ptr> JsonLines(const std::string& text)
    {
        std::vector<Poco::JSON::Object::Ptr> objects;
        std::istringstream lines(text);
        for (std::string line; std::getline(lines, line);) {
            objects.push_back(Poco::JSON::Parser().parse(line).extract<Poco::JSON::Object::Ptr>());
        }
        return objects;
    }

    std::unique_ptr<E2E::TestInstallation> install_;
    std::string dir_;
};

}  // namespace

TEST_F(CommandsKernel, WatchPrintsNotificationsUntilInterruptedAndLeavesNoRule)
{
    auto watch = Hostwarden({"watch", dir_, "--recursive", "--events", "create,delete", "--tag", "t"});
    ASSERT_TRUE(watch->WaitFor("path(s) watched", false)) << watch->err;
    ASSERT_NE(E2E::ListKernelRules().find("-w " + dir_ + " "), std::string::npos);
    // One step after the other: a file must be indexed (on its create) before its delete can be named.
    mkdir((dir_ + "/d").c_str(), 0755);
    ASSERT_TRUE(watch->WaitFor("\"path\":\"" + dir_ + "/d\"", true)) << watch->out;
    std::system(("touch " + dir_ + "/d/f && echo x >> " + dir_ + "/d/f").c_str());
    ASSERT_TRUE(watch->WaitFor("\"path\":\"" + dir_ + "/d/f\"", true)) << watch->out;
    std::system(("rm " + dir_ + "/d/f").c_str());
    ASSERT_TRUE(watch->WaitFor("\"delete\"", true)) << watch->out;
    watch->Signal(SIGINT);
    EXPECT_EQ(watch->Wait(), 0) << watch->err;

    const std::vector<Poco::JSON::Object::Ptr> lines = JsonLines(watch->out);
    ASSERT_EQ(lines.size(), 3U) << watch->out << "(the modify is not asked for)";
    const std::string kinds[] = {"create", "create", "delete"};
    const std::string paths[] = {dir_ + "/d", dir_ + "/d/f", dir_ + "/d/f"};
    for (size_t i = 0; i < lines.size(); ++i) {
        EXPECT_EQ(lines[i]->getValue<std::string>("tag"), "t");
        EXPECT_EQ(lines[i]->getValue<std::string>("kind"), kinds[i]);
        EXPECT_EQ(lines[i]->getValue<std::string>("path"), paths[i]);
    }
    EXPECT_TRUE(lines[0]->getValue<bool>("isDir"));
    EXPECT_EQ(lines[0]->getValue<int>("event"), 256);
    EXPECT_EQ(lines[0]->getObject("extra")->getValue<std::string>("syscall"), "83") << "mkdir";
    EXPECT_EQ(E2E::ListKernelRules().find(dir_), std::string::npos) << "unwatched on exit";
}

namespace {

std::string ReadFile(const std::string& path)
{
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// True once the file holds text, within 20 s.
bool FileGets(const std::string& path, const std::string& text)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (ReadFile(path).find(text) == std::string::npos) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

}  // namespace

// The main job with a configuration of the test's own: what it subscribes reaches the output
// file as JSON lines with the subscription's tag; SIGTERM ends it with status 0 and no rule left.
TEST_F(CommandsKernel, RunExportsWhatItsConfigurationSubscribesAndStopsCleanly)
{
    const std::string events = dir_ + "/out/events.jsonl";
    std::ofstream(install_->Home() + "/etc/hostwarden.json") << R"({"output": {"file": ")" << events << R"(", "stdout": false},
        "subscriptions": [{"tag": "marker", "syscall": "exit,always -F arch=b64 -S getpgid -F pid=)" << getpid() << R"("},
                          {"tag": "files", "watch": ")" << dir_ << R"(", "recursive": true}]})";
    auto run = Hostwarden({"run"});
    ASSERT_TRUE(run->WaitFor("Every subscription is installed in the kernel.", false)) << run->err;
    syscall(SYS_getpgid, 424242);
    mkdir((dir_ + "/made").c_str(), 0755);
    ASSERT_TRUE(FileGets(events, "\"tag\":\"files\",\"path\":\"" + dir_ + "/made\"")) << ReadFile(events);
    ASSERT_TRUE(FileGets(events, "\"tag\":\"marker\"")) << ReadFile(events);
    run->Signal(SIGTERM);
    EXPECT_EQ(run->Wait(), 0) << run->err;
    for (const Poco::JSON::Object::Ptr& line : JsonLines(ReadFile(events))) {
        if (line->getValue<std::string>("tag") == "marker") {
            EXPECT_EQ(line->getValue<int>("syscall"), SYS_getpgid);
            EXPECT_EQ(line->getValue<std::string>("a0"), "67932") << "424242 in hexadecimal";
        }
    }
    const std::string rules = E2E::ListKernelRules();
    EXPECT_EQ(rules.find("export_task***"), std::string::npos) << rules;
    EXPECT_EQ(rules.find("filewatch_audit_task***"), std::string::npos) << rules;
}

// A run killed outright leaves its rules; the next start removes them before it subscribes.
TEST_F(CommandsKernel, TheNextStartRemovesWhatAKilledRunLeft)
{
    const auto configure = [&](const std::string& tag) {
        std::ofstream(install_->Home() + "/etc/hostwarden.json")
            << R"({"output": {"stdout": false}, "subscriptions": [{"tag": ")" << tag
            << R"(", "syscall": "exit,always -F arch=b64 -S getpgid -F pid=)" << getpid() << R"("}]})";
    };
    configure("killed");
    auto first = Hostwarden({"run"});
    ASSERT_TRUE(first->WaitFor("Every subscription is installed in the kernel.", false)) << first->err;
    first->Signal(SIGKILL);
    first->Wait();
    ASSERT_NE(E2E::ListKernelRules().find("export_task***killed"), std::string::npos) << "left by the killed run";

    configure("next");
    auto second = Hostwarden({"run"});
    ASSERT_TRUE(second->WaitFor("Every subscription is installed in the kernel.", false)) << second->err;
    const std::string rules = E2E::ListKernelRules();
    EXPECT_EQ(rules.find("export_task***killed"), std::string::npos) << rules;
    EXPECT_NE(rules.find("export_task***next"), std::string::npos) << rules;
    second->Signal(SIGTERM);
    EXPECT_EQ(second->Wait(), 0) << second->err;
    EXPECT_EQ(E2E::ListKernelRules().find("export_task***"), std::string::npos);
}

// A hostile program name must not break the JSON that pipelines read.
TEST_F(CommandsKernel, AuditPrintsValidJsonWhateverBytesAProgramNameHolds)
{
    const std::string program = dir_ + "/bad\xff\xfe";
    ASSERT_EQ(std::system(("cp /bin/true '" + program + "'").c_str()), 0);
    auto audit = Hostwarden({"audit", "exit,always -F arch=b64 -S execve -F ppid=" + std::to_string(getpid()), "--tag", "x"});
    ASSERT_TRUE(audit->WaitFor("printing events", false)) << audit->err;
    const pid_t child = fork();
    if (child == 0) {
        execl(program.c_str(), program.c_str(), nullptr);
        _exit(127);
    }
    waitpid(child, nullptr, 0);
    ASSERT_TRUE(audit->WaitFor("hex:", true)) << audit->out;
    audit->Signal(SIGINT);
    EXPECT_EQ(audit->Wait(), 0) << audit->err;
    bool seen = false;
    for (const Poco::JSON::Object::Ptr& line : JsonLines(audit->out)) {  // every line parses
        const std::string exe = line->getValue<std::string>("exe");
        if (exe.compare(0, 4, "hex:") == 0) {
            std::string bytes;
            for (size_t i = 4; i + 1 < exe.size(); i += 2) {
                bytes.push_back(static_cast<char>(std::stoi(exe.substr(i, 2), nullptr, 16)));
            }
            EXPECT_EQ(bytes, program) << "the original bytes come back";
            seen = true;
        }
    }
    EXPECT_TRUE(seen) << audit->out;
}
