#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sys/stat.h>
#include <cstdlib>
#include <string>

extern char** environ;

namespace {

// A running hostwarden whose standard error we read.
class Agent {
public:
    explicit Agent(const std::string& home)
    {
        int fds[2];
        EXPECT_EQ(pipe(fds), 0);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, fds[1], STDERR_FILENO);
        posix_spawn_file_actions_addclose(&actions, fds[0]);
        setenv("HOSTWARDEN_HOME", home.c_str(), 1);
        char* argv[] = {const_cast<char*>(HW_HOSTWARDEN), const_cast<char*>("run"), nullptr};
        EXPECT_EQ(posix_spawn(&pid_, HW_HOSTWARDEN, &actions, nullptr, argv, environ), 0);
        unsetenv("HOSTWARDEN_HOME");
        posix_spawn_file_actions_destroy(&actions);
        close(fds[1]);
        fd_ = fds[0];
    }
    ~Agent()
    {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        close(fd_);
    }
    // Reads standard error until text appears or the deadline passes.
    bool WaitForText(const std::string& text, int seconds = 30)
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
        while (output.find(text) == std::string::npos) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
            pollfd pfd{fd_, POLLIN, 0};
            if (left.count() <= 0 || poll(&pfd, 1, static_cast<int>(left.count())) <= 0) {
                return false;
            }
            char buffer[4096];
            const ssize_t got = read(fd_, buffer, sizeof(buffer));
            if (got <= 0) {
                return output.find(text) != std::string::npos;
            }
            output.append(buffer, static_cast<size_t>(got));
        }
        return true;
    }
    // Sends signal (0: none, the agent ends by itself), and waits for the exit status.
    int Stop(int signal)
    {
        if (signal != 0) {
            kill(pid_, signal);
        }
        WaitForText("\x04never", 30);  // drain until the pipe closes
        int status = 0;
        waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    pid_t Pid() const { return pid_; }
    std::string output;

private:
    pid_t pid_ = -1;
    int fd_ = -1;
};



// An installation of the built agent: both modules, an auditctl that only records its calls (so
// no test here changes the kernel's rules), and a configuration.
class Installation {
public:
    explicit Installation(const std::string& config)
    {
        char dirTemplate[] = "/tmp/hw_agent_XXXXXX";
        home = mkdtemp(dirTemplate);
        const std::string script = home + "/bin/auditctl";
        EXPECT_EQ(std::system(("mkdir -p " + home + "/bin " + home + "/etc " + home + "/lib/modules && ln -s " HW_AUDIT_MODULE
                               " " HW_EXPORT_MODULE " " + home + "/lib/modules/").c_str()),
                  0);
        std::ofstream(script) << "#!/bin/sh\necho \"$@\" >> \"$(dirname \"$0\")/../auditctl.calls\"\n";
        chmod(script.c_str(), 0755);
        std::ofstream(home + "/etc/hostwarden.json") << config;
    }
    ~Installation() { std::system(("rm -rf " + home).c_str()); }
    std::string home;
};

}  // namespace

TEST(AgentRun, ABadConfigurationIsNamedAndNothingIsLoaded)
{
    Installation install(R"({"subscriptions": [{"tag": "x", "syscall": "exit,always -S open -F dir=/tmp"}]})");
    Agent agent(install.home);
    EXPECT_EQ(agent.Stop(0), 78) << agent.output;
    EXPECT_NE(agent.output.find("hostwarden: bad configuration " + install.home + "/etc/hostwarden.json: "
                                "subscriptions[0].syscall: field 'dir' is not one the module filters on"),
              std::string::npos)
        << agent.output;
    EXPECT_EQ(agent.output.find("Loaded module"), std::string::npos);
}

class AgentRunSignals : public testing::TestWithParam<int> {};

// The main job: the agent loads the modules of its installation, runs their tasks, and on
// SIGTERM or SIGINT stops them, unloads the modules and exits 0.
TEST_P(AgentRunSignals, LoadsTheInstalledModulesAndStopsCleanlyOnSignal)
{
    Installation install(R"({"output": {"file": "events.jsonl"}})");
    Agent agent(install.home);
    ASSERT_TRUE(agent.WaitForText("Every subscription is installed in the kernel.")) << agent.output;
    EXPECT_NE(agent.output.find("Agent started with 2 module(s)"), std::string::npos);
    EXPECT_NE(agent.output.find("Loaded module audit_module."), std::string::npos);
    EXPECT_NE(agent.output.find("Loaded module export_module."), std::string::npos);
    // logrotate's way: move the file away, then SIGHUP; the agent opens the path anew.
    const std::string events = install.home + "/events.jsonl";
    ASSERT_EQ(std::rename(events.c_str(), (events + ".1").c_str()), 0);
    kill(agent.Pid(), SIGHUP);
    ASSERT_TRUE(agent.WaitForText("Reopened the event output.")) << agent.output;
    EXPECT_EQ(access(events.c_str(), F_OK), 0);
    EXPECT_EQ(agent.Stop(GetParam()), 0) << agent.output;
    EXPECT_NE(agent.output.find("Unloaded module export_module."), std::string::npos) << agent.output;
    EXPECT_NE(agent.output.find("Agent stopped."), std::string::npos) << agent.output;
}

INSTANTIATE_TEST_SUITE_P(Signals, AgentRunSignals, testing::Values(SIGTERM, SIGINT),
                         [](const testing::TestParamInfo<int>& info) { return info.param == SIGTERM ? "SIGTERM" : "SIGINT"; });
