// The route table: what subscriptions and their removals leave in it, one scenario a block of
// tables/routes.txt.
#include "AuditUtil.h"

#include "TestSupport.h"

using namespace Engine;
using TestSupport::NamedTask;

namespace {

std::string Join(const std::set<std::string>& values)
{
    std::string out;
    for (const std::string& value : values) {
        out += (out.empty() ? "" : ",") + value;
    }
    return out;
}

// One line per destination, in table order: "64 2 a_task/t pids=.. ppids=.. [filter success=..]"
// for system calls, "/path a_task/t rwxa pids=.. ppids=.. keys=.." for paths.
std::vector<std::string> Routes(const AuditLog& log)
{
    std::vector<std::string> out;
    for (const auto* routes : {&log.syscallRoutes64, &log.syscallRoutes32}) {
        for (const auto& [number, d] : *routes) {
            out.push_back(std::string(routes == &log.syscallRoutes64 ? "64 " : "32 ") + std::to_string(number) + " " +
                          d.task->GetName() + "/" + d.tag + " pids=" + Join(d.pids) + " ppids=" + Join(d.ppids) +
                          (d.hasFilter ? " filter success=" + d.success + " exit=" + d.exit + " a=" + d.a0 + "," + d.a1 +
                                             "," + d.a2 + "," + d.a3
                                       : ""));
        }
    }
    for (const auto& [path, d] : log.pathRoutes) {
        out.push_back(path + " " + d.task->GetName() + "/" + d.tag + " " + (d.read ? "r" : "") + (d.write ? "w" : "") +
                      (d.exec ? "x" : "") + (d.attr ? "a" : "") + " pids=" + Join(d.pids) + " ppids=" + Join(d.ppids) +
                      " keys=" + Join(d.keys));
    }
    return out;
}

}  // namespace

class RouteScenario : public testing::TestWithParam<TestSupport::TableRow> {};

TEST_P(RouteScenario, SubscriptionsAndRemovalsLeaveTheseDestinations)
{
    ASSERT_FALSE(GetParam().block.empty()) << "the table holds no scenarios";
    std::map<std::string, NamedTask> tasks;
    tasks.try_emplace("a_task", "a_task");
    tasks.try_emplace("b_task", "b_task");
    TestSupport::LogCapture capture(Poco::Message::PRIO_TRACE);
    AuditLog log(nullptr, nullptr);
    std::vector<std::string> routes;
    for (const std::vector<std::string>& row : GetParam().block) {
        const std::string& op = row.at(0);
        if (op == "route") {
            routes.push_back(row.at(1));
        } else if (op == "logged") {
            EXPECT_TRUE(capture.channel().Has(row.at(1))) << row.at(1);
        } else if (op == "unregister") {
            log.UnregisterTask(&tasks.at(row.at(1)));
        } else if (op == "clean") {
            log.CleanLogRoute();
        } else if (op[1] == 'S') {
            TestSupport::SyscallSub sub(&tasks.at(row.at(1)), row.at(2), row.at(3));
            op[0] == '+' ? log.AddLogRoute(sub.msg, sub.rule) : log.DeleteLogRoute(sub.msg, sub.rule);
        } else {
            TestSupport::WatchSub sub(&tasks.at(row.at(1)), row.at(2), row.at(3));
            op[0] == '+' ? log.AddLogRoute(sub.msg, sub.rule) : log.DeleteLogRoute(sub.msg, sub.rule);
        }
    }
    EXPECT_EQ(Routes(log), routes);
}

INSTANTIATE_TEST_SUITE_P(Scenarios, RouteScenario,
                         testing::ValuesIn(TestSupport::TableBlockParams("native_module/module_audit/tests/tables/routes.txt", "scenario")),
                         TestSupport::TableRowName);

TEST(RouteTable, AnEmptyPermissionSetsNoFlag)
{
    auditFileSystemDest none;
    std::string empty = "  ";
    EXPECT_TRUE(setPermission(none, empty));
    EXPECT_EQ(empty, "") << "trimmed in place";
    EXPECT_FALSE(none.read || none.write || none.exec || none.attr);
}
