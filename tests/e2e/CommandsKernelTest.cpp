// hostwarden's commands, run as programs against the real kernel and auditd: real actions give
// their decoded events and notifications, and no rule is left behind.
#include "KernelAudit.h"

#include <fcntl.h>

#include <Poco/HexBinaryDecoder.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/syscall.h>

#include <climits>

using Json = Poco::JSON::Object::Ptr;
using TestSupport::ReadFile;

namespace {

class CommandsKernel : public E2E::KernelTest {
protected:
    void Configure(const std::string& subscriptions, const std::string& output = R"({"stdout": false})")
    {
        std::ofstream(home_ + "/etc/hostwarden.json") << R"({"output": )" << output << R"(, "subscriptions": [)" << subscriptions << "]}";
    }
    std::string Getpgid(const std::string& tag) const
    {
        return R"({"tag": ")" + tag + R"(", "syscall": "exit,always -F arch=b64 -S getpgid -F pid=)" + std::to_string(getpid()) + R"("})";
    }
};

}  // namespace

TEST_F(CommandsKernel, AuditPrintsTheDecodedEventsOfRealActions)
{
    const std::string pid = std::to_string(getpid());
    const std::string file = dir_ + "/created";
    const std::string renamed = dir_ + "/renamed";
    const std::string hostile = dir_ + "/bad\xff\xfe";  // a program name that is no UTF-8
    sockaddr_in address{};
    const auto events = AuditWhile({"exit,always -F arch=b64 -S connect -F pid=" + pid, "exit,always -F arch=b64 -S execve,execveat -F ppid=" + pid,
                                    "exit,always -F arch=b64 -S fchmodat2 -F pid=" + pid,
                                    "--watch", dir_, "--tag", "t"},
                                   [&] {
        std::ofstream(file).flush();
        std::ofstream(file, std::ios::app) << "x";
        ASSERT_EQ(chmod(file.c_str(), 0600), 0);
        ASSERT_EQ(syscall(452, AT_FDCWD, file.c_str(), 0640, 0), 0) << "fchmodat2, newer than auditctl";
        ASSERT_EQ(rename(file.c_str(), renamed.c_str()), 0);
        ASSERT_EQ(unlink(renamed.c_str()), 0);
        // An exec as an unprivileged user, one as root (the kernel writes BPRM_FCAPS between its
        // SYSCALL and EXECVE records), and one through fexecve (execveat).
        TestSupport::Program({"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "/bin/echo", "hwe2e-marker"}).Wait();
        TestSupport::Program({"/bin/echo", "hwe2e-root"}).Wait();
        TestSupport::Program({"/usr/bin/python3", "-c",
                              "import os; os.execve(os.open('/bin/echo', os.O_RDONLY), ['echo', 'hwe2e-fexecve'], {})"}).Wait();
        std::filesystem::copy_file("/bin/true", hostile);
        std::filesystem::permissions(hostile, std::filesystem::perms::owner_all);
        TestSupport::Program({hostile}).Wait();
        const int listener = socket(AF_INET, SOCK_STREAM, 0);
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), length) + listen(listener, 1), 0);
        getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
        const int client = socket(AF_INET, SOCK_STREAM, 0);
        ASSERT_EQ(connect(client, reinterpret_cast<sockaddr*>(&address), length), 0);
        close(client);
        close(listener);
    },
                                   dir_ + "/end");
    const std::string paths = PathLines(events);
    for (const std::string& expected : {"CREATE " + file, "NORMAL " + file, "DELETE " + file, "CREATE " + renamed, "DELETE " + renamed}) {
        EXPECT_NE(paths.find(expected + " -> " + expected.substr(expected.find(' ') + 1) + "\n"), std::string::npos) << expected << "\n" << paths;
    }
    const Json created = Find(events, [&](const Json& e) { return e->getValue<int>("items") == 2 && e->getValue<bool>("write"); });
    ASSERT_TRUE(created) << "no create event";
    char cwd[PATH_MAX] = {0};
    EXPECT_EQ(created->getValue<std::string>("tag") + " " + created->getValue<std::string>("cwd"), std::string("t ") + getcwd(cwd, sizeof(cwd)));

    const Json exec = Find(events, [&](const Json& e) { return e->getObject("execve")->optValue<std::string>("a1", "") == "\"hwe2e-marker\""; });
    ASSERT_TRUE(exec) << "no execve";
    EXPECT_EQ(exec->getValue<std::string>("exe") + " " + exec->getValue<std::string>("ppid"), "/usr/bin/echo " + pid);
    EXPECT_TRUE(exec->getValue<bool>("execute"));
    for (const char* marker : {"hwe2e-root", "hwe2e-fexecve"}) {
        const Json whole = Find(events, [&](const Json& e) {
            return e->getObject("execve")->optValue<std::string>("a1", "") == "\"" + std::string(marker) + "\"";
        });
        ASSERT_TRUE(whole) << marker << ": no execve with its arguments";
        EXPECT_FALSE(whole->getValue<std::string>("cwd").empty()) << marker;
        EXPECT_FALSE(whole->getArray("paths")->empty()) << marker;
    }
    EXPECT_TRUE(Find(events, [](const Json& e) { return e->getValue<int>("syscall") == 452; })) << "no fchmodat2";
    const Json bad = Find(events, [&](const Json& e) { return e->getValue<std::string>("exe").compare(0, 4, "hex:") == 0; });
    ASSERT_TRUE(bad) << "no hex-marked program name";
    std::istringstream hex(bad->getValue<std::string>("exe").substr(4));
    Poco::HexBinaryDecoder bytes(hex);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(bytes), {}), hostile) << "the original bytes come back";
    const Json net = Find(events, [&](const Json& e) { return e->getValue<int>("family") == 2; });
    ASSERT_TRUE(net) << "no connect";
    EXPECT_EQ(std::to_string(net->getValue<int>("syscall")) + " " + net->getValue<std::string>("pid") + " " + net->getValue<std::string>("saddr") +
                  ":" + std::to_string(net->getValue<int>("port")),
              "42 " + pid + " 127.0.0.1:" + std::to_string(ntohs(address.sin_port)));
}

// hostwarden watch while auditd rotates its log (SIGUSR1): the reader finishes the rotated file
// and goes on in the new one, so every notification arrives.
TEST_F(CommandsKernel, WatchLosesNothingWhileAuditdRotatesItsLog)
{
    auto watch = Hostwarden({"watch", "--flat", dir_, "--events", "create", "--tag", "t"});
    ASSERT_TRUE(watch->WaitFor("path(s) watched", false)) << watch->err;
    ASSERT_TRUE(KernelLists("-w " + dir_ + " "));
    std::string status;
    E2E::SystemAuditctl("-s", &status);
    const pid_t auditd = static_cast<pid_t>(std::stol(status.substr(status.find("\npid ") + 5)));
    constexpr int kFiles = 300;
    for (int i = 0; i < kFiles; ++i) {
        if (i == kFiles / 2) {
            ASSERT_EQ(kill(auditd, SIGUSR1), 0);
        }
        std::ofstream(dir_ + "/f" + std::to_string(i)).flush();
        std::this_thread::sleep_for(std::chrono::milliseconds(5));  // paces the load, not a synchronisation
    }
    ASSERT_TRUE(watch->WaitFor(dir_ + "/f" + std::to_string(kFiles - 1) + "\"", true)) << watch->out;
    watch->Signal(SIGINT);
    EXPECT_EQ(watch->Wait(), 0) << watch->err;
    std::set<std::string> seen;
    for (const Json& line : E2E::JsonLines(watch->out)) {
        seen.insert(line->getValue<std::string>("path"));
        EXPECT_EQ(line->getValue<std::string>("tag") + " " + line->getValue<std::string>("kind"), "t create") << "only creates asked for";
    }
    EXPECT_EQ(E2E::ListKernelRules().find(dir_), std::string::npos) << "unwatched on exit";
    for (int i = 0; i < kFiles; ++i) {
        EXPECT_EQ(seen.count(dir_ + "/f" + std::to_string(i)), 1U) << "lost f" << i;
    }
}

// The main job: the next start removes the rules a killed run left; events reach the output file
// with their subscription's tag; SIGTERM ends it with status 0 and no rule left.
TEST_F(CommandsKernel, RunExportsWhatItsConfigurationSubscribesAndStopsCleanly)
{
    Configure(Getpgid("killed"));
    auto killed = Hostwarden({"run"});
    ASSERT_TRUE(killed->WaitFor("Every subscription is installed in the kernel.", false)) << killed->err;
    killed->Signal(SIGKILL);
    killed->Wait();
    ASSERT_TRUE(KernelLists("export_task***killed")) << "left by the killed run";

    const std::string events = dir_ + "/out/events.jsonl";
    Configure(Getpgid("marker") + R"(, {"tag": "files", "watch": ")" + dir_ + R"(", "recursive": true})",
              R"({"file": ")" + events + R"(", "stdout": false, "format": "flat"})");
    auto run = Hostwarden({"run"});
    ASSERT_TRUE(run->WaitFor("Every subscription is installed in the kernel.", false)) << run->err;
    EXPECT_EQ(E2E::ListKernelRules().find("export_task***killed"), std::string::npos);
    syscall(SYS_getpgid, 424242);
    mkdir((dir_ + "/made").c_str(), 0755);
    const auto exported = [&](const std::string& text) { return TestSupport::WaitUntil([&] { return ReadFile(events).find(text) != std::string::npos; }); };
    ASSERT_TRUE(exported("\"tag\":\"files\",\"path\":\"" + dir_ + "/made\"")) << ReadFile(events);
    ASSERT_TRUE(exported("\"tag\":\"marker\"")) << ReadFile(events);
    run->Signal(SIGTERM);
    EXPECT_EQ(run->Wait(), 0) << run->err;
    const Json marker = Find(E2E::JsonLines(ReadFile(events)), [](const Json& e) { return e->getValue<std::string>("tag") == "marker"; });
    EXPECT_EQ(marker->getValue<int>("syscall"), SYS_getpgid);
    EXPECT_EQ(marker->getValue<std::string>("a0"), "67932") << "424242 in hexadecimal";
}

// The kernel drops a watch whose directory is removed; it is installed again as soon as the
// directory is back (before the file is), so the file's creation is seen.
TEST_F(CommandsKernel, AWatchedFileWhoseDirectoryIsRemovedIsWatchedAgainWhenTheDirectoryReturns)
{
    const std::string directory = dir_ + "/a/d";
    const std::string file = directory + "/file";
    std::filesystem::create_directories(directory);
    std::ofstream(file).flush();
    auto audit = Hostwarden({"audit", "--flat", "--watch", file, "--tag", "t"});
    ASSERT_TRUE(audit->WaitFor("printing events", false)) << audit->err;
    ASSERT_TRUE(KernelLists("-w " + file + " "));
    std::filesystem::remove_all(dir_ + "/a");
    ASSERT_TRUE(KernelLists("-w " + file + " ", false)) << "the kernel dropped it";
    std::filesystem::create_directories(directory);
    ASSERT_TRUE(KernelLists("-w " + file + " ")) << audit->err;
    std::ofstream(file) << "back";
    EXPECT_TRUE(audit->WaitFor("\"hostPath\":\"" + file + "\"", true)) << audit->out;
    audit->Signal(SIGINT);
    EXPECT_EQ(audit->Wait(), 0) << audit->err;
    EXPECT_EQ(E2E::ListKernelRules().find(file), std::string::npos) << "unwatched on exit";
}
