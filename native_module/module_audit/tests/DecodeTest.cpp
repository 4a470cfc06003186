// Event decoding on synthetic records and, against libauparse's own interpretation, on real
// captures. (Every field of every event of the captures is also held by the agent's decode golden
// files.)
#include "SyscallTables.h"

#include "TestSupport.h"

#include "sdk/StrUtils.h"

#include <auparse.h>

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
    const std::pair<const char*, int> numbers[] = {{"7FFFFFFF", 0x7fffffff}, {"80000000", 0}, {"12G4", 0},
                                                   {"1000000001", 0},  // past 31 bits before the last digit
                                                   {"", 0}, {"  +1f", 31}, {"+", 0}, {"0002", 2}};
    for (const auto& [hex, value] : numbers) {
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

TEST(Decode, FieldsAccessKindsAndSocketAddresses)
{
    for (std::vector<std::string> row : TestSupport::TableRows("native_module/module_audit/tests/tables/decode.txt")) {
        row.resize(4);
        EXPECT_EQ(Describe(*Decode(row[0], SDK::StrUtils::Split(row[1], "; "))), row[2]) << row[3];
    }
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

namespace {

// libauparse's interpretation of the SYSCALL exe, comm and syscall, CWD and SOCKADDR, by serial.
std::map<unsigned long, std::map<std::string, std::string>> InterpretWithLibauparse(const std::string& path)
{
    std::map<unsigned long, std::map<std::string, std::string>> all;
    auparse_state_t* au = auparse_init(AUSOURCE_FILE, path.c_str());
    while (au != nullptr && auparse_next_event(au) > 0) {
        auto& item = all[auparse_get_serial(au)];
        do {
            const std::string type = auparse_get_type_name(au);
            auparse_first_field(au);
            do {
                const std::string name = type + "." + auparse_get_field_name(au);
                const char* value = auparse_interpret_field(au);
                item[name] = value == nullptr ? "" : value;
            } while (auparse_next_field(au) > 0);
        } while (auparse_next_record(au) > 0);
    }
    auparse_destroy(au);
    return all;
}

}  // namespace

// Every event the module decodes from a real capture agrees with libauparse on the executable,
// command, working directory, system call and socket address.
TEST(Decode, AgreesWithLibauparseInterpretationOnRealCaptures)
{
    size_t sockets = 0;
    for (const char* capture : {"kernel-6.18-raw.log", "kernel-6.18-enriched.log", "kernel-6.18-raw-own.log", "kernel-6.18-filewatch.log"}) {
        const auto oracle = InterpretWithLibauparse(TestSupport::FixturesDir() + capture);
        TestSupport::NamedTask owner("owner_task");
        TestSupport::Subscriber subscriber;
        AuditLog log(&owner, nullptr);
        for (int32_t number = 0; number < 1024; ++number) {
            auditSyscallDest dest;
            dest.task = &subscriber;
            log.syscallRoutes64.emplace(number, dest);
            log.syscallRoutes32.emplace(number, dest);
        }
        for (const std::string& line : TestSupport::ReadLines(TestSupport::FixturesDir() + capture)) {
            log.HandleOneLineLog(line);
            subscriber.Drain();
        }
        log.HandleNoEofScenarios();
        for (const auto& [tag, event] : subscriber.Drain()) {
            auto expected = oracle.at(event->parsedEvent.header[1]);
            std::string name;
            (event->arch == "c000003e" ? syscallNumberToName64 : syscallNumberToName32).Find(event->syscall, name);
            EXPECT_EQ(event->exe, expected["SYSCALL.exe"]) << capture;
            EXPECT_EQ(event->comm, expected["SYSCALL.comm"]) << capture;
            EXPECT_EQ(name, expected["SYSCALL.syscall"]) << capture << " syscall " << event->syscall;
            if (event->parsedEvent.FindRecord("CWD") != nullptr) {
                EXPECT_EQ(event->cwd, expected["CWD.cwd"]) << capture;
            }
            const std::string& saddr = expected["SOCKADDR.saddr"];
            if (event->family == 2 || event->family == 1) {
                const std::string text = event->family == 2 ? "saddr_fam=inet laddr=" + event->saddr + " lport=" + std::to_string(event->port) + " "
                                                            : "saddr_fam=local path=" + event->saddr + " ";
                EXPECT_NE(saddr.find(text), std::string::npos) << saddr;
                ++sockets;
            } else if (event->family == 10) {
                EXPECT_NE(saddr.find("saddr_fam=inet6 "), std::string::npos) << saddr;
            }
        }
        EXPECT_GT(subscriber.received.size(), 10U) << capture;
    }
    EXPECT_GT(sockets, 5U);
}
