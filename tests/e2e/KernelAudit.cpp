#include "KernelAudit.h"

#include "sdk/DirUtils.h"
#include "sdk/ExecuteCmdUtils.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>

#include <cstdlib>
#include <stdexcept>

extern char** environ;

namespace E2E {

int SystemAuditctl(const std::string& args, std::string* output)
{
    std::string scratch;
    return SDK::ExecuteCmdUtils::ExecuteCmd("/usr/sbin/auditctl " + args, output ? *output : scratch, 1 << 20);
}

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
    if (status.find("\npid 0\n") != std::string::npos) {
        return "auditd is not running";
    }
    return {};
}

std::string ListKernelRules()
{
    std::string rules;
    SystemAuditctl("-l", &rules);
    return rules;
}

TestInstallation::TestInstallation()
{
    char pattern[] = "/tmp/hw_install_XXXXXX";
    if (mkdtemp(pattern) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    home_ = pattern;
    SDK::DirUtils::CreateDirs(home_ + "/bin");
    SDK::DirUtils::CreateDirs(home_ + "/lib/modules");
    SDK::DirUtils::CreateDirs(home_ + "/etc");
    if (symlink(HW_AUDITCTL, (home_ + "/bin/auditctl").c_str()) != 0 ||
        symlink(HW_AUDIT_MODULE, (home_ + "/lib/modules/libaudit_module.so").c_str()) != 0 ||
        symlink(HW_EXPORT_MODULE, (home_ + "/lib/modules/libexport_module.so").c_str()) != 0) {
        throw std::runtime_error("cannot link the built auditctl and modules");
    }
    setenv("HOSTWARDEN_HOME", home_.c_str(), 1);
}

TestInstallation::~TestInstallation()
{
    unsetenv("HOSTWARDEN_HOME");
    std::string ignored;
    SDK::ExecuteCmdUtils::ExecuteCmd("rm -rf " + home_, ignored, 4096);
}

int TestInstallation::Auditctl(const std::string& args, std::string* output) const
{
    std::string scratch;
    return SDK::ExecuteCmdUtils::ExecuteCmd(home_ + "/bin/auditctl " + args, output ? *output : scratch, 1 << 20);
}

void RemoveTestRules(const std::string& foreignKey)
{
    std::string ignored;
    SDK::ExecuteCmdUtils::ExecuteCmd(std::string(HW_AUDITCTL) + " -D -k " + kTestKeyMarker, ignored, 4096);
    if (!foreignKey.empty()) {
        SystemAuditctl("-D -k " + foreignKey);
    }
}

}  // namespace E2E

namespace E2E {

Program::Program(const std::vector<std::string>& args, const std::vector<std::string>& assignments)
{
    int outPipe[2];
    int errPipe[2];
    if (pipe2(outPipe, O_CLOEXEC) != 0 || pipe2(errPipe, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe failed");
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, outPipe[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, errPipe[1], STDERR_FILENO);
    std::vector<std::string> env;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        env.emplace_back(*entry);
    }
    env.insert(env.end(), assignments.begin(), assignments.end());
    std::vector<char*> argv;
    std::vector<char*> envp;
    for (const std::string& arg : args) {
        argv.push_back(const_cast<char*>(arg.c_str()));
    }
    for (const std::string& entry : env) {
        envp.push_back(const_cast<char*>(entry.c_str()));
    }
    argv.push_back(nullptr);
    envp.push_back(nullptr);
    const int rc = posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    close(outPipe[1]);
    close(errPipe[1]);
    outFd_ = outPipe[0];
    errFd_ = errPipe[0];
    if (rc != 0) {
        pid_ = -1;
        throw std::runtime_error("cannot start " + args[0]);
    }
}

Program::~Program()
{
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    close(outFd_);
    close(errFd_);
}

void Program::Read(int timeoutMs)
{
    pollfd fds[2] = {{outFd_, POLLIN, 0}, {errFd_, POLLIN, 0}};
    if (poll(fds, 2, timeoutMs) <= 0) {
        return;
    }
    char buffer[4096];
    for (int i = 0; i < 2; ++i) {
        if ((fds[i].revents & (POLLIN | POLLHUP)) != 0) {
            const ssize_t got = read(fds[i].fd, buffer, sizeof(buffer));
            if (got > 0) {
                (i == 0 ? out : err).append(buffer, static_cast<size_t>(got));
            }
        }
    }
}

bool Program::WaitFor(const std::string& text, bool inOut, int seconds)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while ((inOut ? out : err).find(text) == std::string::npos) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        Read(100);
    }
    return true;
}

void Program::Signal(int signal)
{
    kill(pid_, signal);
}

int Program::Wait(int seconds)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    int status = 0;
    while (waitpid(pid_, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return -1;
        }
        Read(50);
    }
    pid_ = -1;
    for (int i = 0; i < 20; ++i) {
        Read(0);
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace E2E
