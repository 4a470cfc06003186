// Event decoding on real captured events, and against libauparse's own interpretation.
#include "AuditLog.h"
#include "AuditMessages.h"
#include "SyscallTables.h"

#include "TestSupport.h"

#include <auparse.h>
#include <gtest/gtest.h>

#include <map>

using namespace Engine;
using TestSupport::EventLines;
using TestSupport::DecodeEvent;

namespace {

std::vector<std::string> Synthetic(const std::string& syscallFields, const std::vector<std::string>& more = {})
{
    std::vector<std::string> lines{"type=SYSCALL msg=audit(1.000:9): " + syscallFields};
    for (const std::string& record : more) {
        lines.push_back("type=" + record.substr(0, record.find(' ')) + " msg=audit(1.000:9): " + record.substr(record.find(' ') + 1));
    }
    return lines;
}

}  // namespace

TEST(HexConversions, FollowTheAuditEncoding)
{
    EXPECT_EQ(getDecValueFromHex("7FFFFFFF"), 0x7fffffff);
    EXPECT_EQ(getDecValueFromHex("80000000"), 0);
    EXPECT_EQ(getDecValueFromHex("12G4"), 0);
    EXPECT_EQ(getDecValueFromHex("1000000001"), 0) << "past 31 bits before the last digit";
    EXPECT_EQ(getDecValueFromHex(""), 0);
    EXPECT_EQ(getDecValueFromHex("  +1f"), 31);
    EXPECT_EQ(getDecValueFromHex("+"), 0);
    EXPECT_EQ(getDecValueFromHex("0002"), 2);
    EXPECT_EQ(getStringValueFromHex("2F746D702F612062"), "/tmp/a b");
    EXPECT_EQ(getStringValueFromHex("41G2"), std::string("A\0", 2));  // an invalid pair gives a zero byte
    EXPECT_EQ(getStringValueFromHex("414"), "A\x04");                   // a lone last digit stands alone
    EXPECT_EQ(getStringValueFromHex(""), "");
    EXPECT_EQ(DecimalOrMinusOne("42"), 42);
    EXPECT_EQ(DecimalOrMinusOne("-3"), -3);
    for (const char* bad : {"", "abc", "12x", "2147483648", " 1"}) {
        EXPECT_EQ(DecimalOrMinusOne(bad), -1) << bad;
    }
}

TEST(Decode, ARealRenameWithFourPathRecords)
{
    const auto event = DecodeEvent(EventLines("kernel-6.18-raw.log", 3543));
    EXPECT_EQ(event->arch, "c000003e");
    EXPECT_EQ(event->syscall, 82);
    EXPECT_EQ(event->items, 4);
    EXPECT_EQ(event->pid, "5698");
    EXPECT_EQ(event->ppid, "5640");
    EXPECT_EQ(event->success, "yes");
    EXPECT_EQ(event->exe, "/usr/bin/python3.11");
    EXPECT_EQ(event->comm, "python3");
    EXPECT_EQ(event->cwd, "/tmp/fx/watched");
    ASSERT_EQ(event->paths.size(), 4U);
    const char* nametypes[] = {"PARENT", "PARENT", "DELETE", "CREATE"};
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(event->paths[i].item, static_cast<int32_t>(i));
        EXPECT_EQ(event->paths[i].nametype, nametypes[i]);
    }
    EXPECT_EQ(event->paths[3].name, "/tmp/fx/watched/new1.renamed");
    EXPECT_TRUE(event->write);
    EXPECT_FALSE(event->read || event->execute || event->attributeChange);
    EXPECT_EQ(event->lines.size(), 6U);  // SYSCALL, CWD, four PATH
}

TEST(Decode, HexEncodedNamesStayHexButExeIsDecoded)
{
    const auto created = DecodeEvent(EventLines("kernel-6.18-raw.log", 3553));
    ASSERT_EQ(created->paths.size(), 2U);
    EXPECT_EQ(created->paths[1].name, "2F746D702F66782F776174636865642F77697468207370616365");
    EXPECT_EQ(created->paths[1].path, created->paths[1].name.insert(0, "/tmp/fx/watched/"));

    const auto event = DecodeEvent(Synthetic("arch=c000003e syscall=59 items=2 exe=2F746D702F612062 comm=\"cat\" pid=1 ppid=0",
                                        {"EXECVE argc=2 a0=\"cat\" a1=78", "CWD cwd=\"/\""}));
    EXPECT_EQ(event->exe, "/tmp/a b");
    EXPECT_EQ(event->comm, "cat");
    EXPECT_EQ(event->parsedEvent.FindRecord("SYSCALL")->View("exe"), "/tmp/a b");  // written back
    EXPECT_EQ(event->parsedEvent.FindRecord("SYSCALL")->View("comm"), "cat");
    EXPECT_TRUE(event->isExecve);
    EXPECT_EQ(event->execveFields.View("a1"), "78");
    EXPECT_TRUE(event->write && event->execute);
}

TEST(Decode, AccessFlagsFollowTheRecordCountAndChangeOfMode)
{
    // chmod on x86-64 with one PATH record: attribute change only.
    const auto chmod = DecodeEvent(EventLines("kernel-6.18-raw.log", 3533));
    EXPECT_EQ(chmod->syscall, 268);  // fchmodat
    EXPECT_TRUE(chmod->attributeChange);
    EXPECT_FALSE(chmod->read || chmod->write);
    // The 32-bit chmod through int 0x80.
    const auto chmod32 = DecodeEvent(EventLines("kernel-6.18-raw.log", 3563));
    EXPECT_EQ(chmod32->arch, "40000003");
    EXPECT_EQ(chmod32->syscall, 15);
    EXPECT_TRUE(chmod32->attributeChange);
    // An open of an existing file (one record) reads.
    const auto open = DecodeEvent(Synthetic("arch=c000003e syscall=2 items=1 pid=1 ppid=0",
                                       {"CWD cwd=\"/tmp\"", "PATH item=0 name=\"a.txt\" nametype=NORMAL"}));
    EXPECT_TRUE(open->read);
    EXPECT_FALSE(open->write || open->attributeChange);
    EXPECT_EQ(open->paths.at(0).path, "/tmp/a.txt");
    // Without a CWD record: no paths and no flags.
    const auto bare = DecodeEvent(Synthetic("arch=c000003e syscall=2 items=1", {"PATH item=0 name=\"/etc/passwd\""}));
    EXPECT_TRUE(bare->paths.empty());
    EXPECT_FALSE(bare->read || bare->write || bare->execute || bare->attributeChange);
    // Numbers that do not convert.
    const auto odd = DecodeEvent(Synthetic("arch=c000003e syscall=abc", {"CWD cwd=\"/\""}));
    EXPECT_EQ(odd->syscall, -1);
    EXPECT_EQ(odd->items, -1);
    EXPECT_TRUE(odd->write);
}

TEST(Decode, SocketAddresses)
{
    {
        TestSupport::LogCapture capture(Poco::Message::PRIO_DEBUG);
        AuditLog log(nullptr, nullptr);
        auto connect = std::make_shared<AuditEvent>();
        connect->lines = {"type=SYSCALL msg=audit(1.000:1): arch=c000003e syscall=42 success=no exit=-111 items=0 "
                          "ppid=1 pid=2 comm=\"c\" exe=\"/c\"",
                          "type=SOCKADDR msg=audit(1.000:1): saddr=02001F907F000001"};
        EXPECT_EQ(log.ParseAndDeliverLogs(connect), 0);
        EXPECT_TRUE(capture.channel().Has("sockaddr family is 2, port is 8080, saddr is 127.0.0.1"));
    }
    const auto inet = DecodeEvent(EventLines("kernel-6.18-raw.log", 3559));
    EXPECT_EQ(inet->family, 2);
    EXPECT_EQ(inet->port, 8080);
    EXPECT_EQ(inet->saddr, "127.0.0.1");
    const auto local = DecodeEvent(EventLines("kernel-6.18-raw.log", 3560));
    EXPECT_EQ(local->family, 1);
    EXPECT_EQ(local->saddr, "/tmp/fx/sock");
    const auto inet6 = DecodeEvent(EventLines("kernel-6.18-raw.log", 3561));
    EXPECT_EQ(inet6->family, 10);
    EXPECT_EQ(inet6->port, 0);
    EXPECT_EQ(inet6->saddr, std::string(1, '\0'));

    const auto lan = DecodeEvent(Synthetic("arch=c000003e syscall=42", {"SOCKADDR saddr=02000050C0A800010000000000000000"}));
    EXPECT_EQ(lan->port, 80);
    EXPECT_EQ(lan->saddr, "192.168.0.1");
    const auto abstract = DecodeEvent(Synthetic("arch=c000003e syscall=42", {"SOCKADDR saddr=0100006162"}));
    EXPECT_EQ(abstract->family, 1);
    EXPECT_EQ(abstract->saddr, "");
    const auto shortInet = DecodeEvent(Synthetic("arch=c000003e syscall=42", {"SOCKADDR saddr=02000050"}));
    EXPECT_EQ(shortInet->family, 2);
    EXPECT_EQ(shortInet->port, 0);
    const auto none = DecodeEvent(Synthetic("arch=c000003e syscall=42", {"SOCKADDR other=1"}));
    EXPECT_EQ(none->family, 0);
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

struct Interpreted {
    std::string exe, comm, cwd, syscall, saddr;
};

// libauparse's interpretation of the SYSCALL, CWD and SOCKADDR fields, by serial.
std::map<unsigned long, Interpreted> InterpretWithLibauparse(const std::string& path)
{
    std::map<unsigned long, Interpreted> all;
    auparse_state_t* au = auparse_init(AUSOURCE_FILE, path.c_str());
    while (au != nullptr && auparse_next_event(au) > 0) {
        Interpreted& item = all[auparse_get_serial(au)];
        do {
            const std::string type = auparse_get_type_name(au);
            auparse_first_field(au);
            do {
                const std::string name = auparse_get_field_name(au);
                const char* value = auparse_interpret_field(au);
                const std::string text = value == nullptr ? "" : value;
                if (type == "SYSCALL" && name == "exe") item.exe = text;
                if (type == "SYSCALL" && name == "comm") item.comm = text;
                if (type == "SYSCALL" && name == "syscall") item.syscall = text;
                if (type == "CWD" && name == "cwd") item.cwd = text;
                if (type == "SOCKADDR" && name == "saddr") item.saddr = text;
            } while (auparse_next_field(au) > 0);
        } while (auparse_next_record(au) > 0);
    }
    auparse_destroy(au);
    return all;
}

std::string OurSyscallName(const AuditEvent& event)
{
    auto& names = event.arch == "c000003e" ? syscallNumberToName64 : syscallNumberToName32;
    std::string name;
    names.Find(event.syscall, name);
    return name;
}

}  // namespace

// Every event the module decodes from a real capture agrees with libauparse on the executable,
// command, working directory, system call and socket address.
TEST(Decode, AgreesWithLibauparseInterpretationOnRealCaptures)
{
    for (const char* capture : {"kernel-6.18-raw.log", "kernel-6.18-enriched.log", "kernel-6.18-raw-own.log"}) {
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
        size_t compared = 0;
        size_t sockets = 0;
        for (const auto& [tag, event] : subscriber.Drain()) {
            const Interpreted& expected = oracle.at(event->parsedEvent.header[1]);
            EXPECT_EQ(event->exe, expected.exe) << capture;
            EXPECT_EQ(event->comm, expected.comm) << capture;
            EXPECT_EQ(OurSyscallName(*event), expected.syscall) << capture << " syscall " << event->syscall;
            if (event->parsedEvent.FindRecord("CWD") != nullptr) {
                EXPECT_EQ(event->cwd, expected.cwd) << capture;
            }
            if (event->family == 2) {
                EXPECT_NE(expected.saddr.find("saddr_fam=inet laddr=" + event->saddr + " lport=" +
                                              std::to_string(event->port) + " "),
                          std::string::npos)
                    << expected.saddr;
                ++sockets;
            } else if (event->family == 1) {
                EXPECT_NE(expected.saddr.find("saddr_fam=local path=" + event->saddr + " "), std::string::npos)
                    << expected.saddr;
                ++sockets;
            } else if (event->family == 10) {
                EXPECT_NE(expected.saddr.find("saddr_fam=inet6 "), std::string::npos) << expected.saddr;
            }
            ++compared;
        }
        EXPECT_GT(compared, 10U) << capture;
        EXPECT_GT(sockets, 0U) << capture;
    }
}
