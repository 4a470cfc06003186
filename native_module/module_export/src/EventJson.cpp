#include "EventJson.h"

#include "FileNotify.h"
#include "FileIntegrity.h"

#include "sdk/JsonWriter.h"

#include <map>

namespace Export {

namespace {

// A socket address that was never set is one NUL character; it is written as empty.
std::string_view Printable(const std::string& saddr)
{
    return saddr == std::string(1, '\0') ? std::string_view() : std::string_view(saddr);
}

}  // namespace

void AppendDecodedEvent(std::string& line, const Engine::AuditEvent& event, const std::string& tag)
{
    SDK::JsonWriter json(line);
    json.BeginObject();
    if (!tag.empty()) {
        json.Field("tag", tag);
    }
    json.Field("time_ms", event.parsedEvent.header[0]);
    json.Field("serial", event.parsedEvent.header[1]);
    json.Field("arch", event.arch);
    json.Field("syscall", event.syscall);
    json.Field("items", event.items);
    json.Field("pid", event.pid);
    json.Field("ppid", event.ppid);
    json.Field("success", event.success);
    json.Field("exit", event.exit);
    json.Field("a0", event.a0);
    json.Field("a1", event.a1);
    json.Field("a2", event.a2);
    json.Field("a3", event.a3);
    json.Field("exe", event.exe);
    json.Field("comm", event.comm);
    json.Field("key", event.key);
    json.Field("cwd", event.cwd);
    json.Field("isExecve", event.isExecve);
    json.Key("execve");
    json.BeginObject();
    for (const auto& [name, value] : event.execveFields) {
        json.Field(name, value);
    }
    json.EndObject();
    json.Field("family", event.family);
    json.Field("port", event.port);
    json.Field("saddr", Printable(event.saddr));
    json.Key("paths");
    json.BeginArray();
    for (const Engine::AuditLogPath& path : event.paths) {
        json.BeginObject();
        json.Field("item", path.item);
        json.Field("name", path.name);
        json.Field("path", path.path);
        json.Field("hostPath", path.hostPath);
        json.Field("inode", path.inode);
        json.Field("mode", path.mode);
        json.Field("dev", path.dev);
        json.Field("ouid", path.ouid);
        json.Field("ogid", path.ogid);
        json.Field("rdev", path.rdev);
        json.Field("nametype", path.nametype);
        json.EndObject();
    }
    json.EndArray();
    json.Field("read", event.read);
    json.Field("write", event.write);
    json.Field("execute", event.execute);
    json.Field("attributeChange", event.attributeChange);
    json.Key("lines");
    json.BeginArray();
    for (const std::string& raw : event.lines) {
        json.String(raw);
    }
    json.EndArray();
    json.EndObject();
}

std::string DecodedEventToJson(const Engine::AuditEvent& event, const std::string& tag)
{
    std::string line;
    AppendDecodedEvent(line, event, tag);
    return line;
}

std::string NotificationKindName(int kind)
{
    const char* name = kind < 0 ? nullptr : Engine::FileNotifyKindName(static_cast<uint32_t>(kind));
    return name != nullptr ? name : std::to_string(kind);
}

void AppendNotification(std::string& line, const Engine::AuditEventResult& result, const std::string& tag,
                        const FileChange* change)
{
    SDK::JsonWriter json(line);
    json.BeginObject();
    json.Field("tag", tag);
    json.Field("path", result.path);
    json.Field("event", result.event);
    json.Field("kind", NotificationKindName(result.event));
    json.Field("isDir", result.isDir);
    json.Field("destPath", result.destPath);
    if (change != nullptr) {
        // The baseline's view, in the module's own terms: hashes before and after, what changed.
        json.Key("integrity");
        json.BeginObject();
        if (change->reason != nullptr) {
            json.Field("reason", change->reason);
        }
        const auto hash = [&](const char* name, const std::optional<Integrity::FileFacts>& facts) {
            if (facts && facts->hash == Integrity::HashState::kDone) {
                json.Field(name, Integrity::Hex(facts->sha256));
            }
        };
        hash("sha256", change->after);
        hash("before_sha256", change->before);
        json.Key("changes");
        json.BeginArray();
        for (const char* name : Integrity::ChangeNames(change->changes)) {
            json.String(name);
        }
        json.EndArray();
        json.EndObject();
    }
    json.Key("extra");
    json.BeginObject();
    for (const auto& [name, value] : std::map<std::string, std::string>(result.extra.begin(), result.extra.end())) {
        json.Field(name, value);
    }
    json.EndObject();
    json.EndObject();
}

void AppendNotice(std::string& line, const AgentNotice& notice, uint64_t timeMs)
{
    SDK::JsonWriter json(line);
    json.BeginObject();
    if (!notice.tag.empty()) {
        json.Field("tag", notice.tag);
    }
    json.Field("time_ms", timeMs);
    AppendNoticeFields(json, notice);
    json.EndObject();
}

}  // namespace Export
