#include "sdk/ExecuteCmdUtils.h"
#include "sdk/FileUtils.h"
#include "sdk/PathUtils.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

extern char** environ;

namespace SDK {

namespace {

bool IsAssignment(const std::string& word)
{
    const size_t eq = word.find('=');
    if (eq == std::string::npos || eq == 0) {
        return false;
    }
    for (size_t i = 0; i < eq; ++i) {
        const char c = word[i];
        const bool ok = c == '_' || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (i > 0 && c >= '0' && c <= '9');
        if (!ok) {
            return false;
        }
    }
    return true;
}

// The child's environment: ours, with the assignments replacing variables of the same name.
std::vector<std::string> BuildEnvironment(const std::vector<std::string>& assignments)
{
    std::vector<std::string> env;
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        const char* eq = std::strchr(*entry, '=');
        const size_t nameLen = eq == nullptr ? std::strlen(*entry) : static_cast<size_t>(eq - *entry);
        bool replaced = false;
        for (const std::string& assignment : assignments) {
            if (assignment.compare(0, nameLen + 1, *entry, nameLen + 1) == 0) {
                replaced = true;
                break;
            }
        }
        if (!replaced) {
            env.emplace_back(*entry);
        }
    }
    env.insert(env.end(), assignments.begin(), assignments.end());
    return env;
}

std::vector<char*> ToArgv(std::vector<std::string>& words)
{
    std::vector<char*> argv;
    argv.reserve(words.size() + 1);
    for (std::string& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    return argv;
}

void ReadAll(int fd, std::string& output, size_t maxOutput)
{
    char buffer[4096];
    for (;;) {
        const ssize_t got = read(fd, buffer, sizeof(buffer));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            return;
        }
        const size_t room = maxOutput > output.size() ? maxOutput - output.size() : 0;
        output.append(buffer, std::min(room, static_cast<size_t>(got)));
    }
}

int WaitStatus(pid_t pid)
{
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) {
            return ExecuteCmdUtils::kCannotStart;
        }
    }
    if (WIFEXITED(status)) {
        return WEXITSTATUS(status);
    }
    if (WIFSIGNALED(status)) {
        return 128 + WTERMSIG(status);
    }
    return ExecuteCmdUtils::kCannotStart;
}

}  // namespace

bool ExecuteCmdUtils::SplitCommandLine(const std::string& cmdLine, std::vector<std::string>& words)
{
    words.clear();
    std::string word;
    bool inWord = false;
    char quote = '\0';
    for (const char c : cmdLine) {
        if (quote != '\0') {
            if (c == quote) {
                quote = '\0';
            } else {
                word.push_back(c);
            }
        } else if (c == '\'' || c == '"') {
            quote = c;
            inWord = true;
        } else if (c == ' ' || c == '\t' || c == '\n') {
            if (inWord) {
                words.push_back(std::move(word));
                word.clear();
                inWord = false;
            }
        } else {
            word.push_back(c);
            inWord = true;
        }
    }
    if (quote != '\0') {
        return false;
    }
    if (inWord) {
        words.push_back(std::move(word));
    }
    return true;
}

int ExecuteCmdUtils::ExecuteCmd(const std::string& cmdLine, std::string& output, size_t maxOutput)
{
    output.clear();
    std::vector<std::string> words;
    if (!SplitCommandLine(cmdLine, words)) {
        output = "unterminated quote in command line";
        return kCannotStart;
    }
    std::vector<std::string> assignments;
    size_t first = 0;
    while (first < words.size() && IsAssignment(words[first])) {
        assignments.push_back(words[first++]);
    }
    if (first == words.size()) {
        output = "no program in command line";
        return kCannotStart;
    }
    return ExecuteArgs(std::vector<std::string>(words.begin() + static_cast<long>(first), words.end()), output,
                       maxOutput, assignments);
}

int ExecuteCmdUtils::ExecuteArgs(const std::vector<std::string>& arguments, std::string& output, size_t maxOutput,
                                 const std::vector<std::string>& assignments)
{
    output.clear();
    if (arguments.empty()) {
        output = "no program to run";
        return kCannotStart;
    }
    std::vector<std::string> args = arguments;
    std::vector<std::string> env = BuildEnvironment(assignments);
    std::vector<char*> argv = ToArgv(args);
    std::vector<char*> envp = ToArgv(env);

    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        output = std::string("cannot create pipe: ") + std::strerror(errno);
        return kCannotStart;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDERR_FILENO);
    // Nothing of ours beyond the three standard descriptors reaches the program.
    posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
    // Task threads block the termination signals (the engine waits for them), and a blocked or
    // ignored signal is inherited: the program starts with every signal unblocked and at its
    // default, so it can be stopped.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigset_t all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &all);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

    pid_t pid = -1;
    // A name without a slash is looked up in our PATH, as a shell would.
    const int rc = args[0].find('/') == std::string::npos
                       ? posix_spawnp(&pid, argv[0], &actions, &attributes, argv.data(), envp.data())
                       : posix_spawn(&pid, argv[0], &actions, &attributes, argv.data(), envp.data());
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);
    if (rc != 0) {
        close(fds[0]);
        output = "cannot start " + args[0] + ": " + std::strerror(rc);
        return kCannotStart;
    }
    ReadAll(fds[0], output, maxOutput);
    close(fds[0]);
    return WaitStatus(pid);
}

int ExecuteCmdUtils::ExecuteInstalledAuditctl(const std::vector<std::string>& args, std::string& output,
                                              size_t maxOutput)
{
    const std::string program = InstalledAuditctl();
    if (program.empty()) {
        return -1;
    }
    std::vector<std::string> argv{program};
    argv.insert(argv.end(), args.begin(), args.end());
    // program is HOME/bin/auditctl: HOME/lib goes first on the loader path.
    return ExecuteArgs(argv, output, maxOutput, {"LD_LIBRARY_PATH=" + program.substr(0, program.size() - 12) + "lib"});
}

std::string ExecuteCmdUtils::InstalledAuditctl()
{
    std::string home;
    if (PathUtils::GetInstallationPath(home) != 0 || !FileUtils::IsFile(home + "bin/auditctl")) {
        return {};
    }
    return home + "bin/auditctl";
}

}  // namespace SDK
