// The rule parsers: result codes and what a parsed rule holds, one row per rule text
// (tables/rule-parse.txt).
#include "AuditUtil.h"
#include "SyscallTables.h"

#include "TestSupport.h"

#include <libaudit.h>

using namespace Engine;
using TestSupport::SyscallSub;
using TestSupport::WatchSub;

namespace {

// Every field the parser may set, empty ones left out.
std::string Describe(const SyscallRule& r)
{
    std::string out = "arch=" + r.arch + " S=";
    for (size_t i = 0; i < r.syscalls.size(); ++i) {
        out += (i == 0 ? "" : ",") + r.syscalls[i];
    }
    out += " filter=" + std::to_string(r.hasFilter);
    const std::pair<const char*, const std::string*> fields[] = {{"pid", &r.pid},   {"ppid", &r.ppid}, {"key", &r.key},
                                                                 {"success", &r.success}, {"exit", &r.exit},
                                                                 {"a0", &r.a0}, {"a1", &r.a1}, {"a2", &r.a2}, {"a3", &r.a3}};
    for (const auto& [name, value] : fields) {
        out += value->empty() ? "" : std::string(" ") + name + "=" + *value;
    }
    return out;
}

std::string Describe(const FileSystemRule& r)
{
    return "path=" + r.path + " perm=" + r.perm + " pid=" + r.pid + " ppid=" + r.ppid + " key=" + r.key;
}

// A rule text through one parser: its result code and the rule it gave.
template <typename Sub>
std::pair<int, std::string> Parsed(const std::string& text)
{
    const Sub sub(nullptr, "t", text);
    return {sub.parsed, Describe(sub.rule)};
}

// The table's escapes: \t, \n and \xNN.
std::string Unescaped(const std::string& text)
{
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\' || i + 1 == text.size()) {
            out += text[i];
        } else if (text[i + 1] == 'x' && i + 3 < text.size()) {
            out += static_cast<char>(std::stoi(text.substr(i + 2, 2), nullptr, 16));
            i += 3;
        } else {
            out += text[i + 1] == 't' ? '\t' : text[i + 1] == 'n' ? '\n' : text[i + 1];
            ++i;
        }
    }
    return out;
}

}  // namespace

class RuleParseTable : public testing::TestWithParam<TestSupport::TableRow> {};

TEST_P(RuleParseTable, ResultCodeAndParsedRule)
{
    std::vector<std::string> row = GetParam().cells;
    ASSERT_FALSE(row.empty()) << "the table holds no rows";
    row.resize(4);
    row[1] = Unescaped(row[1]);
    const auto [code, parsed] = row[0] == "S" ? Parsed<SyscallSub>(row[1]) : Parsed<WatchSub>(row[1]);
    EXPECT_EQ(std::to_string(code), row[2]) << row[1];
    if (code == 0) {
        EXPECT_EQ(parsed, row[3]) << row[1];
    }
}

INSTANTIATE_TEST_SUITE_P(Rows, RuleParseTable,
                         testing::ValuesIn(TestSupport::TableParams("native_module/module_audit/tests/tables/rule-parse.txt", 1)),
                         TestSupport::TableRowName);

TEST(RuleParse, ResultCodesOfTextsATableCannotHold)
{
    EXPECT_EQ(SyscallSub(nullptr, "t", "   ").parsed, 2);
    EXPECT_THROW(SyscallSub(nullptr, "t", "exit,always -S open -F a0=zz"), std::invalid_argument);
    EXPECT_THROW(SyscallSub(nullptr, "t", "exit,always -S open -F a0=99999999999"), std::out_of_range);

    // An unknown field name counts as pid, and joins the table as such.
    parameterNumberMap.erase("uid");
    EXPECT_EQ(Describe(SyscallSub(nullptr, "t", "exit,always -S open -F uid=5").rule), "arch= S=open filter=0 pid=5");
    EXPECT_EQ(parameterNumberMap["uid"], kParamPid);
    EXPECT_EQ(SyscallSub(nullptr, "t", "exit,always -S open -F uid=5 -F pid=6").parsed, 2) << "both land on pid";
    parameterNumberMap.erase("uid");
}

// The tables hold the kernel's whole numbering: every entry the installed libaudit knows has its
// name (but for libaudit's leading underscores and three other names), and the calls newer than
// libaudit reach auditctl as numbers.
TEST(SyscallTables, AgreeWithLibauditAndPassNewerCallsToAuditctlAsNumbers)
{
    for (const auto& [table, machine, count, newest] : {std::tuple<const SharedLookupTable<int32_t, std::string>*, int, size_t, int32_t>{
                                                           &syscallNumberToName64, MACH_86_64, 384, 470},
                                                       {&syscallNumberToName32, MACH_X86, 460, 470}}) {
        const std::map<int32_t, std::string> entries = table->Snapshot();
        EXPECT_EQ(entries.size(), count);
        EXPECT_EQ(entries.rbegin()->first, newest);
        for (const auto& [number, name] : entries) {
            const char* theirs = audit_syscall_to_name(number, machine);
            if (theirs == nullptr) {
                EXPECT_TRUE(number > 450 || number == 335 || number == 336) << name << ": newer than libaudit";
                continue;
            }
            const std::map<std::string, std::string> renamed = {{"pread", "pread64"}, {"pwrite", "pwrite64"}, {"sys_kexec_load", "kexec_load"},
                                                               {"sched_rr_get_interval64", "sched_rr_get_interval_time64"}};
            const std::string plain = theirs[0] == '_' ? theirs + 1 : theirs;
            EXPECT_EQ(name, renamed.count(plain) ? renamed.at(plain) : plain) << number;
            EXPECT_EQ((machine == MACH_X86 ? syscallNameToNumber32 : syscallNameToNumber64)[name], number) << name;
        }
    }
    EXPECT_EQ(LinuxAuditUtil::SyscallNamesForAuditctl("exit,always  -F arch=b64 -S execveat,fchmodat2 -S openat2", "b64"),
              "exit,always -F arch=b64 -S execveat,452 -S openat2");
    EXPECT_EQ(LinuxAuditUtil::SyscallNamesForAuditctl("exit,always -F arch=b32 -S fchmodat2,nosuch", "b32"),
              "exit,always -F arch=b32 -S 452,nosuch") << "a name no table knows stays for auditctl to refuse";
    // Unknown names are added with number zero.
    EXPECT_EQ(LinuxAuditUtil::auditGetSyscallNumber("nosuchcall", "b64"), 0);
    EXPECT_EQ(syscallNameToNumber64.count("nosuchcall"), 1U);
    syscallNameToNumber64.erase("nosuchcall");
}
