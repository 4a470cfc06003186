// The audit record parser: against libauparse on real captures, on the line forms it must refuse
// or open up, and through its fuzzing harness.
#include "sdk/AuditParser.h"

#include "TestCommon.h"

#include <auparse.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

using SDK::AuditParser;
using TestSupport::FixturesDir;

namespace {

// One record as both parsers see it: type, then (name, value) pairs in order; by (ms, serial).
using Record = std::pair<std::string, std::vector<std::pair<std::string, std::string>>>;
using Events = std::map<std::tuple<uint64_t, uint64_t>, std::vector<Record>>;

Events WithOurParser(const std::string& path)
{
    AuditParser parser;
    for (const std::string& line : TestSupport::ReadLines(path)) {
        parser.FeedLine(line);
    }
    parser.Flush();
    Events events;
    for (const SDK::AuditEvent& event : parser.GetEvents()) {
        for (const SDK::AuditRecord& record : event.records) {
            events[{event.header[0], event.header[1]}].emplace_back(record.type, Record::second_type(record.fields.begin(), record.fields.end()));
        }
    }
    return events;
}

Events WithLibauparse(const std::string& path)
{
    Events events;
    auparse_state_t* au = auparse_init(AUSOURCE_FILE, path.c_str());
    EXPECT_NE(au, nullptr);
    while (au != nullptr && auparse_next_event(au) > 0) {
        const au_event_t* stamp = auparse_get_timestamp(au);
        std::vector<Record>& records = events[{static_cast<uint64_t>(stamp->sec) * 1000 + stamp->milli, stamp->serial}];
        do {
            Record record{auparse_get_type_name(au), {}};
            auparse_first_field(au);
            do {
                const std::string name = auparse_get_field_name(au);
                if (name != "type") {  // our records carry the type apart from the fields
                    record.second.emplace_back(name, auparse_get_field_str(au));
                }
            } while (auparse_next_field(au) > 0);
            records.push_back(std::move(record));
        } while (auparse_next_record(au) > 0);
    }
    auparse_destroy(au);
    return events;
}

}  // namespace

// Stamps, record types, and every field's raw value (quotes and hex kept) agree record by record.
TEST(AuditParser, AgreesWithLibauparseOnRealRawAndEnrichedCaptures)
{
    for (const char* capture : {"kernel-6.18-raw.log", "kernel-6.18-raw-own.log", "kernel-6.18-enriched.log", "kernel-6.18-filewatch.log"}) {
        const Events ours = WithOurParser(FixturesDir() + capture);
        const Events oracle = WithLibauparse(FixturesDir() + capture);
        EXPECT_EQ(ours, oracle) << capture;
        EXPECT_GT(oracle.size(), 10U) << capture;
    }
}

TEST(AuditParser, SplitsEventsByStampAndSkipsLinesThatAreNotRecords)
{
    AuditParser parser;
    EXPECT_FALSE(parser.FeedLine("type=SYSCALL msg=audit(): an empty stamp, before any was seen"));
    EXPECT_TRUE(parser.FeedLine("type=SYSCALL msg=audit(1.001:1): a=1"));
    for (const char* bad : {"", "garbage without a type", "type=PATH msg=audit(1.001): no serial", "type=PATH msg=audit(x.001:1): bad seconds",
                            "type= msg=audit(1.001:1): empty type", "type=PATH msg=audit(1.001:1 unterminated",
                            "type=PATH msg=audit(): empty stamp"}) {
        EXPECT_FALSE(parser.FeedLine(bad)) << bad;
    }
    EXPECT_TRUE(parser.FeedLine("type=EOE msg=audit(1.001:1): "));
    EXPECT_TRUE(parser.FeedLine("type=SYSCALL msg=audit(1.001:2): a=2"));
    // Completed events can be taken while the last one still collects records.
    std::vector<SDK::AuditEvent> done = parser.TakeEvents();
    ASSERT_EQ(done.size(), 1U);
    EXPECT_EQ(done[0].records.size(), 2U);
    EXPECT_TRUE(parser.FeedLine("type=CWD msg=audit(1.001:2): cwd=\"/\""));
    parser.Flush();
    ASSERT_EQ(parser.GetEvents().size(), 1U);
    EXPECT_EQ(parser.GetEvents()[0].records.size(), 2U);
    EXPECT_EQ(parser.GetEvents()[0].header[1], 2U);
    EXPECT_EQ(parser.GetEvents()[0].FindRecord("PATH"), nullptr);

    // A record of another machine (auditd's name_format) names it first; a record parsed into one
    // that held another keeps nothing of the old.
    uint64_t header[2] = {0, 0};
    SDK::AuditRecord record;
    ASSERT_TRUE(AuditParser::ParseLine("node=web1 type=SYSCALL msg=audit(1.001:3): a=1 b=2", header, record));
    EXPECT_EQ(record.type, "SYSCALL");
    EXPECT_EQ(Record::second_type(record.fields.begin(), record.fields.end()),
              (Record::second_type{{"node", "web1"}, {"a", "1"}, {"b", "2"}}));
    ASSERT_TRUE(AuditParser::ParseLine("type=CWD msg=audit(1.001:3): cwd=\"/\"", header, record));
    EXPECT_EQ(Record::second_type(record.fields.begin(), record.fields.end()), (Record::second_type{{"cwd", "\"/\""}}));
    EXPECT_FALSE(AuditParser::ParseLine("garbage", header, record));
    EXPECT_TRUE(record.type.empty() && record.fields.empty());
}

// The fuzzing harness, which checks every record it hands back, over the captures it is seeded
// with: it stays built and sound between fuzzing runs.
TEST(AuditParser, TheFuzzingHarnessTakesTheRealCaptures)
{
    for (const char* capture : {"kernel-6.18-raw.log", "kernel-6.18-enriched.log"}) {
        const std::string input = TestSupport::ReadFile(FixturesDir() + capture);
        EXPECT_EQ(LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(input.data()), input.size()), 0);
    }
}
