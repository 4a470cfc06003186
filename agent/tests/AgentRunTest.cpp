// The main job as a program: its configuration refused before anything loads, and a clean run
// that reopens its output on SIGHUP and stops on SIGTERM or SIGINT.
#include "TestCommon.h"

namespace {

// An installation of the built agent: both modules, an auditctl that only records its calls (so
// no test here changes the kernel's rules), and a configuration.
struct Installation {
    explicit Installation(const std::string& config)
    {
        dir.Write("bin/auditctl", "#!/bin/sh\necho \"$@\" >> \"$(dirname \"$0\")/../auditctl.calls\"\n", 0755);
        dir.Write("etc/hostwarden.json", config);
        std::filesystem::create_directories(home + "/lib/modules");
        std::filesystem::create_symlink(HW_AUDIT_MODULE, home + "/lib/modules/libaudit_module.so");
        std::filesystem::create_symlink(HW_EXPORT_MODULE, home + "/lib/modules/libexport_module.so");
    }
    // hostwarden run in it.
    std::unique_ptr<TestSupport::Program> Run() const
    {
        return std::make_unique<TestSupport::Program>(std::vector<std::string>{HW_HOSTWARDEN, "run"},
                                                      std::vector<std::string>{"HOSTWARDEN_HOME=" + home});
    }
    TestSupport::TempDir dir;
    const std::string home = dir.path();
};

}  // namespace

TEST(AgentRun, ABadConfigurationIsNamedAndNothingIsLoaded)
{
    Installation install(R"({"subscriptions": [{"tag": "x", "syscall": "exit,always -S open -F dir=/tmp"}]})");
    auto agent = install.Run();
    EXPECT_EQ(agent->Wait(), 78) << agent->err;
    EXPECT_NE(agent->err.find("hostwarden: bad configuration " + install.home + "/etc/hostwarden.json: "
                              "subscriptions[0].syscall: field 'dir' is not one the module filters on"),
              std::string::npos)
        << agent->err;
    EXPECT_EQ(agent->err.find("Loaded module"), std::string::npos);
}

// The main job: the agent loads the modules of its installation, runs their tasks, and on SIGTERM
// stops them, unloads the modules and exits 0.
TEST(AgentRun, LoadsTheInstalledModulesReopensItsOutputOnSighupAndStopsCleanly)
{
    Installation install(R"({"output": {"file": "events.jsonl"}})");
    auto agent = install.Run();
    ASSERT_TRUE(agent->WaitFor("Every subscription is installed in the kernel.", false)) << agent->err;
    for (const char* text : {"Agent started with 2 module(s)", "Loaded module audit_module.", "Loaded module export_module."}) {
        EXPECT_NE(agent->err.find(text), std::string::npos) << text;
    }
    // logrotate's way: move the file away, then SIGHUP; the agent opens the path anew.
    const std::string events = install.home + "/events.jsonl";
    ASSERT_EQ(std::rename(events.c_str(), (events + ".1").c_str()), 0);
    agent->Signal(SIGHUP);
    ASSERT_TRUE(agent->WaitFor("Reopened the event output.", false)) << agent->err;
    EXPECT_EQ(access(events.c_str(), F_OK), 0);
    agent->Signal(SIGTERM);
    EXPECT_EQ(agent->Wait(), 0) << agent->err;
    EXPECT_NE(agent->err.find("Unloaded module export_module."), std::string::npos) << agent->err;
    EXPECT_NE(agent->err.find("Agent stopped."), std::string::npos) << agent->err;
    // Log lines name their source within the project, not where it was built.
    EXPECT_EQ(agent->err.find(HW_SOURCE_DIR), std::string::npos) << agent->err;
    EXPECT_NE(agent->err.find(" platform/framework/src/Engine.cpp:"), std::string::npos) << agent->err;
}
