#include "OfflineAudit.h"

#include "AuditLog.h"
#include "AuditMessages.h"
#include "AuditRule.h"
#include "AuditUtil.h"
#include "SyscallTables.h"

#include "framework/Task.h"

namespace Engine {

namespace {

// Numbers above every system call the kernel's tables hold on either architecture.
constexpr int32_t kSyscallNumbers = 1024;

}  // namespace

std::string SyscallRuleProblem(const std::string& text)
{
    AuditSyscallCtrlMessage probe;
    probe.rule = text;
    SyscallRule rule;
    int result = kRuleRejected;
    try {
        result = LinuxAuditUtil::auditDistractSyscallRule(probe, rule);
    } catch (const std::exception&) {
        // a0..a3 that is not a 32-bit number
    }
    if (result == kRuleNeverOrExclude) {
        return "the audit module takes a never or exclude rule, which yields no events";
    }
    if (result != kRuleParsed) {
        return "the audit module refuses '" + text + "'";
    }
    // An unknown name would be routed as system call 0 and refused by auditctl.
    for (const std::string& name : rule.syscalls) {
        if (SyscallNumbersOfRuleArch(rule.arch).count(name) == 0) {
            return "unknown system call '" + name + "'" + (IsRuleArch32(rule.arch) ? " on i386" : " on x86_64");
        }
    }
    return {};
}

struct OfflineDecoder::State {
    Framework::Task sender{"decode_task", "decode", Framework::TaskCondition::kOnEvent, 1};
    AuditLog log{&sender, nullptr};
};

OfflineDecoder::OfflineDecoder(Framework::Task* receiver) : state_(std::make_unique<State>())
{
    for (int32_t number = 0; number < kSyscallNumbers; ++number) {
        auditSyscallDest dest;
        dest.task = receiver;
        dest.tag = "decode";
        state_->log.syscallRoutes64.emplace(number, dest);
        state_->log.syscallRoutes32.emplace(number, dest);
    }
}

OfflineDecoder::~OfflineDecoder() = default;

void OfflineDecoder::Line(const std::string& line)
{
    state_->log.HandleOneLineLog(line);
}

void OfflineDecoder::End()
{
    state_->log.HandleNoEofScenarios();
}

}  // namespace Engine
