#include "AuditCommand.h"

#include "EventJson.h"
#include "LiveSession.h"

#include "AuditConstants.h"
#include "AuditMessages.h"
#include "AuditRules.h"
#include "AuditUtil.h"

#include <mutex>
#include <ostream>

namespace Agent {

namespace {

// Ends in "_task", so the module's clean-up ("-D -k _task***") also finds what it leaves.
const std::string kCliTaskName = "audit_cli_task";

}  // namespace

int RunAuditCommand(const AuditRequest& request, Framework::Engine& engine, const std::function<void()>& waitForStop,
                    std::ostream& out, std::ostream& err)
{
    if (request.rules.empty() && request.watches.empty()) {
        err << "hostwarden audit: give at least one rule or --watch PATH\n";
        return 2;
    }
    // Refuse bad rule texts before anything is installed, with the module's own parser.
    std::vector<std::string> keys;
    for (const std::string& text : request.rules) {
        Engine::AuditSyscallCtrlMessage probe;
        probe.rule = text;
        Engine::SyscallRule rule;
        int result = Engine::kRuleRejected;
        try {
            result = Engine::LinuxAuditUtil::auditDistractSyscallRule(probe, rule);
        } catch (const std::exception&) {
        }
        if (result != Engine::kRuleParsed) {
            err << "hostwarden audit: refused rule '" << text
                << "' (expected LIST,ACTION then -S NAME[,NAME], -F NAME=VALUE and -k KEY options)\n";
            return 1;
        }
        keys.push_back(Engine::getRuleKey(kCliTaskName, request.tag, rule));
    }
    for (const std::string& path : request.watches) {
        if (path.empty() || path[0] != '/') {
            err << "hostwarden audit: a watched path must be absolute: '" << path << "'\n";
            return 1;
        }
        Engine::FileSystemRule rule;
        rule.path = path.size() > 1 && path.back() == '/' ? path.substr(0, path.size() - 1) : path;
        rule.perm = "wa";
        keys.push_back(Engine::getRuleKey(kCliTaskName, request.tag, rule));
    }

    std::mutex outMutex;
    LiveSession session(engine, err);
    const bool started = session.Start(kCliTaskName, [&](const Engine::AuditEventMessage& msg) {
        if (msg.event) {
            const std::string line = DecodedEventToJson(*msg.event, msg.tag);
            std::lock_guard<std::mutex> lock(outMutex);
            out << line << std::endl;
        }
    });
    if (!started) {
        return 1;
    }
    for (const std::string& text : request.rules) {
        auto* msg = new Engine::AuditSyscallCtrlMessage(session.Subscriber());
        msg->tag = request.tag;
        msg->operate = "-a";
        msg->rule = text;
        session.Send(Engine::kAuditTaskName, msg);
    }
    for (const std::string& path : request.watches) {
        auto* msg = new Engine::AuditFileSystemCtrlMessage(session.Subscriber(), path, {}, _FileNotifyOpt{});
        msg->tag = request.tag;
        msg->operate = "-w";
        msg->rule = path + " -p wa";
        session.Send(Engine::kAuditTaskName, msg);
    }
    const bool installed = session.WaitForKernelKeys(keys, true);
    if (installed) {
        err << "hostwarden audit: " << keys.size() << " subscription(s) installed; printing events until interrupted\n";
        waitForStop();
    }
    session.Send(Engine::kAuditTaskName, new Engine::AuditUnsubscribeMessage(session.Subscriber()));
    session.WaitForKernelKeys(keys, false);
    session.Stop();  // the audit task's UnInit removes whatever is left of ours
    return installed ? 0 : 1;
}

}  // namespace Agent
