#include "AgentConfig.h"
#include "AuditCommand.h"
#include "DecodeCommand.h"
#include "ParseCommand.h"
#include "RunCommand.h"
#include "WatchCommand.h"

#include "framework/Engine.h"

#include "TestCommon.h"

// Real captures as the parse command and the decode command (the module's own assembly, so events
// it drops by design are absent) print them, against golden files (HW_UPDATE_GOLDEN=1 rewrites).
TEST(ParseAndDecodeCommands, PrintRealCapturesAsTheirGoldenJson)
{
    using Command = int (*)(const std::vector<std::string>&, std::ostream&, std::ostream&);
    for (const char* capture : {"kernel-6.18-raw", "kernel-6.18-enriched"}) {
        const Command decode = [](const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
            Export::LineOptions flat;
            flat.flat = true;
            return Agent::RunDecodeCommand(args, flat, out, err);
        };
        for (const auto& [name, command] : {std::pair<const char*, Command>{"parse", Agent::RunParseCommand}, {"decode", decode}}) {
            std::ostringstream out, err;
            EXPECT_EQ(command({TestSupport::FixturesDir() + capture + ".log"}, out, err), 0) << err.str();
            EXPECT_EQ(err.str(), "") << name << " " << capture;
            TestSupport::ExpectGolden(std::string("agent/tests/golden/") + name + "-" + capture + ".jsonl", out.str());
        }
    }
}

TEST(ParseCommand, ReportsBadLinesByNumberAndSaysSoInItsStatus)
{
    TestSupport::TempDir dir;
    const std::string path = dir.Write("audit.log", "type=SYSCALL msg=audit(1.002:3): syscall=2 name=\"a\\\"b\"\nnot a record\n"
                                                    "type=CWD msg=audit(1.002:3): cwd=\"/\"\n\n");
    std::ostringstream out, err;
    EXPECT_EQ(Agent::RunParseCommand({path}, out, err), 1);
    EXPECT_EQ(out.str(),
              "{\"time_ms\":1002,\"serial\":3,\"records\":[{\"type\":\"SYSCALL\",\"fields\":{\"syscall\":\"2\","
              "\"name\":\"\\\"a\\\\\\\"b\\\"\"}},{\"type\":\"CWD\",\"fields\":{\"cwd\":\"\\\"/\\\"\"}}]}\n");
    EXPECT_EQ(Agent::RunParseCommand({"/no/such/log"}, out, err), 2);
    EXPECT_EQ(Agent::RunDecodeCommand({"/no/such/log"}, Export::LineOptions(), out, err), 2) << "decode reads the same way";
    EXPECT_EQ(err.str(), "line 2: not an audit record, skipped\nline 4: not an audit record, skipped\n"
                         "hostwarden parse: cannot read /no/such/log\nhostwarden decode: cannot read /no/such/log\n");
}

TEST(WatchCommand, BadArgumentsAreRefusedBeforeAnythingStarts)
{
    std::ostringstream out, err;
    Framework::Engine engine;  // never started
    Agent::WatchRequest request;
    request.paths = {"/no/such/path"};
    EXPECT_EQ(Agent::RunWatchCommand(request, engine, [] {}, out, err), 2);
    request.paths = {"/tmp"};
    request.events = "create,bogus";
    EXPECT_EQ(Agent::RunWatchCommand(request, engine, [] {}, out, err), 2);
    EXPECT_EQ(err.str(), "hostwarden watch: no such file or directory: '/no/such/path'\n"
                         "hostwarden watch: unknown event 'bogus' (use create, delete, modify, attrib, moved_from, "
                         "moved_to or their numbers)\n");
}

// Rules the module would take and then never match, or refuse, are refused before anything
// starts, each with its reason; the main job reads its configuration's rules the same way.
class RuleCheckTable : public testing::TestWithParam<TestSupport::TableRow> {};

TEST_P(RuleCheckTable, RulesTheModuleWouldMisreadOrRefuseAreRefusedFirst)
{
    std::vector<std::string> row = GetParam().cells;
    ASSERT_FALSE(row.empty()) << "the table holds no rows";
    row.resize(3);
    const std::string& rule = row[1];
    if (row[0] == "audit") {
        std::ostringstream out, err;
        Framework::Engine engine;  // never started
        Agent::AuditRequest request;
        request.rules = {rule};
        EXPECT_EQ(Agent::RunAuditCommand(request, engine, [] {}, out, err), 1) << rule;
        EXPECT_NE(err.str().find("hostwarden audit: refused rule '" + rule + "': " + row[2]), std::string::npos) << err.str();
    } else {
        Export::AgentConfig config;
        config.subscriptions = {{"subscriptions[0]", "t", rule, "", false, 0}};
        std::string error;
        EXPECT_EQ(Agent::CheckConfiguration(config, error), row[2].empty()) << rule;
        EXPECT_EQ(error.compare(0, row[2].size(), row[2]), 0) << rule << " gave: " << error;
    }
}

INSTANTIATE_TEST_SUITE_P(Rows, RuleCheckTable, testing::ValuesIn(TestSupport::TableParams("agent/tests/tables/rule-checks.txt", 1)),
                         TestSupport::TableRowName);
