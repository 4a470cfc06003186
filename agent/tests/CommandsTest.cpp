#include "DecodeCommand.h"
#include "EventJson.h"
#include "ParseCommand.h"
#include "WatchCommand.h"

#include "framework/Engine.h"

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <sstream>

namespace {

const std::string kFixtures = std::string(HW_SOURCE_DIR) + "/tests/fixtures/";
const std::string kGolden = std::string(HW_SOURCE_DIR) + "/agent/tests/golden/";

std::string ReadFile(const std::string& path)
{
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

using Command = int (*)(const std::vector<std::string>&, std::ostream&, std::ostream&);

// Compares a command's output for a capture with its golden file. HW_UPDATE_GOLDEN=1 rewrites it.
void ExpectGolden(const std::string& capture, const std::string& golden, Command command = Agent::RunParseCommand)
{
    std::ostringstream out;
    std::ostringstream err;
    EXPECT_EQ(command({kFixtures + capture}, out, err), 0) << err.str();
    EXPECT_EQ(err.str(), "");
    if (std::getenv("HW_UPDATE_GOLDEN") != nullptr) {
        std::ofstream(kGolden + golden) << out.str();
    }
    EXPECT_EQ(out.str(), ReadFile(kGolden + golden)) << "golden " << golden;
}

}  // namespace

TEST(ParseCommand, PrintsEveryEventOfARealCaptureAsItsGoldenJson)
{
    ExpectGolden("kernel-6.18-raw.log", "parse-kernel-6.18-raw.jsonl");
    ExpectGolden("kernel-6.18-enriched.log", "parse-kernel-6.18-enriched.jsonl");
}

TEST(ParseCommand, ReportsBadLinesByNumberAndSaysSoInItsStatus)
{
    const std::string path = "/tmp/hw_parse_" + std::to_string(getpid());
    std::ofstream(path) << "type=SYSCALL msg=audit(1.002:3): syscall=2 name=\"a\\\"b\"\n"
                        << "not a record\n"
                        << "type=CWD msg=audit(1.002:3): cwd=\"/\"\n"
                        << "\n";
    std::ostringstream out;
    std::ostringstream err;
    EXPECT_EQ(Agent::RunParseCommand({path}, out, err), 1);
    EXPECT_EQ(err.str(), "line 2: not an audit record, skipped\nline 4: not an audit record, skipped\n");
    EXPECT_EQ(out.str(),
              "{\"time_ms\":1002,\"serial\":3,\"records\":[{\"type\":\"SYSCALL\",\"fields\":{\"syscall\":\"2\","
              "\"name\":\"\\\"a\\\\\\\"b\\\"\"}},{\"type\":\"CWD\",\"fields\":{\"cwd\":\"\\\"/\\\"\"}}]}\n");
    std::remove(path.c_str());

    EXPECT_EQ(Agent::RunParseCommand({"/no/such/log"}, out, err), 2);
}

// The module's own assembly, decoding and delivery over whole real captures. Events that the
// assembly rules drop (an execve closed early by its BPRM_FCAPS record) are absent by design.
TEST(DecodeCommand, PrintsEveryDeliveredEventOfARealCaptureAsItsGoldenJson)
{
    ExpectGolden("kernel-6.18-raw.log", "decode-kernel-6.18-raw.jsonl", Agent::RunDecodeCommand);
    ExpectGolden("kernel-6.18-enriched.log", "decode-kernel-6.18-enriched.jsonl", Agent::RunDecodeCommand);
}

TEST(DecodeCommand, AnUnreadableFileIsAnError)
{
    std::ostringstream out;
    std::ostringstream err;
    EXPECT_EQ(Agent::RunDecodeCommand({"/no/such/log"}, out, err), 2);
    EXPECT_NE(err.str().find("cannot read"), std::string::npos);
}

TEST(WatchCommand, EventListsTakeNamesAndNumbersAndRefuseAnythingElse)
{
    struct Case {
        const char* list;
        bool ok;
        uint32_t mask;
    };
    const Case cases[] = {
        {"", true, 2 | 4 | 64 | 128 | 256 | 512}, {"create", true, 256},       {"moved_from,moved_to", true, 192},
        {"create, 512", true, 768},                {"6", true, 6},              {"1", true, 1},
        {"8", false, 0},                           {"0", false, 0},             {"create,", false, 0},
        {"move", false, 0},                        {"2x", false, 0},            {"CREATE", false, 0},
    };
    for (const Case& c : cases) {
        uint32_t mask = 0;
        std::string bad;
        EXPECT_EQ(Agent::ParseEventMask(c.list, mask, bad), c.ok) << c.list;
        if (c.ok) {
            EXPECT_EQ(mask, c.mask) << c.list;
        }
    }
    std::ostringstream out;
    std::ostringstream err;
    Framework::Engine engine;  // never started: bad arguments are refused first
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

TEST(WatchCommand, ANotificationIsOneJsonLineWithItsKindNamed)
{
    Engine::AuditEventResult result;
    result.path = "/w/a";
    result.destPath = "/w/b";
    result.event = 192;
    result.isDir = true;
    result.extra = {{"syscall", "82"}, {"comm", "mv"}};
    EXPECT_EQ(Agent::NotificationToJson(result, "t"),
              "{\"tag\":\"t\",\"path\":\"/w/a\",\"event\":192,\"kind\":\"move\",\"isDir\":true,\"destPath\":\"/w/b\","
              "\"extra\":{\"comm\":\"mv\",\"syscall\":\"82\"}}");
    for (const auto& [kind, name] : std::map<int, std::string>{
             {2, "modify"}, {4, "attrib"}, {64, "moved_from"}, {128, "moved_to"}, {256, "create"}, {512, "delete"}}) {
        EXPECT_EQ(Agent::NotificationKindName(kind), name);
    }
}
