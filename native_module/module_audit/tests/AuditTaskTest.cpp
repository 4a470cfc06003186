// The audit task's handlers, driven directly on the test's thread, against a recording auditctl
// and a log file of its own.
#include "AuditTask.h"

#include "TestSupport.h"

#include <future>
#include <thread>

using namespace Engine;
using TestSupport::StatusReplies;
using TestSupport::Subscriber;

namespace {

// A usable audit system without the kernel: a process whose executable is called auditd, a status
// that names it with audit enabled, and an auditd configuration whose log is a file here.
class AuditTaskTest : public testing::Test {
protected:
    AuditTaskTest()
    {
        replies_.status.enabled = 1;
        replies_.status.pid = static_cast<__u32>(auditd_.pid);
    }
    AuditSyscallCtrlMessage Syscall(Framework::Task* sender, const std::string& tag, const std::string& rule,
                                    const std::string& operate = "-a")
    {
        AuditSyscallCtrlMessage msg(sender);
        std::tie(msg.tag, msg.operate, msg.rule) = std::tie(tag, operate, rule);
        return msg;
    }
    void AppendLog(const std::string& lines) { std::ofstream(logFile_, std::ios::app) << lines; }

    TestSupport::FakeInstallation install_;
    TestSupport::TempDir dir_;
    TestSupport::NamedProcess auditd_{dir_, "auditd"};
    StatusReplies replies_;
    const std::string logFile_ = dir_.Write("audit.log", "type=DAEMON_START msg=audit(1.000:1): op=start ver=3.0.9 format=raw res=success\n");
    std::unique_ptr<AuditTask> task_ =
        std::make_unique<AuditTask>(dir_.Write("auditd.conf", "log_file = " + logFile_ + "\nlog_format = RAW\n"), &replies_);
};

}  // namespace

TEST(AuditTaskHelpers, StripKeyInCmdAndGetOperate)
{
    for (const auto& [cmd, stripped] : {std::pair<const char*, const char*>{"-a always,exit -S open -k mykey", "-a always,exit -S open"},
                                        {"-w /etc -p wa", "-w /etc -p wa"}, {"-k x", ""}, {"exit,always  -S open ", "exit,always  -S open"}}) {
        std::string out;
        StripKeyInCmd(cmd, out);
        EXPECT_EQ(out, stripped) << cmd;
    }
    std::string adds;
    for (const char* operate : {"-a", "-w", "-d", "-W", "-A", "", "a"}) {
        adds += GetOperate(operate) ? "1" : "0";
    }
    EXPECT_EQ(adds, "1100000") << "only -a and -w add";
}

TEST_F(AuditTaskTest, InitClearsEarlierRulesProbesOnceAndFollowsTheLogFromTheFirstAdd)
{
    TestSupport::LogCapture capture(Poco::Message::PRIO_INFORMATION);
    ASSERT_EQ(task_->Init(), 0);
    EXPECT_EQ(install_.Commands().front(), "[-D][-k][_task***]");
    EXPECT_TRUE(capture.channel().Has("Aduit log path is (" + logFile_ + ")."));
    EXPECT_TRUE(capture.channel().Has("Audit is enabled."));
    task_->Turn(1000);
    EXPECT_EQ(task_->Reader().sizeErrorCount, 0) << "no subscriber: the log is not read";

    Subscriber sub("net_task");
    EXPECT_EQ(task_->Receive(Syscall(&sub, "net", "exit,always -S connect")), 0);
    EXPECT_EQ(install_.Commands().back(), "[-a][exit,always][-F][arch=b64][-S][connect][-k][net_task***netconnectpidppid]");
    EXPECT_EQ(task_->Subscribers(), std::set<std::string>{"net_task"});
    EXPECT_EQ(task_->Reader().logPath, logFile_);

    // A connect event written to the log now reaches the subscriber with its tag.
    AppendLog("type=SYSCALL msg=audit(1795311548.685:3559): arch=c000003e syscall=42 success=no exit=-111 a0=3 a1=1 "
              "a2=10 a3=0 items=0 ppid=5640 pid=5730 comm=\"python3\" exe=\"/usr/bin/python3.11\" key=\"x\"\n"
              "type=SOCKADDR msg=audit(1795311548.685:3559): saddr=02001F907F0000010000000000000000\n"
              "type=PROCTITLE msg=audit(1795311548.685:3559): proctitle=707974686F6E33\n");
    task_->Turn(1000);
    ASSERT_EQ(sub.Drain().size(), 1U);
    EXPECT_EQ(sub.received[0].first + " " + sub.received[0].second->saddr + ":" + std::to_string(sub.received[0].second->port),
              "net 127.0.0.1:8080");

    EXPECT_EQ(replies_.gets, 1) << "probed once";
    task_->UnInit();
    EXPECT_EQ(install_.Commands().back(), "[-D][-k][_task***]");
    EXPECT_TRUE(task_->Subscribers().empty());
    EXPECT_TRUE(task_->Rules().ruleCommands.empty());
    EXPECT_EQ(task_->Reader().position, -1);

    // A second cycle probes again, but the reader is not restarted by the next add.
    ASSERT_EQ(task_->Init(), 0);
    EXPECT_EQ(replies_.gets, 2);
    EXPECT_EQ(task_->Receive(Syscall(&sub, "net", "exit,always -S connect")), 0);
    EXPECT_TRUE(task_->Reader().logPath.empty());
}

// While the log is read, its growth ends the task's wait (which would otherwise last its turn),
// and unread lines leave no wait at all; without subscribers it waits its full turn.
TEST_F(AuditTaskTest, LogGrowthEndsTheWaitAndUnreadLinesSkipIt)
{
    ASSERT_EQ(task_->Init(), 0);
    Subscriber sub("net_task");
    task_->Receive(Syscall(&sub, "net", "exit,always -S getpgid"));
    task_->Turn(1000);
    EXPECT_EQ(task_->NextWaitMs(), 100);
    auto wait = std::async(std::launch::async, [&] { return task_->GetEventWaiter().WaitAndHandleEvent(60000, 128); });
    AppendLog("type=SYSCALL msg=audit(1.000:1): arch=c000003e syscall=121 items=0 pid=1 ppid=1\n");
    EXPECT_EQ(wait.wait_for(std::chrono::seconds(20)), std::future_status::ready) << "a wait of a minute did not end when the log grew";
    task_->Turn(1001);
    task_->Turn(1002);  // an idle poll ends the event
    EXPECT_EQ(sub.Drain().size(), 1U);

    std::string many;
    for (int i = 2; i < 600; ++i) {
        many += "type=SYSCALL msg=audit(1.000:" + std::to_string(i) + "): arch=c000003e syscall=121 items=0 pid=1 ppid=1\n";
    }
    AppendLog(many);
    task_->Turn(1003);
    EXPECT_EQ(task_->NextWaitMs(), 0) << "201 of 598 lines read: the next turn comes at once";
    for (int turn = 0; turn < 3; ++turn) {
        task_->Turn(1004);
    }
    EXPECT_EQ(task_->NextWaitMs(), 100);
    EXPECT_EQ(task_->Receive(AuditUnsubscribeMessage(&sub)), 0);
    task_->Turn(1005);
    AppendLog(many);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(task_->GetEventWaiter().WaitAndHandleEvent(150, 128), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(150)) << "without subscribers the log wakes nothing";
    EXPECT_EQ(task_->NextWaitMs(), 100);

    // On its own thread the task takes messages and follows the log until it is stopped.
    std::thread runner([&] { task_->Run(); });
    Subscriber later("later_task");
    task_->SendAgileMsg(task_.get(), new AuditSyscallCtrlMessage(Syscall(&later, "net", "exit,always -S getpgid")));
    AppendLog("type=SYSCALL msg=audit(2.000:1): arch=c000003e syscall=121 items=0 pid=1 ppid=1\n"
              "type=SYSCALL msg=audit(2.000:2): arch=c000003e syscall=121 items=0 pid=1 ppid=1\n");
    EXPECT_TRUE(TestSupport::WaitUntil([&] { return !later.Drain().empty(); }));
    task_->Stop();
    runner.join();
}

TEST_F(AuditTaskTest, DisabledAuditRefusesRulesAndStoresNothing)
{
    replies_.status.enabled = 0;
    TestSupport::LogCapture capture;
    task_->Init();
    Subscriber sub("net_task");
    EXPECT_EQ(task_->Receive(Syscall(&sub, "net", "exit,always -S connect")), -1);
    EXPECT_TRUE(capture.channel().Has("Aduit is disabled, task(net_task) handle rule(exit,always -S connect) failed."));
    EXPECT_TRUE(task_->Subscribers().empty());
    EXPECT_EQ(install_.Commands().size(), 1U);  // only Init's clean-up ran
    EXPECT_EQ(task_->Receive(AuditUnsubscribeMessage(&sub)), 0) << "unsubscribing works regardless";
}

TEST_F(AuditTaskTest, RejectedRulesAndRemovalsStillRegisterTheSender)
{
    TestSupport::LogCapture capture;
    task_->Init();
    Subscriber sub("net_task");
    EXPECT_EQ(task_->Receive(Syscall(&sub, "net", "exit,always -F arch=b64")), 2);
    EXPECT_TRUE(capture.channel().Has("Distract task(net_task) rule(exit,always -F arch=b64) failed."));
    EXPECT_EQ(task_->Receive(Syscall(&sub, "net", "exit,always -S open -F a0=zz")), 2) << "a bad number rejects";
    Subscriber other("proc_task");
    EXPECT_EQ(task_->Receive(Syscall(&other, "p", "exit,always -S execve", "-d")), 0) << "never added: no crash";
    EXPECT_EQ(task_->Subscribers(), (std::set<std::string>{"net_task", "proc_task"}));
    EXPECT_EQ(task_->Receive(Syscall(nullptr, "x", "exit,always -S open")), 2) << "no sender, nowhere to send";
}

TEST_F(AuditTaskTest, AddsAreAdmittedUpTo257RulesAndAgainAfterARemoval)
{
    task_->Init();
    Subscriber sub("many_task");
    for (int i = 0; i <= 256; ++i) {
        ASSERT_EQ(task_->Receive(Syscall(&sub, "t" + std::to_string(i), "exit,always -S open")), 0);
    }
    EXPECT_EQ(task_->Rules().ruleCommands.size(), 257U) << "256 entries still admit one more";
    const size_t runs = install_.Commands().size();
    EXPECT_EQ(task_->Receive(Syscall(&sub, "t257", "exit,always -S open")), 0);
    EXPECT_EQ(task_->Rules().ruleCommands.size(), 257U);
    EXPECT_EQ(install_.Commands().size(), runs) << "dropped silently, auditctl not run";
    EXPECT_EQ(task_->Routes().syscallRoutes64.count(2), 257U) << "and no route added";

    EXPECT_EQ(task_->Receive(Syscall(&sub, "t0", "exit,always -S open", "-d")), 0);
    EXPECT_EQ(task_->Rules().ruleCommands.size(), 256U);
    EXPECT_EQ(task_->Receive(Syscall(&sub, "t257", "exit,always -S open")), 0);
    EXPECT_EQ(task_->Rules().ruleCommands.size(), 257U);
}

TEST_F(AuditTaskTest, TheLastUnsubscribeRemovesEverythingButTheReaderKeepsItsPlace)
{
    task_->Init();
    Subscriber a("a_task");
    Subscriber b("b_task");
    EXPECT_EQ(task_->Receive(Syscall(&a, "x", "exit,always -S open")), 0);
    EXPECT_EQ(task_->Receive(TestSupport::WatchSub(&b, "fs", dir_.path() + " -p wa").msg), 0);
    EXPECT_EQ(task_->Rules().ruleCommands.size(), 2U);

    // Without a sender the empty name would match every key ("-D -k ***"): refused.
    const size_t calls = install_.Commands().size();
    {
        TestSupport::LogCapture capture(Poco::Message::PRIO_ERROR);
        EXPECT_EQ(task_->Receive(AuditUnsubscribeMessage(nullptr)), 2);
        EXPECT_TRUE(capture.channel().Has("Unsubscribe without a sender task refused."));
    }
    EXPECT_EQ(install_.Commands().size(), calls);
    EXPECT_EQ(task_->Rules().ruleCommands.size(), 2U);

    EXPECT_EQ(task_->Receive(AuditUnsubscribeMessage(&a)), 0);
    EXPECT_EQ(install_.Commands().back(), "[-D][-k][a_task***]");
    EXPECT_EQ(task_->Rules().ruleCommands.size(), 1U);
    EXPECT_TRUE(task_->Routes().syscallRoutes64.empty());
    EXPECT_EQ(task_->Routes().pathRoutes.size(), 1U);

    const int64_t position = task_->Reader().position;
    EXPECT_EQ(task_->Receive(AuditUnsubscribeMessage(&b)), 0);
    EXPECT_EQ(install_.Commands().back(), "[-D][-k][_task***]");
    EXPECT_TRUE(task_->Rules().ruleCommands.empty());
    EXPECT_TRUE(task_->Routes().pathRoutes.empty());
    EXPECT_TRUE(task_->Subscribers().empty());
    EXPECT_EQ(task_->Reader().position, position);
}
