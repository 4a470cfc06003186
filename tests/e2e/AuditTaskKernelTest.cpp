// The audit task end to end against the real kernel and auditd: subscriptions through messages,
// real actions, decoded events at the subscriber, and nothing of ours left afterwards.
#include "KernelAudit.h"

#include "AuditMessages.h"
#include "AuditTask.h"

#include "framework/Engine.h"
#include "framework/Module.h"
#include "sdk/ExecuteCmdUtils.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <condition_variable>
#include <fstream>
#include <functional>
#include <mutex>

using namespace Engine;

extern char** environ;

namespace {

// Collects delivered events on its own thread.
class Collector : public Framework::Task, public AbstructMessage<AuditEventMessage>::Receiver {
public:
    Collector() : Framework::Task("hwe2e_sub_task", "test", Framework::TaskCondition::kLoop, 8192) {}
    int Receive(const AuditEventMessage& msg) override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        events_.emplace_back(msg.tag, msg.event);
        changed_.notify_all();
        return 0;
    }
    using Event = std::pair<std::string, std::shared_ptr<AuditEvent>>;
    // Waits (at most seconds) until an event satisfies match; returns it, or a null event.
    Event WaitFor(const std::function<bool(const Event&)>& match, int seconds = 20)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        Event found;
        changed_.wait_for(lock, std::chrono::seconds(seconds), [&] {
            for (const Event& event : events_) {
                if (match(event)) {
                    found = event;
                    return true;
                }
            }
            return false;
        });
        return found;
    }
    std::vector<Event> Snapshot()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return events_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Event> events_;
};

class TestModule : public Framework::Module {
public:
    TestModule(AuditTask* audit, Collector* collector) : Framework::Module("hwe2e_module"), audit_(audit), collector_(collector) {}
    int Init() override { return RegisterTask(audit_, true) == 0 && RegisterTask(collector_, true) == 0 ? 0 : -1; }

private:
    AuditTask* audit_;
    Collector* collector_;
};

bool HasPath(const AuditEvent& event, const std::string& path, const std::string& nametype = "")
{
    for (const AuditLogPath& record : event.paths) {
        if (record.hostPath == path && (nametype.empty() || record.nametype == nametype)) {
            return true;
        }
    }
    return false;
}

class AuditTaskKernel : public testing::Test {
protected:
    void SetUp() override
    {
        const std::string why = E2E::WhyKernelAuditIsUnusable();
        if (!why.empty()) {
            GTEST_SKIP() << "real-kernel test skipped: " << why;
        }
        install_ = std::make_unique<E2E::TestInstallation>();
        char pattern[] = "/tmp/hwe2e_dir_XXXXXX";
        dir_ = mkdtemp(pattern);
        audit_ = new AuditTask;
        collector_ = new Collector;
        ASSERT_EQ(engine_.AddModule(std::make_unique<TestModule>(audit_, collector_)), 0);
        ASSERT_EQ(engine_.StartTasks(), 0);
        ASSERT_TRUE(audit_->AuditEnabled());
    }
    void TearDown() override
    {
        if (!install_) {
            return;
        }
        engine_.StopAll();
        const std::string rules = E2E::ListKernelRules();
        EXPECT_EQ(rules.find("hwe2e_sub_task"), std::string::npos) << "UnInit left a rule: " << rules;
        E2E::RemoveTestRules();
        std::string ignored;
        SDK::ExecuteCmdUtils::ExecuteCmd("rm -rf " + dir_, ignored, 4096);
        install_.reset();
    }
    void Subscribe(const std::string& tag, const std::string& rule, const std::string& operate = "-a")
    {
        auto* msg = new AuditSyscallCtrlMessage(collector_);
        msg->tag = tag;
        msg->operate = operate;
        msg->rule = rule;
        ASSERT_TRUE(collector_->SendDirectMsg("audit_task", msg));
    }
    void Watch(const std::string& tag, const std::string& path)
    {
        auto* msg = new AuditFileSystemCtrlMessage(collector_, path, {}, _FileNotifyOpt{});
        msg->tag = tag;
        msg->operate = "-w";
        msg->rule = path + " -p wa";
        ASSERT_TRUE(collector_->SendDirectMsg("audit_task", msg));
    }
    // Waits until the kernel lists count rules with our subscriber's keys.
    bool WaitForRules(size_t count)
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (std::chrono::steady_clock::now() < deadline) {
            const std::string rules = E2E::ListKernelRules();
            size_t found = 0;
            for (size_t at = rules.find("hwe2e_sub_task***"); at != std::string::npos;
                 at = rules.find("hwe2e_sub_task***", at + 1)) {
                ++found;
            }
            if (found == count) {
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return false;
    }
    Collector::Event WaitTagged(const std::string& tag, const std::function<bool(const AuditEvent&)>& match)
    {
        return collector_->WaitFor([&](const Collector::Event& e) { return e.first == tag && match(*e.second); });
    }

    std::unique_ptr<E2E::TestInstallation> install_;
    std::string dir_;
    Framework::Engine engine_;
    AuditTask* audit_ = nullptr;
    Collector* collector_ = nullptr;
};

}  // namespace

TEST_F(AuditTaskKernel, SubscribersReceiveTheDecodedEventsOfRealActions)
{
    const std::string pid = std::to_string(getpid());
    Subscribe("net", "exit,always -F arch=b64 -S connect -F pid=" + pid);
    Subscribe("exec", "exit,always -F arch=b64 -S execve -F ppid=" + pid);
    Subscribe("gone", "exit,always -F arch=b64 -S fchmodat -F pid=" + pid);
    Watch("fs", dir_);
    ASSERT_TRUE(WaitForRules(4));
    Subscribe("gone", "exit,always -F arch=b64 -S fchmodat -F pid=" + pid, "-d");
    ASSERT_TRUE(WaitForRules(3));

    const std::string file = dir_ + "/created";
    const std::string renamed = dir_ + "/renamed";
    int fd = open(file.c_str(), O_CREAT | O_WRONLY, 0644);
    ASSERT_GE(fd, 0);
    close(fd);
    fd = open(file.c_str(), O_WRONLY | O_APPEND);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(write(fd, "x", 1), 1);
    close(fd);
    ASSERT_EQ(chmod(file.c_str(), 0600), 0);
    ASSERT_EQ(rename(file.c_str(), renamed.c_str()), 0);
    ASSERT_EQ(unlink(renamed.c_str()), 0);

    // An exec as an unprivileged user: as root, auditd's BPRM_FCAPS record would close the
    // event before its EXECVE record (a documented limit of the assembly).
    pid_t child = -1;
    char* argv[] = {const_cast<char*>("/usr/bin/setpriv"), const_cast<char*>("--reuid=65534"),
                    const_cast<char*>("--regid=65534"), const_cast<char*>("--clear-groups"),
                    const_cast<char*>("/bin/echo"), const_cast<char*>("hwe2e-marker"), nullptr};
    ASSERT_EQ(posix_spawn(&child, argv[0], nullptr, nullptr, argv, environ), 0);
    waitpid(child, nullptr, 0);

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

    const auto created = WaitTagged("fs", [&](const AuditEvent& e) { return HasPath(e, file, "CREATE"); });
    ASSERT_TRUE(created.second) << "no create event";
    EXPECT_TRUE(created.second->write);
    char cwd[PATH_MAX] = {0};
    ASSERT_NE(getcwd(cwd, sizeof(cwd)), nullptr);
    EXPECT_EQ(created.second->cwd, std::string(cwd));
    const auto written = WaitTagged("fs", [&](const AuditEvent& e) { return e.items == 1 && HasPath(e, file, "NORMAL") && e.read; });
    ASSERT_TRUE(written.second) << "no write event (one PATH record counts as a read)";
    const auto chmodded = WaitTagged("fs", [&](const AuditEvent& e) { return e.attributeChange && HasPath(e, file); });
    ASSERT_TRUE(chmodded.second) << "no attribute change";
    const auto moved = WaitTagged("fs", [&](const AuditEvent& e) { return HasPath(e, renamed, "CREATE") && HasPath(e, file, "DELETE"); });
    ASSERT_TRUE(moved.second) << "no rename";
    EXPECT_EQ(moved.second->paths.size(), 4U);
    const auto removed = WaitTagged("fs", [&](const AuditEvent& e) { return HasPath(e, renamed, "DELETE") && e.items == 2; });
    ASSERT_TRUE(removed.second) << "no unlink";

    const auto exec = WaitTagged("exec", [&](const AuditEvent& e) { return e.isExecve && e.execveFields.View("a1") == "\"hwe2e-marker\""; });
    ASSERT_TRUE(exec.second) << "no execve";
    EXPECT_EQ(exec.second->exe, "/usr/bin/echo");
    EXPECT_EQ(exec.second->ppid, pid);
    EXPECT_TRUE(exec.second->execute);

    const auto net = WaitTagged("net", [&](const AuditEvent& e) { return e.family == 2 && e.port == ntohs(address.sin_port); });
    ASSERT_TRUE(net.second) << "no connect";
    EXPECT_EQ(net.second->saddr, "127.0.0.1");
    EXPECT_EQ(net.second->pid, pid);
    EXPECT_EQ(net.second->syscall, 42);

    for (const auto& [tag, event] : collector_->Snapshot()) {
        EXPECT_NE(tag, "gone") << "an event arrived for a removed subscription";
    }

    ASSERT_TRUE(collector_->SendDirectMsg("audit_task", new AuditUnsubscribeMessage(collector_)));
    ASSERT_TRUE(WaitForRules(0)) << E2E::ListKernelRules();
}

// auditd rotates its log (SIGUSR1) while events flow: the reader finishes the rotated file and
// goes on in the new one, so every event arrives.
TEST_F(AuditTaskKernel, RotationWhileEventsFlowLosesNothing)
{
    Watch("fs", dir_);
    ASSERT_TRUE(WaitForRules(1));
    std::string status;
    E2E::SystemAuditctl("-s", &status);
    const size_t at = status.find("\npid ");
    ASSERT_NE(at, std::string::npos);
    const pid_t auditd = static_cast<pid_t>(std::stol(status.substr(at + 5)));

    constexpr int kFiles = 300;
    for (int i = 0; i < kFiles; ++i) {
        if (i == kFiles / 2) {
            ASSERT_EQ(kill(auditd, SIGUSR1), 0);
        }
        std::ofstream(dir_ + "/f" + std::to_string(i)).flush();
        std::this_thread::sleep_for(std::chrono::milliseconds(5));  // paces the load, not a synchronisation
    }
    const std::string last = dir_ + "/f" + std::to_string(kFiles - 1);
    ASSERT_TRUE(WaitTagged("fs", [&](const AuditEvent& e) { return HasPath(e, last, "CREATE"); }).second);
    std::set<std::string> seen;
    for (const auto& [tag, event] : collector_->Snapshot()) {
        for (const AuditLogPath& record : event->paths) {
            if (record.nametype == "CREATE") {
                seen.insert(record.hostPath);
            }
        }
    }
    for (int i = 0; i < kFiles; ++i) {
        EXPECT_EQ(seen.count(dir_ + "/f" + std::to_string(i)), 1U) << "lost f" << i;
    }
}
