#include "AuditCommand.h"

#include "AgentConfig.h"
#include "EventLines.h"
#include "LiveSession.h"
#include "RuleText.h"

#include "AuditConstants.h"
#include "AuditMessages.h"

#include "framework/Engine.h"

#include <atomic>
#include <mutex>
#include <ostream>

namespace Agent {

namespace {

// Ends in "_task", so the module's clean-up ("-D -k _task***") also finds what it leaves.
const std::string kCliTaskName = "audit_cli_task";
const std::string kCommand = "hostwarden audit";

}  // namespace

int RunAuditCommand(const AuditRequest& request, Framework::Engine& engine, const std::function<void()>& waitForStop,
                    std::ostream& out, std::ostream& err)
{
    if (request.rules.empty() && request.watches.empty()) {
        err << kCommand << ": give at least one rule or --watch PATH\n";
        return 2;
    }
    if (!Export::ValidTag(request.tag)) {
        err << kCommand << ": a tag holds letters, digits, '_', '-' and '.' only: '" << request.tag << "'\n";
        return 2;
    }
    // What the module would accept and never match is refused before anything is installed.
    std::vector<std::string> keys;
    for (const std::string& text : request.rules) {
        Export::RuleOutline outline;
        std::string problem;
        if (!Export::LintSyscallRule(text, outline, problem)) {
            err << kCommand << ": refused rule '" << text << "': " << problem << "\n";
            return 1;
        }
        keys.push_back(Export::SyscallRuleKey(kCliTaskName, request.tag, outline));
    }
    std::vector<std::string> watches;
    for (const std::string& given : request.watches) {
        std::string path;
        std::string problem;
        if (!Export::WatchablePath(given, path, problem)) {
            err << kCommand << ": " << problem << "\n";
            return 1;
        }
        watches.push_back(path);
        keys.push_back(Engine::FileRuleKey(kCliTaskName, request.tag, path, Engine::kFileWatchRulePerm));
    }

    Export::LineOptions options;
    options.flat = request.flat;
    Export::EventLines lines(options);
    LiveSession session(engine, kCommand, err);
    session.Limit(request.tag, request.rateLimit, lines, out);
    const bool started = session.Start(kCliTaskName, [&](const Engine::AuditEventMessage& msg) {
        if (msg.event && session.Admit(msg, msg.tag)) {
            std::string line;
            lines.AppendEvent(line, *msg.event, msg.tag);
            session.Print(out, line);
        }
    });
    if (!started) {
        return 1;
    }
    bool accepted = true;
    for (const std::string& text : request.rules) {
        auto* msg = new Engine::AuditSyscallCtrlMessage(session.Subscriber());
        msg->tag = request.tag;
        msg->operate = "-a";
        msg->rule = text;
        accepted = session.Accepted(session.Send(Engine::kAuditTaskName, msg), "rule '" + text + "'") && accepted;
    }
    for (const std::string& path : watches) {
        auto* msg = new Engine::AuditFileSystemCtrlMessage(session.Subscriber(), path, {}, _FileNotifyOpt{});
        msg->tag = request.tag;
        msg->operate = "-w";
        msg->rule = Engine::FileWatchRuleText(path);
        accepted = session.Accepted(session.Send(Engine::kAuditTaskName, msg), "the watch of " + path) && accepted;
    }
    const bool installed = accepted && session.WaitForKernelKeys(keys, true);
    if (installed) {
        err << kCommand << ": " << keys.size() << " subscription(s) installed; printing events until interrupted\n";
        waitForStop();
    }
    session.Send(Engine::kAuditTaskName, new Engine::AuditUnsubscribeMessage(session.Subscriber()));
    session.WaitForKernelKeys(keys, false);
    session.Stop();  // the audit task's UnInit removes whatever is left of ours
    return installed ? 0 : 1;
}

}  // namespace Agent
