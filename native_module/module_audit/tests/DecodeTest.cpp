// Event decoding on synthetic records. (Every field of every event of the real captures is held
// by the agent's decode golden files.)
#include "SyscallTables.h"

#include "TestSupport.h"

#include "sdk/StrUtils.h"


using namespace Engine;
using TestSupport::DecodeEvent;

namespace {

// "TYPE fields" records of one event, SYSCALL first.
std::shared_ptr<AuditEvent> Decode(const std::string& syscallFields, const std::vector<std::string>& more = {})
{
    std::vector<std::string> lines{"type=SYSCALL msg=audit(1.000:9): " + syscallFields};
    for (const std::string& record : more) {
        lines.push_back("type=" + record.substr(0, record.find(' ')) + " msg=audit(1.000:9): " + record.substr(record.find(' ') + 1));
    }
    return DecodeEvent(lines);
}

// The decoded fields these tests look at, on one line.
std::string Describe(const AuditEvent& e)
{
    std::string out = std::to_string(e.syscall) + " items=" + std::to_string(e.items) + " exe=" + e.exe +
                      " comm=" + e.comm + " access=" + (e.read ? "r" : "") + (e.write ? "w" : "") +
                      (e.execute ? "x" : "") + (e.attributeChange ? "a" : "");
    if (e.family != 0) {
        out += " sock=" + std::to_string(e.family) + "," + std::to_string(e.port) + "," +
               (e.saddr == std::string(1, '\0') ? "NUL" : e.saddr);
    }
    for (const AuditLogPath& p : e.paths) {
        out += " [" + p.path + "]";
    }
    return out;
}

}  // namespace

TEST(HexConversions, FollowTheAuditEncoding)
{
    // 1000000001 passes 31 bits before its last digit.
    for (const auto& [hex, value] : {std::pair<const char*, int>{"7FFFFFFF", 0x7fffffff}, {"80000000", 0}, {"12G4", 0},
                                     {"1000000001", 0}, {"", 0}, {"  +1f", 31}, {"+", 0}, {"0002", 2}}) {
        EXPECT_EQ(getDecValueFromHex(hex), value) << hex;
    }
    EXPECT_EQ(getStringValueFromHex("2F746D702F612062"), "/tmp/a b");
    EXPECT_EQ(getStringValueFromHex("41G2"), std::string("A\0", 2));  // an invalid pair gives a zero byte
    EXPECT_EQ(getStringValueFromHex("414"), "A\x04");                   // a lone last digit stands alone
    EXPECT_EQ(getStringValueFromHex(""), "");
    for (const auto& [text, value] : {std::pair<const char*, int>{"42", 42}, {"-3", -3}, {"", -1}, {"abc", -1}, {"12x", -1},
                                      {"2147483648", -1}, {" 1", -1}}) {
        EXPECT_EQ(DecimalOrMinusOne(text), value) << text;
    }
}

class DecodeTable : public testing::TestWithParam<TestSupport::TableRow> {};

TEST_P(DecodeTable, FieldsAccessKindsAndSocketAddress)
{
    std::vector<std::string> row = GetParam().cells;
    ASSERT_FALSE(row.empty()) << "the table holds no rows";
    row.resize(4);
    EXPECT_EQ(Describe(*Decode(row[0], SDK::StrUtils::Split(row[1], "; "))), row[2]) << row[3];
}

INSTANTIATE_TEST_SUITE_P(Rows, DecodeTable,
                         testing::ValuesIn(TestSupport::TableParams("native_module/module_audit/tests/tables/decode.txt", 3)),
                         TestSupport::TableRowName);

TEST(Decode, ExecveFieldsAndTheSocketTrace)
{
    const auto exec = Decode("arch=c000003e syscall=59 exe=2F746D702F612062", {"EXECVE argc=2 a0=\"cat\" a1=78", "CWD cwd=\"/\""});
    EXPECT_EQ(exec->parsedEvent.FindRecord("SYSCALL")->View("exe"), "/tmp/a b") << "written back";
    EXPECT_TRUE(exec->isExecve);
    EXPECT_EQ(exec->execveFields.View("a1"), "78");

    TestSupport::LogCapture capture(Poco::Message::PRIO_DEBUG);
    Decode("arch=c000003e syscall=42 success=no exit=-111 items=0", {"SOCKADDR saddr=02001F907F000001"});
    EXPECT_TRUE(capture.channel().Has("sockaddr family is 2, port is 8080, saddr is 127.0.0.1"));
}

TEST(Decode, EventsWithoutUsableRecordsAreDropped)
{
    TestSupport::LogCapture log(Poco::Message::PRIO_WARNING);
    int result = -1;
    DecodeEvent({"type=CWD msg=audit(1.000:1): cwd=\"/\""}, &result);
    EXPECT_EQ(result, 1);
    EXPECT_TRUE(log.channel().Has("Find parse audit log invalid, not find SYSCALL."));
    DecodeEvent({"garbage"}, &result);
    EXPECT_EQ(result, 2);
    EXPECT_TRUE(log.channel().Has("Find parse audit log invalid."));
}
