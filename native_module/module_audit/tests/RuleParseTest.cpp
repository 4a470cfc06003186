// The rule parsers: result codes and what a parsed rule holds, one row per rule text.
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

}  // namespace

TEST(SyscallRuleParse, ResultCodesAndParsedRules)
{
    struct Case {
        const char* text;
        int code;
        const char* parsed;  // checked when the code is 0
    };
    const Case cases[] = {
        {"exit,always -F arch=b64 -S open,openat -k k1", 0, "arch=b64 S=open,openat filter=0 key=k1"},
        // -k overwrites key= without a check; numbers become lower-case hexadecimal, 0x values keep their case.
        {"exit,always  -S execve -S connect -F success=0 -F exit=-13 -F a1=0x1F -F a2=31 -F a3=-1 -F ppid=7 -F key=k2 -k k3", 0,
         "arch= S=execve,connect filter=1 ppid=7 key=k3 success=no exit=-13 a1=1F a2=1f a3=ffffffff"},
        // Each filter alone sets hasFilter; pid, ppid and keys do not.
        {"exit,always -S open -F exit=-2", 0, "arch= S=open filter=1 exit=-2"},
        {"exit,always -S open -F a0=1", 0, "arch= S=open filter=1 a0=1"},
        {"exit,always -S open -F success=1", 0, "arch= S=open filter=1 success=yes"},
        {"exit,always -S open -F pid=4 -k k", 0, "arch= S=open filter=0 pid=4 key=k"},
        {"exit,always -S open,,chmod", 0, "arch= S=open,,chmod filter=0"},  // empty pieces are kept
        {"exit,always -S open -F path=/x -F perm=wa", 0, "arch= S=open filter=0"},  // fields it ignores
        {"exit,always -S nosuchcall", 0, "arch= S=nosuchcall filter=0"},
        {"exit,always -S open -X", 0, "arch= S=open filter=0"},  // a trailing unknown option passes
        {"exit,never -S open", 1, ""},
        {"exclude,always", 1, ""},  // never and exclude need no system call
        {"exit,never", 1, ""},
        {"exit,never -S open -X -k k", 2, ""},  // a token after an unknown option rejects even these
        {"exit,always -S open -X -k k", 2, ""},
        {"exit,always -F arch=b64", 2, ""},
        {"", 2, ""},
        {"   ", 2, ""},
        {"exit,always -S open -F pid=1 -F pid=2", 2, ""},
        {"exit,always -S open -F arch=b64 -F arch=b32", 2, ""},
        {"exit,always -S open -F success=2", 2, ""},
        {"exit,always -S open -F success", 2, ""},
        {"exit,always -S open -F a=b=c", 2, ""},
        {"exit,always -S open -F exit=1 -F exit=2", 2, ""},
        {"exit,always -S open -F a0=1 -F a0=2", 2, ""},
    };
    for (const Case& c : cases) {
        const SyscallSub sub(nullptr, "t", c.text);
        EXPECT_EQ(sub.parsed, c.code) << c.text;
        if (c.code == 0) {
            EXPECT_EQ(Describe(sub.rule), c.parsed) << c.text;
        }
    }
    EXPECT_THROW(SyscallSub(nullptr, "t", "exit,always -S open -F a0=zz"), std::invalid_argument);
    EXPECT_THROW(SyscallSub(nullptr, "t", "exit,always -S open -F a0=99999999999"), std::out_of_range);

    // An unknown field name counts as pid, and joins the table as such.
    parameterNumberMap.erase("uid");
    EXPECT_EQ(Describe(SyscallSub(nullptr, "t", "exit,always -S open -F uid=5").rule), "arch= S=open filter=0 pid=5");
    EXPECT_EQ(parameterNumberMap["uid"], kParamPid);
    EXPECT_EQ(SyscallSub(nullptr, "t", "exit,always -S open -F uid=5 -F pid=6").parsed, 2) << "both land on pid";
    parameterNumberMap.erase("uid");
}

TEST(FileSystemRuleParse, ResultCodesAndParsedRules)
{
    const std::tuple<const char*, int, const char*> cases[] = {
        {"/etc/ -p wa -k k2", 0, "path=/etc perm=wa pid= ppid= key=k2"},
        {"/var/log -F pid=3 -F ppid=4 -F perm=r -F path=/opt/ -F arch=b64", 0, "path=/opt perm=r pid=3 ppid=4 key="},
        {"/etc -F key=abc", 0, "path=/etc perm= pid= ppid= key=e"},  // the second character of the whole parameter
        {"/etc -F pid=1 -F pid=2", 0, "path=/etc perm= pid=2 ppid= key="},  // no repeat check for watches
        {"/etc -F ppid=1 -F ppid=2", 0, "path=/etc perm= pid= ppid=2 key="},
        {"exit,always -F path=/srv", 0, "path=/srv perm= pid= ppid= key="},  // a path from a field counts
        {"/etc -p wa -Z", 0, "path=/etc perm=wa pid= ppid= key="},
        {"/etc -Z -p wa", 2, ""},
        {"etc -p wa", 2, ""},
        {"/ -p wa", 2, ""},
        {"", 2, ""},
        {"/etc -F novalue", 2, ""},
        {"exit,never", 1, ""},
    };
    for (const auto& [text, code, parsed] : cases) {
        const WatchSub sub(nullptr, "t", text);
        EXPECT_EQ(sub.parsed, code) << text;
        if (code == 0) {
            EXPECT_EQ(Describe(sub.rule), parsed) << text;
        }
    }
}

// Every entry of both tables names its number as libaudit does (which writes a few old calls with
// a leading underscore, and three calls by other names than the kernel's); the tables stop
// where the module's numbering stops.
TEST(SyscallTables, AgreeWithLibauditAndAddUnknownNamesWithNumberZero)
{
    for (const auto& [table, machine, count, last] : {std::tuple<const SharedLookupTable<int32_t, std::string>*, int, size_t, int32_t>{
                                                           &syscallNumberToName64, MACH_86_64, 320, 323},
                                                       {&syscallNumberToName32, MACH_X86, 371, 374}}) {
        const std::map<int32_t, std::string> entries = table->Snapshot();
        EXPECT_EQ(entries.size(), count);
        EXPECT_EQ(entries.rbegin()->first, last);
        for (const auto& [number, name] : entries) {
            const char* theirs = audit_syscall_to_name(number, machine);
            ASSERT_NE(theirs, nullptr) << number;
            const std::map<std::string, std::string> renamed = {{"pread", "pread64"}, {"pwrite", "pwrite64"}, {"sys_kexec_load", "kexec_load"}};
            const std::string plain = theirs[0] == '_' ? theirs + 1 : theirs;
            EXPECT_EQ(name, renamed.count(plain) ? renamed.at(plain) : plain) << number;
            EXPECT_EQ((machine == MACH_X86 ? syscallNameToNumber32 : syscallNameToNumber64)[name], number) << name;
        }
    }
    // Unknown names are added with number zero.
    EXPECT_EQ(LinuxAuditUtil::auditGetSyscallNumber("nosuchcall", "b64"), 0);
    EXPECT_EQ(syscallNameToNumber64.count("nosuchcall"), 1U);
    syscallNameToNumber64.erase("nosuchcall");
}

// Rule texts come from other modules: random mixes of real tokens and junk must give a result
// code, or the documented number errors, never anything else (the sanitizer builds run this too).
TEST(RuleParse, SurvivesRandomRuleTexts)
{
    const char* tokens[] = {"exit,always", "exit,never", "-S", "-F", "-k", "-p", "-X", "open,openat", ",,", "a0=0x1",
                            "a1=-5", "success=1", "pid=1", "key=abcdef", "path=/", "/etc/", "/", "=", "==", "", "wa",
                            "arch=b32", "uid=0", "exit=-2", "a3=zz", "\t", "perm=rwxa"};
    TestSupport::Random next(0x2545F4914F6CDD1DULL);
    int results[3] = {0, 0, 0};
    for (int round = 0; round < 20000; ++round) {
        std::string text;
        for (int i = static_cast<int>(next() % 8); i > 0; --i) {
            text += tokens[next() % std::size(tokens)];
            text += next() % 5 == 0 ? "  " : " ";
        }
        try {
            const int a = SyscallSub(nullptr, "t", text).parsed;
            const int b = WatchSub(nullptr, "t", text).parsed;
            ASSERT_TRUE(a >= 0 && a <= 2 && b >= 0 && b <= 2) << text;
            ++results[a];
        } catch (const std::invalid_argument&) {
        } catch (const std::out_of_range&) {
        }
    }
    EXPECT_GT(std::min({results[0], results[1], results[2]}), 0) << "every result code occurs";
    parameterNumberMap.erase("");
    parameterNumberMap.erase("uid");
}
