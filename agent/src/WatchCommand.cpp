#include "WatchCommand.h"

#include "AgentConfig.h"
#include "EventLines.h"
#include "LiveSession.h"
#include "RuleText.h"

#include "AuditConstants.h"
#include "AuditMessages.h"

#include <ostream>

namespace Agent {

namespace {

const std::string kWatchTaskName = "watch_cli_task";
const std::string kCommand = "hostwarden watch";

}  // namespace

int RunWatchCommand(const WatchRequest& request, Framework::Engine& engine, const std::function<void()>& waitForStop,
                    std::ostream& out, std::ostream& err)
{
    if (request.paths.empty()) {
        err << kCommand << ": give at least one PATH\n";
        return 2;
    }
    if (!Export::ValidTag(request.tag)) {
        err << kCommand << ": a tag holds letters, digits, '_', '-' and '.' only: '" << request.tag << "'\n";
        return 2;
    }
    uint32_t mask = 0;
    std::string bad;
    if (!Export::ParseEventMask(request.events, mask, bad)) {
        err << kCommand << ": unknown event '" << bad
            << "' (use create, delete, modify, attrib, moved_from, moved_to or their numbers)\n";
        return 2;
    }
    std::vector<std::string> paths;
    for (const std::string& given : request.paths) {
        std::string path;
        std::string problem;
        if (!Export::WatchablePath(given, path, problem)) {
            err << kCommand << ": " << problem << "\n";
            return 2;
        }
        paths.push_back(path);
    }

    Export::LineOptions options;
    options.flat = request.flat;
    Export::EventLines lines(options);
    LiveSession session(engine, kCommand, err);
    session.Limit(request.tag, request.rateLimit, lines, out);
    const bool started = session.Start(kWatchTaskName, [&](const Engine::AuditEventMessage& msg) {
        if (!msg.event && session.Admit(msg, request.tag)) {  // a notification, not an audit event
            std::string line;
            lines.AppendNotification(line, msg.result, request.tag);
            session.Print(out, line);
        }
    });
    if (!started) {
        return 1;
    }
    const auto send = [&](const std::string& path, bool unwatch) {
        _FileNotifyOpt opt;
        opt.recursive = request.recursive;
        opt.flag6 = unwatch;
        auto* msg = new Engine::AuditFileSystemCtrlMessage(session.Subscriber(), path, {mask}, opt);
        msg->tag = request.tag;
        return session.Send(Engine::kFileWatchTaskName, msg);
    };
    std::vector<std::string> keys;
    bool accepted = true;
    for (const std::string& path : paths) {
        accepted = session.Accepted(send(path, false), "the watch of " + path) && accepted;
        keys.push_back(Engine::FileWatchRuleKey(path));
    }
    const bool installed = accepted && session.WaitForKernelKeys(keys, true);
    if (installed) {
        err << kCommand << ": " << paths.size() << " path(s) watched; printing notifications until interrupted\n";
        waitForStop();
    }
    for (const std::string& path : paths) {
        send(path, true);
    }
    session.WaitForKernelKeys(keys, false);
    session.Stop();  // the audit task removes whatever is left of ours
    return installed ? 0 : 1;
}

}  // namespace Agent
