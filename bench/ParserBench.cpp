// SDK::AuditParser against libauparse over the same real audit lines, in the same run.
// Every variant visits every field value of every record, as a consumer would.
#include "BenchData.h"

#include "sdk/AuditParser.h"

#include <auparse.h>
#include <benchmark/benchmark.h>

namespace {

const std::vector<std::string>& Lines()
{
    static const std::vector<std::string> lines = Bench::ReplicatedCaptureLines();
    return lines;
}

const std::vector<std::vector<std::string>>& Events()
{
    static const std::vector<std::vector<std::string>> events = Bench::GroupByStamp(Lines());
    return events;
}

// Built before any benchmark runs, so no measurement (or profile) includes the set-up.
const bool kDataReady = !Events().empty();

std::string Joined(const std::vector<std::string>& lines)
{
    std::string text;
    for (const std::string& line : lines) {
        text += line;
        text += '\n';
    }
    return text;
}

size_t WalkLibauparse(auparse_state_t* au)
{
    size_t bytes = 0;
    while (auparse_next_event(au) > 0) {
        do {
            auparse_first_field(au);
            do {
                const char* value = auparse_get_field_str(au);
                bytes += value != nullptr ? 1 : 0;
            } while (auparse_next_field(au) > 0);
        } while (auparse_next_record(au) > 0);
    }
    return bytes;
}

// One fresh parser per event: how the audit module uses it.
void BM_AuditParserPerEvent(benchmark::State& state)
{
    const auto& events = Events();
    benchmark::DoNotOptimize(kDataReady);
    for (auto _ : state) {
        size_t fields = 0;
        for (const std::vector<std::string>& lines : events) {
            SDK::AuditParser parser;
            for (const std::string& line : lines) {
                parser.FeedLine(line);
            }
            parser.Flush();
            for (const SDK::AuditEvent& event : parser.GetEvents()) {
                for (const SDK::AuditRecord& record : event.records) {
                    for (const auto& field : record.fields) {
                        fields += field.second.empty() ? 0 : 1;
                    }
                }
            }
        }
        benchmark::DoNotOptimize(fields);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * events.size()));
    state.counters["events"] = static_cast<double>(events.size());
}

// One libauparse parser over the whole log.
void BM_LibauparseStreaming(benchmark::State& state)
{
    const std::string text = Joined(Lines());
    for (auto _ : state) {
        auparse_state_t* au = auparse_init(AUSOURCE_BUFFER, text.c_str());
        benchmark::DoNotOptimize(WalkLibauparse(au));
        auparse_destroy(au);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * Events().size()));
}

// One libauparse parser per event.
void BM_LibauparsePerEvent(benchmark::State& state)
{
    std::vector<std::string> texts;
    for (const std::vector<std::string>& lines : Events()) {
        texts.push_back(Joined(lines));
    }
    for (auto _ : state) {
        size_t total = 0;
        for (const std::string& text : texts) {
            auparse_state_t* au = auparse_init(AUSOURCE_BUFFER, text.c_str());
            total += WalkLibauparse(au);
            auparse_destroy(au);
        }
        benchmark::DoNotOptimize(total);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * texts.size()));
}

}  // namespace

BENCHMARK(BM_AuditParserPerEvent)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LibauparseStreaming)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LibauparsePerEvent)->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
