// The route table: what subscriptions and their removals leave in it, one scenario per row.
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

// "+S"/"-S": add or delete a system-call subscription; "+W"/"-W": a watch.
struct Step {
    const char* op;
    int task;  // 0: a_task, 1: b_task
    const char* tag;
    const char* text;
};

}  // namespace

TEST(RouteTable, SubscriptionsAndRemovalsLeaveTheseDestinations)
{
    struct Scenario {
        const char* what;
        std::vector<Step> steps;
        std::vector<std::string> routes;
        const char* logged = "";
    };
    const Scenario scenarios[] = {
        {"the first subscription of a task and tag sets the filters; another tag is a destination of its own",
         {{"+S", 0, "t", "exit,always -S open -F success=1 -F pid=10"},
          {"+S", 0, "t", "exit,always -S open,openat -F success=0 -F ppid=20"},
          {"+S", 0, "u", "exit,always -S open"}},
         {"64 2 a_task/t pids=10 ppids=20 filter success=yes exit= a=,,,", "64 2 a_task/u pids= ppids=",
          "64 257 a_task/t pids= ppids=20 filter success=no exit= a=,,,"}},
        {"arguments alone set the filter", {{"+S", 0, "t", "exit,always -S open -F a1=0x1F -F exit=-2"}},
         {"64 2 a_task/t pids= ppids= filter success= exit=-2 a=,1F,,"}},
        {"each architecture has its table", {{"+S", 0, "t", "exit,always -F arch=b32 -S chmod"}},
         {"32 15 a_task/t pids= ppids="}},
        {"a removal takes its filter; the destination goes with the last one",
         {{"+S", 0, "t", "exit,always -S open -F ppid=20"},
          {"+S", 0, "t", "exit,always -S open -F pid=11"},
          {"-S", 0, "t", "exit,always -S open -F pid=10"},
          {"-S", 0, "t", "exit,always -S open -F pid=11"}},
         {"64 2 a_task/t pids= ppids=20"}, "a_taskt delete a syscall with pid 10, but pid not found."},
        {"the removal of the last filter",
         {{"+S", 0, "t", "exit,always -S open -F ppid=20"}, {"-S", 0, "t", "exit,always -S open -F ppid=20"}},
         {}, "delete ppid 20, cmd exit,always -S open -F ppid=20"},
        {"a removal without filters takes the destination at once",
         {{"+S", 0, "t", "exit,always -S open -F pid=11"}, {"-S", 0, "t", "exit,always -S open"}}, {}},
        {"another task's removal leaves the destination",
         {{"+S", 0, "t", "exit,always -S open"}, {"-S", 1, "t", "exit,always -S open"}}, {"64 2 a_task/t pids= ppids="}},
        {"a path keeps the access kinds of its first subscription; q is no letter and sets all",
         {{"+W", 0, "t", "/etc/ -p wq -k k1"}, {"+W", 0, "t", "/etc -p r -F pid=5"}},
         {"/etc a_task/t rwxa pids=5 ppids= keys=k1"}},
        {"the flags of a later subscription are not applied",
         {{"+W", 0, "t", "/etc -p w"}, {"+W", 0, "t", "/etc -p rx -k k"}}, {"/etc a_task/t w pids= ppids= keys=k"}},
        {"path removals take pids, ppids and keys, then the destination",
         {{"+W", 0, "t", "/etc -p w -F pid=5 -k k1"},
          {"-W", 0, "t", "/etc -F ppid=9"},
          {"-W", 0, "t", "/etc -k k1"},
          {"-W", 0, "t", "/etc -F pid=5"}},
         {}, "a_taskt delete a pathrule with ppid 9, but ppid not found."},
        {"a path removal without pid, ppid or key takes the destination at once",
         {{"+W", 0, "t", "/etc -p w -F pid=5"}, {"-W", 0, "t", "/etc -p w"}}, {}},
    };
    NamedTask tasks[] = {NamedTask("a_task"), NamedTask("b_task")};
    for (const Scenario& s : scenarios) {
        TestSupport::LogCapture capture(Poco::Message::PRIO_TRACE);
        AuditLog log(nullptr, nullptr);
        for (const Step& step : s.steps) {
            const bool add = step.op[0] == '+';
            if (step.op[1] == 'S') {
                TestSupport::SyscallSub sub(&tasks[step.task], step.tag, step.text);
                add ? log.AddLogRoute(sub.msg, sub.rule) : log.DeleteLogRoute(sub.msg, sub.rule);
            } else {
                TestSupport::WatchSub sub(&tasks[step.task], step.tag, step.text);
                add ? log.AddLogRoute(sub.msg, sub.rule) : log.DeleteLogRoute(sub.msg, sub.rule);
            }
        }
        EXPECT_EQ(Routes(log), s.routes) << s.what;
        if (*s.logged != '\0') {
            EXPECT_TRUE(capture.channel().Has(s.logged)) << s.what;
        }
    }
}

TEST(RouteTable, UnregisteringATaskLeavesOtherTasksWithTheSameTag)
{
    NamedTask a("a_task");
    NamedTask b("b_task");
    AuditLog log(nullptr, nullptr);
    for (Framework::Task* task : {static_cast<Framework::Task*>(&a), static_cast<Framework::Task*>(&b)}) {
        for (const char* text : {"exit,always -S open", "exit,always -F arch=b32 -S open"}) {
            TestSupport::SyscallSub sub(task, "same", text);
            log.AddLogRoute(sub.msg, sub.rule);
        }
        TestSupport::WatchSub watch(task, "same", "/etc -p wa");
        log.AddLogRoute(watch.msg, watch.rule);
    }
    log.UnregisterTask(&a);
    EXPECT_EQ(Routes(log), (std::vector<std::string>{"64 2 b_task/same pids= ppids=", "32 5 b_task/same pids= ppids=",
                                                     "/etc b_task/same wa pids= ppids= keys="}));
    log.CleanLogRoute();
    EXPECT_TRUE(Routes(log).empty());

    auditFileSystemDest none;
    std::string empty = "  ";
    EXPECT_TRUE(setPermission(none, empty));
    EXPECT_EQ(empty, "") << "trimmed in place";
    EXPECT_FALSE(none.read || none.write || none.exec || none.attr);
}
