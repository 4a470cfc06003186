#include "EventJson.h"

#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>

#include "FileAuditWatch.h"

#include "sdk/JsonWriter.h"

#include <map>
#include <sstream>

namespace Agent {

namespace {

using Poco::JSON::Array;
using Poco::JSON::Object;

Object::Ptr NewObject()
{
    return new Object(Poco::JSON_PRESERVE_KEY_ORDER);
}

// A socket address that was never set is one NUL character; show it as empty.
std::string Printable(const std::string& saddr)
{
    return saddr == std::string(1, '\0') ? std::string() : saddr;
}

}  // namespace

std::string DecodedEventToJson(const Engine::AuditEvent& event, const std::string& tag)
{
    Object::Ptr root = NewObject();
    if (!tag.empty()) {
        root->set("tag", tag);
    }
    root->set("time_ms", static_cast<Poco::UInt64>(event.parsedEvent.header[0]));
    root->set("serial", static_cast<Poco::UInt64>(event.parsedEvent.header[1]));
    root->set("arch", event.arch);
    root->set("syscall", event.syscall);
    root->set("items", event.items);
    root->set("pid", event.pid);
    root->set("ppid", event.ppid);
    root->set("success", event.success);
    root->set("exit", event.exit);
    root->set("a0", event.a0);
    root->set("a1", event.a1);
    root->set("a2", event.a2);
    root->set("a3", event.a3);
    root->set("exe", event.exe);
    root->set("comm", event.comm);
    root->set("key", event.key);
    root->set("cwd", event.cwd);
    root->set("isExecve", event.isExecve);
    Object::Ptr execve = NewObject();
    for (const auto& [name, value] : event.execveFields) {
        execve->set(std::string(name), std::string(value));
    }
    root->set("execve", execve);
    root->set("family", static_cast<int>(event.family));
    root->set("port", static_cast<int>(event.port));
    root->set("saddr", Printable(event.saddr));
    Array::Ptr paths = new Array;
    for (const Engine::AuditLogPath& path : event.paths) {
        Object::Ptr item = NewObject();
        item->set("item", path.item);
        item->set("name", path.name);
        item->set("path", path.path);
        item->set("hostPath", path.hostPath);
        item->set("inode", path.inode);
        item->set("mode", path.mode);
        item->set("dev", path.dev);
        item->set("ouid", path.ouid);
        item->set("ogid", path.ogid);
        item->set("rdev", path.rdev);
        item->set("nametype", path.nametype);
        paths->add(item);
    }
    root->set("paths", paths);
    root->set("read", event.read);
    root->set("write", event.write);
    root->set("execute", event.execute);
    root->set("attributeChange", event.attributeChange);
    Array::Ptr lines = new Array;
    for (const std::string& line : event.lines) {
        lines->add(line);
    }
    root->set("lines", lines);
    std::ostringstream json;
    root->stringify(json);
    return json.str();
}

std::string NotificationKindName(int kind)
{
    switch (kind) {
    case Engine::kNotifyModify: return "modify";
    case Engine::kNotifyAttrib: return "attrib";
    case Engine::kNotifyMovedFrom: return "moved_from";
    case Engine::kNotifyMovedTo: return "moved_to";
    case Engine::kNotifyMove: return "move";
    case Engine::kNotifyCreate: return "create";
    case Engine::kNotifyDelete: return "delete";
    default: return std::to_string(kind);
    }
}

std::string NotificationToJson(const Engine::AuditEventResult& result, const std::string& tag)
{
    std::string line;
    SDK::JsonWriter json(line);
    json.BeginObject();
    json.Field("tag", tag);
    json.Field("path", result.path);
    json.Field("event", result.event);
    json.Field("kind", NotificationKindName(result.event));
    json.Field("isDir", result.isDir);
    json.Field("destPath", result.destPath);
    json.Key("extra");
    json.BeginObject();
    for (const auto& [name, value] : std::map<std::string, std::string>(result.extra.begin(), result.extra.end())) {
        json.Field(name, value);
    }
    json.EndObject();
    json.EndObject();
    return line;
}

}  // namespace Agent
