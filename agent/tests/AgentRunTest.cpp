#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
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
    int Stop(int signal)
    {
        kill(pid_, signal);
        WaitForText("\x04never", 30);  // drain until the pipe closes
        int status = 0;
        waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    std::string output;

private:
    pid_t pid_ = -1;
    int fd_ = -1;
};

}  // namespace

class AgentRun : public testing::TestWithParam<int> {};

// The main job: the agent loads every module of its installation, runs their tasks, and on
// SIGTERM or SIGINT stops them, unloads the modules and exits 0.
TEST_P(AgentRun, LoadsTheInstalledModulesAndStopsCleanlyOnSignal)
{
    char dirTemplate[] = "/tmp/hw_agent_XXXXXX";
    const std::string home = mkdtemp(dirTemplate);
    ASSERT_EQ(std::system(("mkdir -p " + home + "/lib/modules && cp " HW_TEST_MODULE " " + home + "/lib/modules/").c_str()), 0);
    {
        Agent agent(home);
        ASSERT_TRUE(agent.WaitForText("Agent started with 1 module(s)")) << agent.output;
        EXPECT_NE(agent.output.find("Loaded module echo_module."), std::string::npos);
        EXPECT_EQ(agent.Stop(GetParam()), 0) << agent.output;
        EXPECT_NE(agent.output.find("Unloaded module echo_module."), std::string::npos) << agent.output;
        EXPECT_NE(agent.output.find("Agent stopped."), std::string::npos) << agent.output;
    }
    std::system(("rm -rf " + home).c_str());
}

INSTANTIATE_TEST_SUITE_P(Signals, AgentRun, testing::Values(SIGTERM, SIGINT),
                         [](const testing::TestParamInfo<int>& info) { return info.param == SIGTERM ? "SIGTERM" : "SIGINT"; });
