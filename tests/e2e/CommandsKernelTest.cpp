// hostwarden's commands, run as programs against the real kernel and auditd: real actions give
// their decoded events and notifications, and no rule is left behind.
#include "KernelAudit.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <filesystem>
#include <fstream>
#include <functional>
#include <set>
#include <thread>

using Json = Poco::JSON::Object::Ptr;
using TestSupport::ReadFile;

extern char** environ;

namespace {

class CommandsKernel : public E2E::KernelTest {
protected:
    // The first event for which match holds, or null.
    static Json Find(const std::vector<Json>& events, const std::function<bool(const Json&)>& match)
    {
        for (const Json& event : events) {
            if (match(event)) {
                return event;
            }
        }
        return nullptr;
    }
    static bool HasPath(const Json& event, const std::string& path, const std::string& nametype)
    {
        const Poco::JSON::Array::Ptr paths = event->getArray("paths");
        for (size_t i = 0; i < paths->size(); ++i) {
            const Json record = paths->getObject(static_cast<unsigned>(i));
            if (record->getValue<std::string>("hostPath") == path && record->getValue<std::string>("nametype") == nametype) {
                return true;
            }
        }
        return false;
    }
    static void Spawn(std::vector<std::string> args)
    {
        std::vector<char*> argv;
        for (std::string& arg : args) {
            argv.push_back(arg.data());
        }
        argv.push_back(nullptr);
        pid_t child = -1;
        ASSERT_EQ(posix_spawn(&child, argv[0], nullptr, nullptr, argv.data(), environ), 0);
        waitpid(child, nullptr, 0);
    }
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
    auto audit = Hostwarden({"audit", "exit,always -F arch=b64 -S connect -F pid=" + pid,
                             "exit,always -F arch=b64 -S execve -F ppid=" + pid, "--watch", dir_, "--tag", "t"});
    ASSERT_TRUE(audit->WaitFor("printing events", false)) << audit->err;

    const std::string file = dir_ + "/created";
    const std::string renamed = dir_ + "/renamed";
    int fd = open(file.c_str(), O_CREAT | O_WRONLY, 0644);
    close(fd);
    fd = open(file.c_str(), O_WRONLY | O_APPEND);
    ASSERT_EQ(write(fd, "x", 1), 1);
    close(fd);
    ASSERT_EQ(chmod(file.c_str(), 0600), 0);
    ASSERT_EQ(rename(file.c_str(), renamed.c_str()), 0);
    ASSERT_EQ(unlink(renamed.c_str()), 0);
    // An exec as an unprivileged user: as root, auditd's BPRM_FCAPS record would close the
    // event before its EXECVE record (a documented limit of the assembly).
    Spawn({"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "/bin/echo", "hwe2e-marker"});
    // A program whose name is no UTF-8 must still give valid JSON, with its bytes recoverable.
    const std::string hostile = dir_ + "/bad\xff\xfe";
    std::filesystem::copy_file("/bin/true", hostile);
    std::filesystem::permissions(hostile, std::filesystem::perms::owner_all);
    Spawn({hostile});
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    ASSERT_EQ(listen(listener, 1), 0);
    socklen_t length = sizeof(address);
    getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
    const int client = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(connect(client, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    close(client);
    close(listener);
    mkdir((dir_ + "/end").c_str(), 0755);  // the log keeps the order: once this is out, so is the rest
    ASSERT_TRUE(audit->WaitFor("\"hostPath\":\"" + dir_ + "/end\"", true)) << audit->out;
    audit->Signal(SIGINT);
    EXPECT_EQ(audit->Wait(), 0) << audit->err;
    const std::vector<Json> events = E2E::JsonLines(audit->out);  // every line parses

    const Json created = Find(events, [&](const Json& e) { return HasPath(e, file, "CREATE"); });
    ASSERT_TRUE(created) << "no create event";
    EXPECT_TRUE(created->getValue<bool>("write"));
    EXPECT_EQ(created->getValue<std::string>("tag"), "t");
    char cwd[PATH_MAX] = {0};
    ASSERT_NE(getcwd(cwd, sizeof(cwd)), nullptr);
    EXPECT_EQ(created->getValue<std::string>("cwd"), cwd);
    EXPECT_TRUE(Find(events, [&](const Json& e) {
        return e->getValue<int>("items") == 1 && HasPath(e, file, "NORMAL") && e->getValue<bool>("read");
    })) << "no write (one PATH record counts as a read)";
    EXPECT_TRUE(Find(events, [&](const Json& e) { return e->getValue<bool>("attributeChange") && HasPath(e, file, "NORMAL"); }));
    const Json moved = Find(events, [&](const Json& e) { return HasPath(e, renamed, "CREATE") && HasPath(e, file, "DELETE"); });
    ASSERT_TRUE(moved) << "no rename";
    EXPECT_EQ(moved->getArray("paths")->size(), 4U);
    EXPECT_TRUE(Find(events, [&](const Json& e) { return HasPath(e, renamed, "DELETE") && e->getValue<int>("items") == 2; }));

    const Json exec = Find(events, [&](const Json& e) { return e->getObject("execve")->optValue<std::string>("a1", "") == "\"hwe2e-marker\""; });
    ASSERT_TRUE(exec) << "no execve";
    EXPECT_EQ(exec->getValue<std::string>("exe"), "/usr/bin/echo");
    EXPECT_EQ(exec->getValue<std::string>("ppid"), pid);
    EXPECT_TRUE(exec->getValue<bool>("execute"));
    const Json bad = Find(events, [&](const Json& e) { return e->getValue<std::string>("exe").compare(0, 4, "hex:") == 0; });
    ASSERT_TRUE(bad) << "no hex-marked program name";
    std::string bytes;
    const std::string exe = bad->getValue<std::string>("exe");
    for (size_t i = 4; i + 1 < exe.size(); i += 2) {
        bytes.push_back(static_cast<char>(std::stoi(exe.substr(i, 2), nullptr, 16)));
    }
    EXPECT_EQ(bytes, hostile) << "the original bytes come back";

    const Json net = Find(events, [&](const Json& e) { return e->getValue<int>("family") == 2; });
    ASSERT_TRUE(net) << "no connect";
    EXPECT_EQ(net->getValue<int>("port"), ntohs(address.sin_port));
    EXPECT_EQ(net->getValue<std::string>("saddr"), "127.0.0.1");
    EXPECT_EQ(net->getValue<std::string>("pid"), pid);
    EXPECT_EQ(net->getValue<int>("syscall"), 42);
}

// hostwarden watch prints the notifications asked for until interrupted. auditd rotates its log
// (SIGUSR1) meanwhile: the reader finishes the rotated file and goes on in the new one, so every
// notification arrives.
TEST_F(CommandsKernel, WatchLosesNothingWhileAuditdRotatesItsLog)
{
    auto watch = Hostwarden({"watch", dir_, "--events", "create", "--tag", "t"});
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

// The main job with a configuration of the test's own: what it subscribes reaches the output
// file as JSON lines with the subscription's tag; SIGTERM ends it with status 0 and no rule left.
TEST_F(CommandsKernel, RunExportsWhatItsConfigurationSubscribesAndStopsCleanly)
{
    const std::string events = dir_ + "/out/events.jsonl";
    Configure(Getpgid("marker") + R"(, {"tag": "files", "watch": ")" + dir_ + R"(", "recursive": true})",
              R"({"file": ")" + events + R"(", "stdout": false})");
    auto run = Hostwarden({"run"});
    ASSERT_TRUE(run->WaitFor("Every subscription is installed in the kernel.", false)) << run->err;
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

// A run killed outright leaves its rules; the next start removes them before it subscribes.
TEST_F(CommandsKernel, TheNextStartRemovesWhatAKilledRunLeft)
{
    Configure(Getpgid("killed"));
    auto first = Hostwarden({"run"});
    ASSERT_TRUE(first->WaitFor("Every subscription is installed in the kernel.", false)) << first->err;
    first->Signal(SIGKILL);
    first->Wait();
    ASSERT_NE(E2E::ListKernelRules().find("export_task***killed"), std::string::npos) << "left by the killed run";

    Configure(Getpgid("next"));
    auto second = Hostwarden({"run"});
    ASSERT_TRUE(second->WaitFor("Every subscription is installed in the kernel.", false)) << second->err;
    const std::string rules = E2E::ListKernelRules();
    EXPECT_EQ(rules.find("export_task***killed"), std::string::npos) << rules;
    EXPECT_NE(rules.find("export_task***next"), std::string::npos) << rules;
    second->Signal(SIGTERM);
    EXPECT_EQ(second->Wait(), 0) << second->err;
}
