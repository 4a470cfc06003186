#include "AuditLog.h"
#include "AuditMessages.h"
#include "AuditUtil.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

using namespace Engine;
using TestSupport::NamedTask;

namespace {

AuditSyscallCtrlMessage SyscallMsg(Framework::Task* sender, const std::string& tag, const std::string& text,
                                   SyscallRule& rule)
{
    AuditSyscallCtrlMessage msg(sender);
    msg.tag = tag;
    msg.operate = "-a";
    msg.rule = text;
    rule = SyscallRule{};
    LinuxAuditUtil::auditDistractSyscallRule(msg, rule);
    return msg;
}

AuditFileSystemCtrlMessage WatchMsg(Framework::Task* sender, const std::string& tag, const std::string& text,
                                    FileSystemRule& rule)
{
    AuditFileSystemCtrlMessage msg(sender, "", {}, _FileNotifyOpt{});
    msg.tag = tag;
    msg.operate = "-w";
    msg.rule = text;
    rule = FileSystemRule{};
    LinuxAuditUtil::auditDistractFilesystemRule(msg, rule);
    return msg;
}

}  // namespace

TEST(RouteTable, TheFirstSubscriptionOfATaskAndTagSetsTheFilters)
{
    NamedTask task("a_task");
    AuditLog log(nullptr, nullptr);
    SyscallRule first;
    SyscallRule second;
    const auto m1 = SyscallMsg(&task, "t", "exit,always -S open -F success=1 -F pid=10", first);
    const auto m2 = SyscallMsg(&task, "t", "exit,always -S open,openat -F success=0 -F ppid=20", second);
    log.AddLogRoute(m1, first);
    log.AddLogRoute(m2, second);
    ASSERT_EQ(log.syscallRoutes64.count(2), 1U);
    const auditSyscallDest& open = log.syscallRoutes64.find(2)->second;
    EXPECT_EQ(open.success, "yes");
    EXPECT_EQ(open.hasFilter, 1);
    EXPECT_EQ(open.pids, std::set<std::string>{"10"});
    EXPECT_EQ(open.ppids, std::set<std::string>{"20"});
    ASSERT_EQ(log.syscallRoutes64.count(257), 1U);
    EXPECT_EQ(log.syscallRoutes64.find(257)->second.success, "no");

    // Another tag of the same task is a destination of its own, after the first.
    SyscallRule other;
    log.AddLogRoute(SyscallMsg(&task, "u", "exit,always -S open", other), other);
    ASSERT_EQ(log.syscallRoutes64.count(2), 2U);
    EXPECT_EQ(std::next(log.syscallRoutes64.find(2))->second.tag, "u");
}

TEST(RouteTable, ArchitecturesHaveTablesOfTheirOwn)
{
    NamedTask task("a_task");
    AuditLog log(nullptr, nullptr);
    SyscallRule rule;
    const auto msg = SyscallMsg(&task, "t", "exit,always -F arch=b32 -S chmod", rule);
    log.AddLogRoute(msg, rule);
    EXPECT_EQ(log.syscallRoutes32.count(15), 1U);
    EXPECT_TRUE(log.syscallRoutes64.empty());
    EXPECT_EQ(&log.GetSyscallMap(rule), &log.syscallRoutes32);
    SyscallRouteMap::iterator found;
    EXPECT_FALSE(log.FindLogDest(15, log.syscallRoutes64, msg, found));
    EXPECT_TRUE(log.FindLogDest(15, log.syscallRoutes32, msg, found));
}

TEST(RouteTable, DeletingRemovesFiltersThenTheDestination)
{
    TestSupport::LogCapture capture(Poco::Message::PRIO_TRACE);
    NamedTask task("a_task");
    AuditLog log(nullptr, nullptr);
    SyscallRule rule;
    log.AddLogRoute(SyscallMsg(&task, "t", "exit,always -S open -F ppid=20", rule), rule);
    log.AddLogRoute(SyscallMsg(&task, "t", "exit,always -S open -F pid=11", rule), rule);

    const auto stray = SyscallMsg(&task, "t", "exit,always -S open -F pid=10", rule);
    log.DeleteLogRoute(stray, rule);
    EXPECT_TRUE(capture.channel().Has("a_taskt delete a syscall with pid 10, but pid not found."));
    ASSERT_EQ(log.syscallRoutes64.count(2), 1U);

    const auto byPid = SyscallMsg(&task, "t", "exit,always -S open -F pid=11", rule);
    log.DeleteLogRoute(byPid, rule);
    ASSERT_EQ(log.syscallRoutes64.count(2), 1U);  // the ppid filter keeps it
    const auto byPpid = SyscallMsg(&task, "t", "exit,always -S open -F ppid=20", rule);
    log.DeleteLogRoute(byPpid, rule);
    EXPECT_TRUE(capture.channel().Has("delete ppid 20, cmd exit,always -S open -F ppid=20"));
    EXPECT_EQ(log.syscallRoutes64.count(2), 0U);

    log.AddLogRoute(SyscallMsg(&task, "t", "exit,always -S open -F pid=11", rule), rule);
    const auto plain = SyscallMsg(&task, "t", "exit,always -S open", rule);
    log.DeleteLogRoute(plain, rule);  // no filter in the rule: the destination goes at once
    EXPECT_TRUE(log.syscallRoutes64.empty());
}

TEST(RouteTable, PathDestinationsCarryPermissionsAndKeys)
{
    TestSupport::LogCapture capture(Poco::Message::PRIO_TRACE);
    NamedTask task("fw_task");
    AuditLog log(nullptr, nullptr);
    FileSystemRule rule;
    log.AddLogRoute(WatchMsg(&task, "t", "/etc/ -p wq -k k1", rule), rule);
    ASSERT_EQ(log.pathRoutes.count("/etc"), 1U);
    auditFileSystemDest& etc = log.pathRoutes.find("/etc")->second;
    EXPECT_TRUE(etc.read && etc.write && etc.exec && etc.attr);  // q is unknown
    EXPECT_EQ(etc.keys, std::set<std::string>{"k1"});
    log.AddLogRoute(WatchMsg(&task, "t", "/etc -p r -F pid=5", rule), rule);  // flags stay
    EXPECT_EQ(etc.pids, std::set<std::string>{"5"});
    EXPECT_TRUE(etc.exec);

    log.DeleteLogRoute(WatchMsg(&task, "t", "/etc -F ppid=9", rule), rule);
    EXPECT_TRUE(capture.channel().Has("fw_taskt delete a pathrule with ppid 9, but ppid not found."));
    log.DeleteLogRoute(WatchMsg(&task, "t", "/etc -k k1", rule), rule);
    log.DeleteLogRoute(WatchMsg(&task, "t", "/etc -F pid=5", rule), rule);
    EXPECT_TRUE(log.pathRoutes.empty());
    log.AddLogRoute(WatchMsg(&task, "t", "/etc -p w -F pid=5", rule), rule);
    log.DeleteLogRoute(WatchMsg(&task, "t", "/etc -p w", rule), rule);
    EXPECT_TRUE(log.pathRoutes.empty()) << "a removal without filters takes the destination at once";

    auditFileSystemDest none;
    std::string empty = "  ";
    EXPECT_TRUE(setPermission(none, empty));
    EXPECT_FALSE(none.read || none.write || none.exec || none.attr);
    EXPECT_EQ(empty, "");
    auditFileSystemDest wa;
    std::string perm = " wa ";
    EXPECT_TRUE(setPermission(wa, perm));
    EXPECT_TRUE(wa.write && wa.attr && !wa.read && !wa.exec);
}

TEST(RouteTable, UnregisteringATaskLeavesOtherTasksWithTheSameTag)
{
    NamedTask a("a_task");
    NamedTask b("b_task");
    AuditLog log(nullptr, nullptr);
    SyscallRule rule;
    FileSystemRule fs;
    for (Framework::Task* task : {static_cast<Framework::Task*>(&a), static_cast<Framework::Task*>(&b)}) {
        log.AddLogRoute(SyscallMsg(task, "same", "exit,always -S open", rule), rule);
        log.AddLogRoute(SyscallMsg(task, "same", "exit,always -F arch=b32 -S open", rule), rule);
        log.AddLogRoute(WatchMsg(task, "same", "/etc -p wa", fs), fs);
    }
    log.UnregisterTask(&a);
    for (const auto* routes : {&log.syscallRoutes64, &log.syscallRoutes32}) {
        ASSERT_EQ(routes->size(), 1U);
        EXPECT_EQ(routes->begin()->second.task, &b);
    }
    ASSERT_EQ(log.pathRoutes.size(), 1U);
    EXPECT_EQ(log.pathRoutes.begin()->second.task, &b);
    log.CleanLogRoute();
    EXPECT_TRUE(log.syscallRoutes64.empty() && log.syscallRoutes32.empty() && log.pathRoutes.empty());
}
