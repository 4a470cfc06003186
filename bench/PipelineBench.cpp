// The audit module's whole path per event: a log line in, HandleOneLineLog, assembly, parsing,
// decoding, routing, and the message handed to the subscriber's queue; beside libauparse
// streaming over the same lines in the same run.
#include "BenchData.h"
#include "BenchRoutes.h"

#include "AuditLog.h"
#include "AuditLogging.h"
#include "AuditMessages.h"
#include "AuditUtil.h"

#include "sdk/InnerCpuCtrlUtils.h"

#include <chrono>
#include <climits>
#include <ctime>
#include <cstdlib>

#include <Poco/AutoPtr.h>
#include <Poco/Logger.h>
#include <Poco/NullChannel.h>
#include <auparse.h>
#include <benchmark/benchmark.h>
#include <sys/resource.h>

namespace {

const std::vector<std::string>& Lines()
{
    static const std::vector<std::string> lines = Bench::ReplicatedCaptureLines();
    return lines;
}

const size_t kEvents = Bench::GroupByStamp(Lines()).size();

// Counts what it receives; the queue is drained every few hundred lines so memory stays flat.
class CountingTask : public Framework::Task, public Engine::AbstructMessage<Engine::AuditEventMessage>::Receiver {
public:
    CountingTask() : Framework::Task("bench_sub_task", "bench", Framework::TaskCondition::kLoop, 4096) {}
    int Receive(const Engine::AuditEventMessage& msg) override
    {
        received += msg.event ? 1 : 0;
        return 0;
    }
    uint64_t received = 0;
};

long MaxRssKb()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

// Every system call routed (no filters), plus a path route on /tmp so file-system delivery walks
// every PATH record up to it.
void BM_ModuleWholePath(benchmark::State& state)
{
    const auto& lines = Lines();
    Framework::Task owner("audit_task", "bench", Framework::TaskCondition::kLoop, 1);
    CountingTask subscriber;
    Engine::AuditLog log(&owner, nullptr);
    Bench::RouteEverySystemCall(log, &subscriber, "all");
    Engine::auditFileSystemDest watch;
    watch.task = &subscriber;
    watch.tag = "tmp";
    watch.read = watch.write = watch.exec = watch.attr = 1;
    log.pathRoutes.emplace("/tmp", watch);

    // The module logs as in production (warnings for the execve events its assembly closes
    // early are built), but into a channel that writes nowhere: the benchmark measures the
    // module, not the terminal.
    Poco::Logger::root().setChannel(Poco::AutoPtr<Poco::Channel>(new Poco::NullChannel));
    Engine::Audit::GetLoggerPtr()->setChannel(Poco::AutoPtr<Poco::Channel>(new Poco::NullChannel));
    Engine::Audit::GetLoggerPtr()->setLevel(Poco::Message::PRIO_INFORMATION);

    long rssAfterFirst = 0;
    for (auto _ : state) {
        size_t count = 0;
        for (const std::string& line : lines) {
            log.HandleOneLineLog(line);
            if (++count % 512 == 0) {
                // The subscriber's side (dispatch, freeing events) runs on its own thread in the
                // agent: it is not part of the path measured here.
                state.PauseTiming();
                subscriber.BulkConsumeMsg(4096);
                state.ResumeTiming();
            }
        }
        log.HandleNoEofScenarios();
        state.PauseTiming();
        subscriber.BulkConsumeMsg(4096);
        state.ResumeTiming();
        if (rssAfterFirst == 0) {
            rssAfterFirst = MaxRssKb();
        }
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kEvents));
    state.counters["delivered_per_pass"] = static_cast<double>(subscriber.received) / static_cast<double>(state.iterations());
    state.counters["dropped"] = static_cast<double>(subscriber.DroppedCount());
    state.counters["rss_growth_kb"] = static_cast<double>(MaxRssKb() - rssAfterFirst);
}

void BM_LibauparseStreaming(benchmark::State& state)
{
    std::string text;
    for (const std::string& line : Lines()) {
        text += line;
        text += '\n';
    }
    for (auto _ : state) {
        auparse_state_t* au = auparse_init(AUSOURCE_BUFFER, text.c_str());
        size_t fields = 0;
        while (auparse_next_event(au) > 0) {
            do {
                auparse_first_field(au);
                do {
                    fields += auparse_get_field_str(au) != nullptr ? 1 : 0;
                } while (auparse_next_field(au) > 0);
            } while (auparse_next_record(au) > 0);
        }
        benchmark::DoNotOptimize(fields);
        auparse_destroy(au);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kEvents));
}

// Only the realpath calls the module makes for the same lines (one per PATH record, on the name
// made absolute against the event's working directory): the kernel's share of the whole path.
void BM_RealpathOfPathRecords(benchmark::State& state)
{
    std::vector<std::string> paths;
    std::string cwd;
    for (const std::string& line : Lines()) {
        if (line.find("type=CWD ") == 0) {
            cwd = Engine::LinuxAuditUtil::GetField("cwd", line);
        } else if (line.find("type=PATH ") == 0) {
            const std::string name = Engine::LinuxAuditUtil::GetField("name", line);
            paths.push_back(Engine::getFilepath(cwd, name));
        }
    }
    for (auto _ : state) {
        char resolved[PATH_MAX];
        size_t found = 0;
        for (const std::string& path : paths) {
            found += realpath(path.c_str(), resolved) != nullptr ? 1 : 0;
        }
        benchmark::DoNotOptimize(found);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kEvents));
    state.counters["paths_per_pass"] = static_cast<double>(paths.size());
}

double ThreadCpuSeconds()
{
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

// The processor share the limiter holds the line path to, at the module's own check points: the
// whole path runs over and over for 10 s on this thread, under a share of range(0) percent as
// the agent configures it (10 ms windows).
void BM_LinePathUnderShare(benchmark::State& state)
{
    const double share = static_cast<double>(state.range(0)) / 100.0;
    Framework::Task owner("audit_task", "bench", Framework::TaskCondition::kLoop, 1);
    CountingTask subscriber;
    Engine::AuditLog log(&owner, nullptr);
    Bench::RouteEverySystemCall(log, &subscriber);
    Engine::Audit::GetLoggerPtr()->setChannel(Poco::AutoPtr<Poco::Channel>(new Poco::NullChannel));
    double measured = 0;
    for (auto _ : state) {
        SDK::InnerCpuCtrlUtils::Configure(share, 10);
        const double cpu0 = ThreadCpuSeconds();
        const auto start = std::chrono::steady_clock::now();
        while (std::chrono::steady_clock::now() - start < std::chrono::seconds(10)) {
            for (const std::string& line : Lines()) {
                log.HandleOneLineLog(line);
            }
            subscriber.BulkConsumeMsg(1 << 20);
        }
        measured = (ThreadCpuSeconds() - cpu0) / std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        SDK::InnerCpuCtrlUtils::Disable();
    }
    state.counters["share"] = share;
    state.counters["measured"] = measured;
    state.counters["off_by_pct"] = 100.0 * (measured - share) / share;
}

}  // namespace

BENCHMARK(BM_LinePathUnderShare)->Arg(5)->Arg(10)->Arg(25)->Arg(50)->Iterations(1)->Unit(benchmark::kSecond);
BENCHMARK(BM_ModuleWholePath)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RealpathOfPathRecords)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LibauparseStreaming)->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
