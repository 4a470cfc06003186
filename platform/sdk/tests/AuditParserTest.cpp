#include "sdk/AuditParser.h"

#include <auparse.h>
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <tuple>

using SDK::AuditParser;

namespace {

const std::string kFixtures = std::string(HW_SOURCE_DIR) + "/tests/fixtures/";

std::vector<std::string> ReadLines(const std::string& path)
{
    std::ifstream in(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

// One record as both parsers see it: type, then (name, value) pairs in order.
using Fields = std::vector<std::pair<std::string, std::string>>;
using Record = std::pair<std::string, Fields>;
using Stamp = std::tuple<uint64_t, uint64_t>;  // milliseconds, serial
using Events = std::map<Stamp, std::vector<Record>>;

Events WithOurParser(const std::vector<std::string>& lines)
{
    AuditParser parser;
    for (const std::string& line : lines) {
        parser.FeedLine(line);
    }
    parser.Flush();
    Events events;
    for (const SDK::AuditEvent& event : parser.GetEvents()) {
        std::vector<Record>& records = events[Stamp{event.header[0], event.header[1]}];
        for (const SDK::AuditRecord& record : event.records) {
            records.emplace_back(record.type, Fields(record.fields.begin(), record.fields.end()));
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
        std::vector<Record>& records =
            events[Stamp{static_cast<uint64_t>(stamp->sec) * 1000 + stamp->milli, stamp->serial}];
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

void ExpectAgreement(const std::string& file)
{
    const Events ours = WithOurParser(ReadLines(kFixtures + file));
    const Events oracle = WithLibauparse(kFixtures + file);
    ASSERT_EQ(ours.size(), oracle.size()) << file;
    size_t records = 0;
    for (const auto& [stamp, expected] : oracle) {
        const auto found = ours.find(stamp);
        ASSERT_NE(found, ours.end()) << file << " serial " << std::get<1>(stamp);
        ASSERT_EQ(found->second.size(), expected.size()) << file << " serial " << std::get<1>(stamp);
        for (size_t i = 0; i < expected.size(); ++i) {
            EXPECT_EQ(found->second[i], expected[i]) << file << " serial " << std::get<1>(stamp) << " record " << i;
            ++records;
        }
    }
    EXPECT_GT(records, 40U) << "the capture should hold a real mix of records";
}

}  // namespace

TEST(AuditParser, AgreesWithLibauparseOnRealRawCaptures)
{
    ExpectAgreement("kernel-6.18-raw.log");
    ExpectAgreement("kernel-6.18-raw-own.log");
}

TEST(AuditParser, AgreesWithLibauparseOnARealEnrichedCapture)
{
    ExpectAgreement("kernel-6.18-enriched.log");
}

TEST(AuditParser, KeepsStampRecordsAndRawValuesOfOneEvent)
{
    AuditParser parser;
    EXPECT_TRUE(parser.FeedLine(
        "type=SYSCALL msg=audit(1795311539.293:3522): arch=c000003e syscall=44 success=yes exe=\"/usr/sbin/auditctl\" key=(null)"));
    EXPECT_TRUE(parser.FeedLine("type=PATH msg=audit(1795311539.293:3522): item=0 name=\"/tmp/fx\" nametype=PARENT"));
    EXPECT_TRUE(parser.FeedLine("type=PATH msg=audit(1795311539.293:3522): item=1 name=77697468207370616365 nametype=CREATE"));
    parser.Flush();
    ASSERT_EQ(parser.GetEvents().size(), 1U);
    const SDK::AuditEvent& event = parser.GetEvents()[0];
    EXPECT_EQ(event.header[0], 1795311539293ULL);
    EXPECT_EQ(event.header[1], 3522U);
    ASSERT_EQ(event.records.size(), 3U);
    const SDK::AuditFields* syscall = event.FindRecord("SYSCALL");
    ASSERT_NE(syscall, nullptr);
    EXPECT_EQ(syscall->Get("exe"), "\"/usr/sbin/auditctl\"");  // quotes kept
    EXPECT_EQ(syscall->Get("key"), "(null)");
    EXPECT_EQ(syscall->Get("missing"), "");
    const auto paths = event.FindRecords("PATH");
    ASSERT_EQ(paths.size(), 2U);
    EXPECT_EQ(paths[0]->Get("nametype"), "PARENT");
    EXPECT_EQ(paths[1]->Get("name"), "77697468207370616365");  // hex kept
    EXPECT_EQ(event.FindRecord("CWD"), nullptr);
}

TEST(AuditParser, SplitsEventsByStampAndSkipsLinesThatAreNotRecords)
{
    AuditParser parser;
    EXPECT_TRUE(parser.FeedLine("type=SYSCALL msg=audit(1.001:1): a=1"));
    EXPECT_FALSE(parser.FeedLine(""));
    EXPECT_FALSE(parser.FeedLine("garbage without a type"));
    EXPECT_FALSE(parser.FeedLine("type=PATH msg=audit(1.001): no serial"));
    EXPECT_FALSE(parser.FeedLine("type=PATH msg=audit(x.001:1): bad seconds"));
    EXPECT_FALSE(parser.FeedLine("type= msg=audit(1.001:1): empty type"));
    EXPECT_FALSE(parser.FeedLine("type=PATH msg=audit(1.001:1 unterminated"));
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

    AuditParser empty;
    EXPECT_FALSE(empty.FeedLine("not audit"));
    empty.Flush();
    EXPECT_TRUE(empty.GetEvents().empty());
}

TEST(AuditParser, IgnoresTheEnrichedTailAndOpensUserMessages)
{
    SDK::AuditRecord record;
    uint64_t header[2];
    ASSERT_TRUE(AuditParser::ParseLine(
        "node=web1 type=USER_LOGIN msg=audit(10.5:7): pid=1 msg='op=login acct=\"root\" res=failed'\x1d" "AUID=\"unset\" x=y",
        header, record));
    EXPECT_EQ(header[0], 10005U);
    EXPECT_EQ(header[1], 7U);
    EXPECT_EQ(record.type, "USER_LOGIN");
    const SDK::AuditFields::Field expected[] = {
        {"node", "web1"}, {"pid", "1"}, {"op", "login"}, {"acct", "\"root\""}, {"res", "failed"}};
    ASSERT_EQ(record.fields.size(), std::size(expected));
    size_t i = 0;
    for (const auto& field : record.fields) {
        EXPECT_EQ(field, expected[i++]);
    }
}

// Real lines, mutated at random (fixed seed): byte changes, cuts, and the characters the parser
// treats specially. Nothing may crash (the sanitizer builds run this too), every parsed record
// has a type, and every field's value can be found again by its name.
TEST(AuditParser, SurvivesMutatedRealLines)
{
    std::vector<std::string> lines = ReadLines(kFixtures + "kernel-6.18-enriched.log");
    const std::vector<std::string> raw = ReadLines(kFixtures + "kernel-6.18-raw.log");
    lines.insert(lines.end(), raw.begin(), raw.end());
    ASSERT_FALSE(lines.empty());
    uint64_t state = 0x9e3779b97f4a7c15ULL;
    const auto next = [&state] {
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        return state;
    };
    const char specials[] = {' ', '=', '\'', '\x1d', '"', ':', ')', '(', '\0', '\n'};
    size_t parsed = 0;
    for (int round = 0; round < 20000; ++round) {
        std::string line = lines[next() % lines.size()];
        const int edits = 1 + static_cast<int>(next() % 4);
        for (int e = 0; e < edits && !line.empty(); ++e) {
            const size_t at = next() % line.size();
            switch (next() % 4) {
            case 0: line[at] = specials[next() % sizeof(specials)]; break;
            case 1: line.resize(at); break;
            case 2: line.insert(at, 1, specials[next() % sizeof(specials)]); break;
            default: line[at] = static_cast<char>(next() & 0xff); break;
            }
        }
        AuditParser parser;
        if (!parser.FeedLine(line)) {
            continue;
        }
        ++parsed;
        parser.Flush();
        const SDK::AuditRecord& record = parser.GetEvents().at(0).records.at(0);
        ASSERT_FALSE(record.type.empty()) << line;
        for (const auto& [name, value] : record.fields) {
            ASSERT_FALSE(name.empty()) << line;
            ASSERT_TRUE(record.fields.Has(name)) << line;
        }
    }
    EXPECT_GT(parsed, 5000U) << "most mutations keep the stamp intact";
}

TEST(AuditParser, SetAndAddKeepEveryOtherFieldIntact)
{
    AuditParser parser;
    ASSERT_TRUE(parser.FeedLine("type=SYSCALL msg=audit(1.000:1): exe=2F746D702F612062 comm=\"a\" key=(null)"));
    SDK::AuditFields fields = parser.GetEvents()[0].records[0].fields;
    fields.Set("exe", "/tmp/a b");
    fields.Set("comm", fields.View("comm"));  // a value that views the record itself
    fields.Add("extra", "1");
    fields.Set("new", "2");
    ASSERT_EQ(fields.size(), 5U);
    EXPECT_EQ(fields.View("exe"), "/tmp/a b");
    EXPECT_EQ(fields.View("comm"), "\"a\"");
    EXPECT_EQ(fields.View("key"), "(null)");
    EXPECT_EQ(fields.View("extra"), "1");
    EXPECT_EQ(fields.View("new"), "2");
    EXPECT_EQ(fields.At(4).first, "new");
    const SDK::AuditFields copy = fields;
    EXPECT_EQ(copy, fields);
    fields.Clear();
    EXPECT_TRUE(fields.empty());
    EXPECT_EQ(copy.View("exe"), "/tmp/a b");
}
