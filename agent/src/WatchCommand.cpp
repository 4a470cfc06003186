#include "WatchCommand.h"

#include "EventJson.h"
#include "LiveSession.h"

#include "AuditConstants.h"
#include "AuditMessages.h"
#include "FileAuditWatch.h"

#include "sdk/StrUtils.h"

#include <climits>
#include <cstdlib>
#include <mutex>
#include <ostream>

namespace Agent {

namespace {

const std::string kWatchTaskName = "watch_cli_task";

constexpr uint32_t kKnownKinds = Engine::kNotifyAccess | Engine::kNotifyModify | Engine::kNotifyAttrib |
                                 Engine::kNotifyMove | Engine::kNotifyCreate | Engine::kNotifyDelete;

// The kernel rule the file-watch task installs for path (its own key layout).
std::string WatchKey(const std::string& path)
{
    return Engine::kFileWatchTaskName + "***submodule***" + path + "***wapidppid";
}

// A blank or a quote would split the rule text the module installs ("PATH -p wa").
bool UsablePath(const std::string& path)
{
    return path.find_first_of(" \t\n'\"") == std::string::npos;
}

}  // namespace

bool ParseEventMask(const std::string& list, uint32_t& mask, std::string& bad)
{
    static const std::pair<const char*, uint32_t> kNames[] = {
        {"create", Engine::kNotifyCreate},        {"delete", Engine::kNotifyDelete},
        {"modify", Engine::kNotifyModify},        {"attrib", Engine::kNotifyAttrib},
        {"moved_from", Engine::kNotifyMovedFrom}, {"moved_to", Engine::kNotifyMovedTo}};
    mask = 0;
    if (list.empty()) {
        for (const auto& [name, bit] : kNames) {
            mask |= bit;
        }
        return true;
    }
    for (const std::string& piece : SDK::StrUtils::Split(list, ",")) {
        const std::string word = SDK::StrUtils::Trim(piece);
        uint32_t bits = 0;
        for (const auto& [name, bit] : kNames) {
            bits = word == name ? bit : bits;
        }
        char* end = nullptr;
        const unsigned long number = bits == 0 && !word.empty() ? std::strtoul(word.c_str(), &end, 10) : 0;
        if (bits == 0 && end != nullptr && *end == '\0' && number != 0 && (number & ~kKnownKinds) == 0) {
            bits = static_cast<uint32_t>(number);
        }
        if (bits == 0) {
            bad = word;
            return false;
        }
        mask |= bits;
    }
    return true;
}

int RunWatchCommand(const WatchRequest& request, Framework::Engine& engine, const std::function<void()>& waitForStop,
                    std::ostream& out, std::ostream& err)
{
    if (request.paths.empty()) {
        err << "hostwarden watch: give at least one PATH\n";
        return 2;
    }
    uint32_t mask = 0;
    std::string bad;
    if (!ParseEventMask(request.events, mask, bad)) {
        err << "hostwarden watch: unknown event '" << bad
            << "' (use create, delete, modify, attrib, moved_from, moved_to or their numbers)\n";
        return 2;
    }
    std::vector<std::string> paths;
    for (const std::string& given : request.paths) {
        char resolved[PATH_MAX];
        if (realpath(given.c_str(), resolved) == nullptr) {
            err << "hostwarden watch: no such file or directory: '" << given << "'\n";
            return 2;
        }
        if (!UsablePath(resolved)) {
            err << "hostwarden watch: cannot watch '" << resolved
                << "': the module's rule syntax separates words by blanks, so paths with blanks or quotes "
                   "cannot be watched\n";
            return 2;
        }
        paths.emplace_back(resolved);
    }

    std::mutex outMutex;
    LiveSession session(engine, err);
    const bool started = session.Start(kWatchTaskName, [&](const Engine::AuditEventMessage& msg) {
        if (!msg.event) {  // a notification, not an audit event
            const std::string line = NotificationToJson(msg.result, request.tag);
            std::lock_guard<std::mutex> lock(outMutex);
            out << line << std::endl;
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
        session.Send(Engine::kFileWatchTaskName, msg);
    };
    std::vector<std::string> keys;
    for (const std::string& path : paths) {
        send(path, false);
        keys.push_back(WatchKey(path));
    }
    const bool installed = session.WaitForKernelKeys(keys, true);
    if (installed) {
        err << "hostwarden watch: " << paths.size() << " path(s) watched; printing notifications until interrupted\n";
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
