#include "sdk/ExecuteCmdUtils.h"

#include "TestCommon.h"

#include <fcntl.h>
#include <pthread.h>

using SDK::ExecuteCmdUtils;

// No shell: quotes group words, nothing else is interpreted, leading assignments set the
// environment; output and error arrive together, bounded; a line that cannot start gives 127.
TEST(ExecuteCmd, EachLineGivesItsStatusAndCombinedOutput)
{
    std::vector<std::string> words;
    ASSERT_TRUE(ExecuteCmdUtils::SplitCommandLine("a 'b c' \"d 'e'\" f\"g h\"i  ", words));
    EXPECT_EQ(words, (std::vector<std::string>{"a", "b c", "d 'e'", "fg hi"}));
    ASSERT_TRUE(ExecuteCmdUtils::SplitCommandLine("x", words));
    EXPECT_EQ(words, std::vector<std::string>{"x"}) << "the words of this line only";
    setenv("HW_C", "old", 1);
    const std::tuple<const char*, std::string, int> cases[] = {
        // Each would do something else in a shell; here they reach the program as plain words.
        {"/bin/echo a; touch /tmp/hw_never | cat > /tmp/hw_never2 $(id) `id` * ${HOME} &&",
         "a; touch /tmp/hw_never | cat > /tmp/hw_never2 $(id) `id` * ${HOME} &&\n", 0},
        {"/bin/echo -F auid>=1000 -k 'x***'", "-F auid>=1000 -k x***\n", 0},
        {"HW_A=1 HW_B='two words' /bin/sh -c 'echo $HW_A-$HW_B'", "1-two words\n", 0},
        {"HW_C=new grep -z ^HW_C= /proc/self/environ", std::string("HW_C=new\0", 9), 0},  // replaced, not added
        {"/bin/echo X=1", "X=1\n", 0},  // after the program name: an argument
        {"echo found", "found\n", 0},   // through PATH
        {"/bin/cat", "", 0},            // standard input is empty, so this does not hang
        {"/bin/sh -c 'echo out; echo err >&2; exit 3'", "out\nerr\n", 3},
        {"/bin/sh -c 'kill -TERM $$'", "", 128 + 15},
        {"/bin/sh -c 'head -c 100000 /dev/zero | tr \"\\\\0\" x; exit 5'", std::string(4096, 'x'), 5},
        {"/no/such/program arg", "cannot start /no/such/program: No such file or directory", 127},
        {"no-such-program-hw", "cannot start no-such-program-hw: No such file or directory", 127},
        {"A=1 B=2", "no program in command line", 127},
        {"A-B=1 /bin/echo", "cannot start A-B=1: No such file or directory", 127},  // not a name: the program
        {"/bin/echo 'unterminated", "unterminated quote in command line", 127},
    };
    for (const auto& [line, expected, status] : cases) {
        std::string output;
        EXPECT_EQ(ExecuteCmdUtils::ExecuteCmd(line, output, 4096), status) << line;
        EXPECT_EQ(output, expected) << line;
    }
    EXPECT_EQ(std::getenv("HW_A"), nullptr) << "the agent's own environment stays as it was";
    EXPECT_STREQ(std::getenv("HW_C"), "old");
    unsetenv("HW_C");
    EXPECT_NE(access("/tmp/hw_never", F_OK), 0);
    EXPECT_NE(access("/tmp/hw_never2", F_OK), 0);
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
        ExecuteCmdUtils::ExecuteCmd("grep -E ^Sig(Blk|Ign) /proc/self/status", status, 4096);
        ExecuteCmdUtils::ExecuteCmd("ls /proc/self/fd", descriptors, 4096);
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

// The installation's auditctl runs with its lib/ first on the loader path; an installation
// without one runs nothing.
TEST(ExecuteCmd, TheInstallationsAuditctlRunsWithItsOwnLibrariesFirst)
{
    const TestSupport::TempDir home;
    setenv("HOSTWARDEN_HOME", home.path().c_str(), 1);
    std::string output;
    EXPECT_EQ(ExecuteCmdUtils::ExecuteInstalledAuditctl({"-l"}, output, 4096), -1) << "no bin/auditctl";
    home.Write("bin/auditctl", "#!/bin/sh\necho \"$* ${LD_LIBRARY_PATH%%:*}\"\nexit 3\n", 0755);
    EXPECT_EQ(ExecuteCmdUtils::ExecuteInstalledAuditctl({"-l", "-k x"}, output, 4096), 3);
    EXPECT_EQ(output, "-l -k x " + home.path() + "/lib\n");
    unsetenv("HOSTWARDEN_HOME");
}
