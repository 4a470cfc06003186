#include "KernelAudit.h"

#include "sdk/ExecuteCmdUtils.h"

#include <Poco/JSON/Parser.h>

namespace E2E {

namespace {

// Key texts of the rules the agent's own tasks make for a test run, and those of the tests.
const char* const kAgentKeys[] = {"audit_cli_task***", "watch_cli_task***", "export_task***", "filewatch_audit_task***"};

std::string WhyKernelAuditIsUnusable()
{
    if (geteuid() != 0) {
        return "needs root to change kernel audit rules";
    }
    if (access("/usr/sbin/auditctl", X_OK) != 0) {
        return "auditd is not installed (no /usr/sbin/auditctl)";
    }
    std::string status;
    if (SystemAuditctl("-s", &status) != 0) {
        return "auditctl -s failed: " + status;
    }
    if (status.find("enabled 1") == std::string::npos) {
        return "kernel audit is not enabled";
    }
    // The kernel forgets a killed daemon only when it next fails to reach it, so ask the process too.
    const size_t at = status.find("\npid ");
    const long pid = at == std::string::npos ? 0 : std::strtol(status.c_str() + at + 5, nullptr, 10);
    if (pid <= 0 || kill(static_cast<pid_t>(pid), 0) != 0) {
        return "auditd is not running";
    }
    return {};
}

}  // namespace

int Command(const std::string& line, std::string* output)
{
    std::string scratch;
    return SDK::ExecuteCmdUtils::ExecuteCmd(line, output ? *output : scratch, 1 << 20);
}

int SystemAuditctl(const std::string& args, std::string* output)
{
    return Command("/usr/sbin/auditctl " + args, output);
}

std::string ListKernelRules()
{
    std::string rules;
    SystemAuditctl("-l", &rules);
    return rules;
}

std::vector<Poco::JSON::Object::Ptr> JsonLines(const std::string& text)
{
    std::vector<Poco::JSON::Object::Ptr> objects;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        objects.push_back(Poco::JSON::Parser().parse(line).extract<Poco::JSON::Object::Ptr>());
    }
    return objects;
}

void KernelTest::SetUp()
{
    const std::string why = WhyKernelAuditIsUnusable();
    if (!why.empty()) {
        GTEST_SKIP() << "real-kernel test skipped: " << why;
    }
    install_ = std::make_unique<TestSupport::TempDir>();
    scratch_ = std::make_unique<TestSupport::TempDir>();
    home_ = install_->path();
    dir_ = scratch_->path();
    std::filesystem::create_directories(home_ + "/lib/modules");
    std::filesystem::create_directories(home_ + "/etc");
    std::filesystem::create_directories(home_ + "/bin");
    std::filesystem::create_symlink(HW_AUDITCTL, home_ + "/bin/auditctl");
    std::filesystem::create_symlink(HW_AUDIT_MODULE, home_ + "/lib/modules/libaudit_module.so");
    std::filesystem::create_symlink(HW_EXPORT_MODULE, home_ + "/lib/modules/libexport_module.so");
    std::filesystem::create_symlink(HW_CONTAINER_MODULE, home_ + "/lib/modules/libcontainer_module.so");
    setenv("HOSTWARDEN_HOME", home_.c_str(), 1);
}

void KernelTest::TearDown()
{
    if (!install_) {
        return;  // skipped
    }
    const std::string left = ListKernelRules();
    for (const char* key : kAgentKeys) {
        EXPECT_EQ(left.find(key), std::string::npos) << "the agent left a rule behind:\n" << left;
        Auditctl(std::string("-D -k ") + key);
    }
    Auditctl(std::string("-D -k ") + kTestKeyMarker);
    Auditctl("-D -k " + dir_);
    EXPECT_EQ(ListKernelRules().find(kTestKeyMarker), std::string::npos) << "a rule of the test is still there";
    unsetenv("HOSTWARDEN_HOME");
}

std::unique_ptr<TestSupport::Program> KernelTest::Hostwarden(const std::vector<std::string>& args) const
{
    std::vector<std::string> argv{HW_HOSTWARDEN};
    argv.insert(argv.end(), args.begin(), args.end());
    return std::make_unique<TestSupport::Program>(argv, std::vector<std::string>{"HOSTWARDEN_HOME=" + home_});
}

int KernelTest::Auditctl(const std::string& args, std::string* output) const
{
    return Command(home_ + "/bin/auditctl " + args, output);
}

std::vector<Poco::JSON::Object::Ptr> KernelTest::AuditWhile(std::vector<std::string> args, const std::function<void()>& act,
                                                              const std::string& marker)
{
    args.insert(args.begin(), {"audit", "--flat"});  // the module's own records
    auto audit = Hostwarden(args);
    EXPECT_TRUE(audit->WaitFor("printing events", false)) << audit->err;
    act();
    std::filesystem::create_directory(marker);
    EXPECT_TRUE(audit->WaitFor("\"hostPath\":\"" + marker + "\"", true)) << audit->out;
    audit->Signal(SIGINT);
    EXPECT_EQ(audit->Wait(), 0) << audit->err;
    return JsonLines(audit->out);  // every line parses
}

std::string KernelTest::PathLines(const std::vector<Poco::JSON::Object::Ptr>& events)
{
    std::string lines;
    for (const Poco::JSON::Object::Ptr& event : events) {
        const Poco::JSON::Array::Ptr paths = event->getArray("paths");
        for (size_t i = 0; i < paths->size(); ++i) {
            const Poco::JSON::Object::Ptr path = paths->getObject(static_cast<unsigned>(i));
            lines += path->getValue<std::string>("nametype") + " " + path->getValue<std::string>("path") + " -> " +
                     path->getValue<std::string>("hostPath") + "\n";
        }
    }
    return lines;
}

Poco::JSON::Object::Ptr KernelTest::Find(const std::vector<Poco::JSON::Object::Ptr>& events,
                                         const std::function<bool(const Poco::JSON::Object::Ptr&)>& match)
{
    for (const Poco::JSON::Object::Ptr& event : events) {
        if (match(event)) {
            return event;
        }
    }
    return nullptr;
}

bool KernelTest::KernelLists(const std::string& text, bool present)
{
    return TestSupport::WaitUntil([&] { return (ListKernelRules().find(text) != std::string::npos) == present; }, 10);
}

}  // namespace E2E
