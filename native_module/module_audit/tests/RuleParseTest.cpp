#include "AuditMessages.h"
#include "AuditUtil.h"
#include "SyscallTables.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

using namespace Engine;

namespace {

int ParseSyscall(const std::string& text, SyscallRule& rule)
{
    AuditSyscallCtrlMessage msg;
    msg.rule = text;
    return LinuxAuditUtil::auditDistractSyscallRule(msg, rule);
}

int ParseSyscall(const std::string& text)
{
    SyscallRule rule;
    return ParseSyscall(text, rule);
}

int ParseFs(const std::string& text, FileSystemRule& rule)
{
    AuditFileSystemCtrlMessage msg(nullptr, "", {}, _FileNotifyOpt{});
    msg.rule = text;
    return LinuxAuditUtil::auditDistractFilesystemRule(msg, rule);
}

}  // namespace

TEST(SyscallRuleParse, ReadsArchSyscallsKeyAndFilters)
{
    SyscallRule rule;
    EXPECT_EQ(ParseSyscall("exit,always -F arch=b64 -S open,openat -k k1", rule), 0);
    EXPECT_EQ(rule.arch, "b64");
    EXPECT_EQ(rule.syscalls, (std::vector<std::string>{"open", "openat"}));
    EXPECT_EQ(rule.key, "k1");
    EXPECT_EQ(rule.hasFilter, 0);

    SyscallRule filtered;
    EXPECT_EQ(ParseSyscall("exit,always  -S execve -S connect -F success=0 -F exit=-13 -F a1=0x1F -F a2=31 -F a3=-1 "
                           "-F ppid=7 -F key=k2 -k k3",
                           filtered),
              0);
    EXPECT_EQ(filtered.syscalls, (std::vector<std::string>{"execve", "connect"}));
    EXPECT_EQ(filtered.hasFilter, 1);
    EXPECT_EQ(filtered.success, "no");
    EXPECT_EQ(filtered.exit, "-13");
    EXPECT_EQ(filtered.a1, "1F");
    EXPECT_EQ(filtered.a2, "1f");
    EXPECT_EQ(filtered.a3, "ffffffff");
    EXPECT_EQ(filtered.ppid, "7");
    EXPECT_EQ(filtered.key, "k3");  // -k overwrites key= without a check
    for (const char* alone : {"exit=-2", "a0=1", "a3=0x10", "success=1"}) {
        SyscallRule one;
        EXPECT_EQ(ParseSyscall(std::string("exit,always -S open -F ") + alone, one), 0);
        EXPECT_EQ(one.hasFilter, 1) << alone << " alone sets it";
    }
}

TEST(SyscallRuleParse, ResultCodesForNeverRejectedAndDeadTokens)
{
    EXPECT_EQ(ParseSyscall("exit,never -S open"), 1);
    EXPECT_EQ(ParseSyscall("exclude,always"), 1);  // no syscall needed for never/exclude
    EXPECT_EQ(ParseSyscall("exit,never"), 1);
    EXPECT_EQ(ParseSyscall("exit,always -F arch=b64"), 2);
    EXPECT_EQ(ParseSyscall(""), 2);
    EXPECT_EQ(ParseSyscall("   "), 2);
    EXPECT_EQ(ParseSyscall("exit,always -S open -F pid=1 -F pid=2"), 2);
    EXPECT_EQ(ParseSyscall("exit,always -S open -F arch=b64 -F arch=b32"), 2);
    EXPECT_EQ(ParseSyscall("exit,always -S open -F success=2"), 2);
    EXPECT_EQ(ParseSyscall("exit,always -S open -F success"), 2);
    EXPECT_EQ(ParseSyscall("exit,always -S open -F a=b=c"), 2);
    EXPECT_EQ(ParseSyscall("exit,always -S open -F exit=1 -F exit=2"), 2);
    EXPECT_EQ(ParseSyscall("exit,always -S open -F a0=1 -F a0=2"), 2);
    EXPECT_EQ(ParseSyscall("exit,always -S open -X"), 0);  // a trailing unknown option passes
    EXPECT_EQ(ParseSyscall("exit,always -S open -X -k k"), 2);
    EXPECT_EQ(ParseSyscall("exit,always -S open -F path=/x -F perm=wa"), 0);  // ignored fields
    EXPECT_EQ(ParseSyscall("exit,always -S nosuchcall"), 0);
    EXPECT_THROW(ParseSyscall("exit,always -S open -F a0=zz"), std::invalid_argument);
    EXPECT_THROW(ParseSyscall("exit,always -S open -F a0=99999999999"), std::out_of_range);
}

TEST(SyscallRuleParse, UnknownFieldNamesCountAsPidAndJoinTheTable)
{
    parameterNumberMap.erase("uid");
    SyscallRule rule;
    EXPECT_EQ(ParseSyscall("exit,always -S open -F uid=5", rule), 0);
    EXPECT_EQ(rule.pid, "5");
    ASSERT_EQ(parameterNumberMap.count("uid"), 1U);
    EXPECT_EQ(parameterNumberMap["uid"], kParamPid);
    EXPECT_EQ(ParseSyscall("exit,always -S open -F uid=5 -F pid=6"), 2);  // both land on pid
    parameterNumberMap.erase("uid");
}

TEST(SyscallRuleParse, EmptyPiecesOfASyscallListAreKept)
{
    SyscallRule rule;
    EXPECT_EQ(ParseSyscall("exit,always -S open,,chmod", rule), 0);
    EXPECT_EQ(rule.syscalls, (std::vector<std::string>{"open", "", "chmod"}));
}

TEST(FileSystemRuleParse, ReadsPathPermKeyAndFields)
{
    FileSystemRule rule;
    EXPECT_EQ(ParseFs("/etc/ -p wa -k k2", rule), 0);
    EXPECT_EQ(rule.path, "/etc");
    EXPECT_EQ(rule.perm, "wa");
    EXPECT_EQ(rule.key, "k2");

    FileSystemRule fields;
    EXPECT_EQ(ParseFs("/var/log -F pid=3 -F ppid=4 -F perm=r -F path=/opt/ -F arch=b64", fields), 0);
    EXPECT_EQ(fields.pid, "3");
    EXPECT_EQ(fields.ppid, "4");
    EXPECT_EQ(fields.perm, "r");
    EXPECT_EQ(fields.path, "/opt");

    FileSystemRule quirk;
    EXPECT_EQ(ParseFs("/etc -F key=abc", quirk), 0);
    EXPECT_EQ(quirk.key, "e");  // the second character of the whole parameter, as stored by the agent
    FileSystemRule twice;
    EXPECT_EQ(ParseFs("/etc -F pid=1 -F pid=2", twice), 0) << "no repeat check for watches";
    EXPECT_EQ(twice.pid, "2");
}

TEST(FileSystemRuleParse, ResultCodes)
{
    FileSystemRule rule;
    EXPECT_EQ(ParseFs("etc -p wa", rule), 2);
    EXPECT_EQ(ParseFs("/ -p wa", rule), 2);
    EXPECT_EQ(ParseFs("", rule), 2);
    EXPECT_EQ(ParseFs("exit,never", rule), 1);
    EXPECT_EQ(ParseFs("/etc -F novalue", rule), 2);
    EXPECT_EQ(ParseFs("/etc -p wa -Z", rule), 0);
    EXPECT_EQ(ParseFs("/etc -Z -p wa", rule), 2);
    FileSystemRule viaField;
    EXPECT_EQ(ParseFs("exit,always -F path=/srv", viaField), 0);  // a path from a field counts
    EXPECT_EQ(viaField.path, "/srv");
}

TEST(SyscallTables, HoldTheKernelNumberingWithinTheirBounds)
{
    EXPECT_EQ(kSyscalls64Count, 320U);
    EXPECT_EQ(kSyscalls32Count, 371U);
    const std::map<int32_t, std::string> byNumber64 = syscallNumberToName64.Snapshot();
    const std::map<int32_t, std::string> byNumber32 = syscallNumberToName32.Snapshot();
    EXPECT_EQ(byNumber64.begin()->second, "read");
    EXPECT_EQ(byNumber64.rbegin()->first, 323);
    EXPECT_EQ(byNumber64.rbegin()->second, "userfaultfd");
    for (const int32_t gap : {317, 318, 321, 322}) {
        EXPECT_EQ(byNumber64.count(gap), 0U) << gap;
    }
    EXPECT_EQ(byNumber32.begin()->second, "restart_syscall");
    EXPECT_EQ(byNumber32.rbegin()->first, 374);
    EXPECT_EQ(byNumber32.at(374), "userfaultfd");
    for (const char* legacy : {"oldstat", "umount", "oldfstat", "ftime", "oldolduname", "oldlstat", "olduname",
                               "llseek", "newselect", "ugetrlimit", "ftruncate64", "fstat64", "fchown32", "fstatfs64"}) {
        EXPECT_EQ(syscallNameToNumber32.count(legacy), 1U) << legacy;
    }
    // The numbers the module relies on.
    const std::pair<const char*, std::pair<int32_t, int32_t>> used[] = {
        {"chmod", {90, 15}},   {"fchmod", {91, 94}},     {"fchmodat", {268, 306}}, {"open", {2, 5}},
        {"openat", {257, 295}}, {"creat", {85, 8}},      {"unlink", {87, 10}},     {"unlinkat", {263, 301}},
        {"rename", {82, 38}},   {"renameat", {264, 302}}, {"renameat2", {316, 353}}, {"mkdir", {83, 39}},
        {"link", {86, 9}},      {"execve", {59, 11}},     {"connect", {42, 362}},   {"chown", {92, 182}},
        {"fchown", {93, 95}},   {"fchownat", {260, 298}}, {"truncate", {76, 92}},   {"ftruncate", {77, 93}}};
    for (const auto& [name, numbers] : used) {
        EXPECT_EQ(syscallNameToNumber64[name], numbers.first) << name;
        EXPECT_EQ(syscallNameToNumber32[name], numbers.second) << name;
    }
    EXPECT_EQ(syscallNameToNumber64["kexec_file_load"], 320);
    EXPECT_EQ(syscallNameToNumber64["sysctl"], 156);  // "_sysctl" loses its underscore
}

TEST(SyscallTables, UnknownNamesAreAddedWithNumberZero)
{
    EXPECT_EQ(LinuxAuditUtil::auditGetSyscallNumber("nosuchcall", "b64"), 0);
    EXPECT_EQ(syscallNameToNumber64.count("nosuchcall"), 1U);
    EXPECT_EQ(LinuxAuditUtil::auditGetSyscallNumber("chmod", "b32"), 15);
    EXPECT_EQ(LinuxAuditUtil::auditGetSyscallNumber("chmod", ""), 90);
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
        const int count = static_cast<int>(next() % 8);
        for (int i = 0; i < count; ++i) {
            text += tokens[next() % std::size(tokens)];
            text += next() % 5 == 0 ? "  " : " ";
        }
        try {
            SyscallRule syscall;
            FileSystemRule fs;
            const int a = ParseSyscall(text, syscall);
            const int b = ParseFs(text, fs);
            ASSERT_TRUE(a >= 0 && a <= 2 && b >= 0 && b <= 2) << text;
            ++results[a];
        } catch (const std::invalid_argument&) {
        } catch (const std::out_of_range&) {
        }
    }
    EXPECT_GT(results[0], 0);
    EXPECT_GT(results[1], 0);
    EXPECT_GT(results[2], 0);
    parameterNumberMap.erase("");
    parameterNumberMap.erase("uid");
}
