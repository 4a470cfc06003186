#include "sdk/ExecuteCmdUtils.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <thread>

using SDK::ExecuteCmdUtils;

namespace {

std::string RunLine(const std::string& line, int* status = nullptr, size_t bound = 4096)
{
    std::string output;
    const int rc = ExecuteCmdUtils::ExecuteCmd(line, output, bound);
    if (status != nullptr) {
        *status = rc;
    }
    return output;
}

}  // namespace

TEST(ExecuteCmd, QuotesGroupWordsAndNothingElseIsInterpreted)
{
    std::vector<std::string> words;
    ASSERT_TRUE(ExecuteCmdUtils::SplitCommandLine("a 'b c' \"d 'e'\" f\"g h\"i  ", words));
    EXPECT_EQ(words, (std::vector<std::string>{"a", "b c", "d 'e'", "fg hi"}));
    EXPECT_FALSE(ExecuteCmdUtils::SplitCommandLine("a 'b", words));

    // Each would do something else in a shell; here they reach the program as plain words.
    EXPECT_EQ(RunLine("/bin/echo a; touch /tmp/hw_never | cat > /tmp/hw_never2 $(id) `id` * ${HOME} &&"),
              "a; touch /tmp/hw_never | cat > /tmp/hw_never2 $(id) `id` * ${HOME} &&\n");
    EXPECT_NE(access("/tmp/hw_never", F_OK), 0);
    EXPECT_NE(access("/tmp/hw_never2", F_OK), 0);
    EXPECT_EQ(RunLine("/bin/echo -F auid>=1000 -k 'x***'"), "-F auid>=1000 -k x***\n");
}

TEST(ExecuteCmd, LeadingAssignmentsSetTheEnvironmentOfTheProgramOnly)
{
    EXPECT_EQ(RunLine("HW_A=1 HW_B='two words' /bin/sh -c 'echo $HW_A-$HW_B'"), "1-two words\n");
    EXPECT_EQ(std::getenv("HW_A"), nullptr);
    // An assignment replaces an inherited variable rather than adding a second one.
    setenv("HW_C", "old", 1);
    const std::string env = RunLine("HW_C=new /usr/bin/env");
    EXPECT_NE(env.find("HW_C=new\n"), std::string::npos);
    EXPECT_EQ(env.find("HW_C=old"), std::string::npos);
    unsetenv("HW_C");
    // An assignment after the program name is an ordinary argument.
    EXPECT_EQ(RunLine("/bin/echo X=1"), "X=1\n");
}

TEST(ExecuteCmd, StatusAndBothOutputStreamsAreCaptured)
{
    int status = -1;
    EXPECT_EQ(RunLine("/bin/sh -c 'echo out; echo err >&2; exit 3'", &status), "out\nerr\n");
    EXPECT_EQ(status, 3);
    RunLine("/bin/true", &status);
    EXPECT_EQ(status, 0);
    RunLine("/bin/sh -c 'kill -TERM $$'", &status);
    EXPECT_EQ(status, 128 + 15);
    // A name without a slash is found through PATH.
    EXPECT_EQ(RunLine("echo found", &status), "found\n");
    // Standard input is empty, so a program reading it does not hang.
    EXPECT_EQ(RunLine("/bin/cat", &status), "");
    EXPECT_EQ(status, 0);
}

TEST(ExecuteCmd, OutputIsBoundedButTheProgramRunsToItsEnd)
{
    int status = -1;
    const std::string out = RunLine("/bin/sh -c 'head -c 100000 /dev/zero | tr \"\\\\0\" x; exit 5'", &status, 4096);
    EXPECT_EQ(out.size(), 4096U);
    EXPECT_EQ(out, std::string(4096, 'x'));
    EXPECT_EQ(status, 5);
}

TEST(ExecuteCmd, AProgramThatCannotStartGives127AndSaysWhy)
{
    int status = 0;
    std::string out = RunLine("/no/such/program arg", &status);
    EXPECT_EQ(status, 127);
    EXPECT_NE(out.find("/no/such/program"), std::string::npos);
    out = RunLine("no-such-program-hw", &status);
    EXPECT_EQ(status, 127);
    out = RunLine("A=1 B=2", &status);
    EXPECT_EQ(status, 127);
    out = RunLine("/bin/echo 'unterminated", &status);
    EXPECT_EQ(status, 127);
    EXPECT_NE(out.find("quote"), std::string::npos);
}

// Task threads block SIGINT and SIGTERM; a program they start must still be stoppable, and must
// see none of the agent's descriptors.
TEST(ExecuteCmd, ProgramsStartWithDefaultSignalsAndOnlyTheStandardDescriptors)
{
    std::string status;
    std::string descriptors;
    std::thread([&] {
        sigset_t termination;
        sigemptyset(&termination);
        sigaddset(&termination, SIGINT);
        sigaddset(&termination, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &termination, nullptr);
        struct sigaction ignore {};
        ignore.sa_handler = SIG_IGN;
        struct sigaction before {};
        sigaction(SIGPIPE, &ignore, &before);
        const int leaked = open("/dev/null", O_RDONLY);  // without O_CLOEXEC
        status = RunLine("grep -E ^Sig(Blk|Ign) /proc/self/status");
        descriptors = RunLine("ls /proc/self/fd");
        close(leaked);
        sigaction(SIGPIPE, &before, nullptr);
    }).join();
    // The standard signals (1 to 31); glibc's posix_spawn leaves its own two internal ones ignored.
    const auto mask = [&](const char* name) {
        const size_t at = status.find(name);
        return at == std::string::npos ? ~0ULL : std::stoull(status.substr(at + 8, 16), nullptr, 16) & 0x7fffffffULL;
    };
    EXPECT_EQ(mask("SigBlk:"), 0ULL) << status;
    EXPECT_EQ(mask("SigIgn:"), 0ULL) << status;
    EXPECT_EQ(descriptors, "0\n1\n2\n3\n") << "3 is ls's own directory";
}
