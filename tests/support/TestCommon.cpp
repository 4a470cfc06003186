#include "TestCommon.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace TestSupport {

TempDir::TempDir()
{
    char pattern[] = "/tmp/hw_test_XXXXXX";
    if (mkdtemp(pattern) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    path_ = pattern;
}

TempDir::~TempDir()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string TempDir::Write(const std::string& relative, const std::string& content, unsigned mode) const
{
    const std::string file = path_ + "/" + relative;
    std::filesystem::create_directories(std::filesystem::path(file).parent_path());
    std::ofstream(file, std::ios::trunc) << content;
    chmod(file.c_str(), mode);
    return file;
}

std::vector<std::string> ReadLines(const std::string& path)
{
    std::ifstream in(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::string ReadFile(const std::string& path)
{
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

std::string FixturesDir()
{
    return std::string(HW_SOURCE_DIR) + "/tests/fixtures/";
}

void ExpectGolden(const std::string& relative, const std::string& text)
{
    const std::string path = std::string(HW_SOURCE_DIR) + "/" + relative;
    if (std::getenv("HW_UPDATE_GOLDEN") != nullptr) {
        std::ofstream(path, std::ios::trunc) << text;
    }
    const std::string golden = ReadFile(path);
    if (golden == text) {
        return;
    }
    // Name the first line that differs rather than printing both files whole.
    size_t line = 1;
    size_t at = 0;
    while (at < golden.size() && at < text.size() && golden[at] == text[at]) {
        line += golden[at++] == '\n' ? 1 : 0;
    }
    const auto lineAt = [&](const std::string& s) {
        const size_t start = s.rfind('\n', at == 0 ? 0 : at - 1);
        const size_t from = start == std::string::npos || at == 0 ? 0 : start + 1;
        return s.substr(from, s.find('\n', from) - from);
    };
    ADD_FAILURE() << relative << " differs at line " << line << "\n  golden: " << lineAt(golden)
                  << "\n  actual: " << lineAt(text) << "\n(HW_UPDATE_GOLDEN=1 rewrites it)";
}

std::string MutatedLines(const std::vector<std::string>& lines, Random& next)
{
    const char specials[] = {' ', '=', '"', '\'', '\x1d', ':', '/', '(', ')', '\0', 'F', '0'};
    std::string text;
    for (std::string line : lines) {
        for (uint64_t edits = next() % 3; edits > 0 && !line.empty(); --edits) {
            const size_t at = next() % line.size();
            switch (next() % 4) {
            case 0: line[at] = specials[next() % sizeof(specials)]; break;
            case 1: line.resize(at); break;
            case 2: line.insert(at, 1, specials[next() % sizeof(specials)]); break;
            default: line[at] = static_cast<char>(next() & 0xff); break;
            }
        }
        text += line + "\n";
    }
    return text;
}

bool WaitUntil(const std::function<bool()>& condition, int seconds)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));  // polling a condition, with a deadline
    }
    return true;
}

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

}  // namespace TestSupport
