// The JSON line of the main job (one per exported event), written three ways for the same
// decoded events of real captures: the agent's streaming writer into one buffer per event (what
// `run` and `decode` use), RapidJSON's Writer into one buffer, and Poco's JSON objects with their
// stringifier. The agent's writer also keeps every line valid UTF-8 (hex-marking values that are
// not); the others are measured without that work.
#include "BenchData.h"
#include "BenchRoutes.h"

#include "EventJson.h"

#include "AuditLog.h"
#include "AuditLogging.h"
#include "AuditMessages.h"

#include <Poco/AutoPtr.h>
#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>
#include <Poco/NullChannel.h>
#include <benchmark/benchmark.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <sstream>

namespace {

// Keeps every event the module delivers.
class Keeper : public Framework::Task, public Engine::AbstructMessage<Engine::AuditEventMessage>::Receiver {
public:
    Keeper() : Framework::Task("bench_sub_task", "bench", Framework::TaskCondition::kLoop, 1 << 20) {}
    int Receive(const Engine::AuditEventMessage& msg) override
    {
        events.push_back(msg.event);
        return 0;
    }
    std::vector<std::shared_ptr<Engine::AuditEvent>> events;
};

const std::vector<std::shared_ptr<Engine::AuditEvent>>& Events()
{
    static Keeper keeper;
    static const bool decoded = [] {
        Engine::Audit::GetLoggerPtr()->setChannel(Poco::AutoPtr<Poco::Channel>(new Poco::NullChannel));
        Framework::Task owner("audit_task", "bench", Framework::TaskCondition::kLoop, 1);
        Engine::AuditLog log(&owner, nullptr);
        Bench::RouteEverySystemCall(log, &keeper);
        for (const std::string& line : Bench::ReplicatedCaptureLines()) {
            log.HandleOneLineLog(line);
        }
        log.HandleNoEofScenarios();
        keeper.BulkConsumeMsg(1 << 20);
        return true;
    }();
    (void)decoded;
    return keeper.events;
}

void BM_AgentJsonWriter(benchmark::State& state)
{
    size_t bytes = 0;
    std::string line;
    for (auto _ : state) {
        for (const auto& event : Events()) {
            line.clear();
            Export::AppendDecodedEvent(line, *event, "tag");
            bytes += line.size();
        }
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * Events().size()));
    state.counters["bytes_per_event"] = static_cast<double>(bytes) / static_cast<double>(state.iterations() * Events().size());
}

void BM_RapidJsonWriter(benchmark::State& state)
{
    rapidjson::StringBuffer buffer;
    for (auto _ : state) {
        for (const auto& event : Events()) {
            const Engine::AuditEvent& e = *event;
            buffer.Clear();
            rapidjson::Writer<rapidjson::StringBuffer> json(buffer);
            json.StartObject();
            const auto field = [&](const char* name, const std::string& value) {
                json.Key(name);
                json.String(value.data(), static_cast<rapidjson::SizeType>(value.size()));
            };
            field("tag", "tag");
            json.Key("time_ms");
            json.Uint64(e.parsedEvent.header[0]);
            json.Key("serial");
            json.Uint64(e.parsedEvent.header[1]);
            field("arch", e.arch);
            json.Key("syscall");
            json.Int(e.syscall);
            json.Key("items");
            json.Int(e.items);
            for (const auto& [name, value] : {std::pair<const char*, const std::string*>{"pid", &e.pid}, {"ppid", &e.ppid},
                                              {"success", &e.success}, {"exit", &e.exit}, {"a0", &e.a0}, {"a1", &e.a1},
                                              {"a2", &e.a2}, {"a3", &e.a3}, {"exe", &e.exe}, {"comm", &e.comm},
                                              {"key", &e.key}, {"cwd", &e.cwd}}) {
                field(name, *value);
            }
            json.Key("isExecve");
            json.Bool(e.isExecve);
            json.Key("execve");
            json.StartObject();
            for (const auto& [name, value] : e.execveFields) {
                json.Key(name.data(), static_cast<rapidjson::SizeType>(name.size()));
                json.String(value.data(), static_cast<rapidjson::SizeType>(value.size()));
            }
            json.EndObject();
            json.Key("family");
            json.Uint(e.family);
            json.Key("port");
            json.Uint(e.port);
            field("saddr", e.saddr);
            json.Key("paths");
            json.StartArray();
            for (const Engine::AuditLogPath& p : e.paths) {
                json.StartObject();
                json.Key("item");
                json.Int(p.item);
                for (const auto& [name, value] : {std::pair<const char*, const std::string*>{"name", &p.name}, {"path", &p.path},
                                                  {"hostPath", &p.hostPath}, {"inode", &p.inode}, {"mode", &p.mode},
                                                  {"dev", &p.dev}, {"ouid", &p.ouid}, {"ogid", &p.ogid}, {"rdev", &p.rdev},
                                                  {"nametype", &p.nametype}}) {
                    field(name, *value);
                }
                json.EndObject();
            }
            json.EndArray();
            for (const auto& [name, value] : {std::pair<const char*, bool>{"read", e.read}, {"write", e.write},
                                              {"execute", e.execute}, {"attributeChange", e.attributeChange}}) {
                json.Key(name);
                json.Bool(value);
            }
            json.Key("lines");
            json.StartArray();
            for (const std::string& raw : e.lines) {
                json.String(raw.data(), static_cast<rapidjson::SizeType>(raw.size()));
            }
            json.EndArray();
            json.EndObject();
            benchmark::DoNotOptimize(buffer.GetSize());
        }
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * Events().size()));
}

void BM_PocoJsonObjects(benchmark::State& state)
{
    for (auto _ : state) {
        for (const auto& event : Events()) {
            const Engine::AuditEvent& e = *event;
            Poco::JSON::Object json(Poco::JSON_PRESERVE_KEY_ORDER);
            json.set("tag", "tag");
            json.set("time_ms", e.parsedEvent.header[0]);
            json.set("serial", e.parsedEvent.header[1]);
            for (const auto& [name, value] : {std::pair<const char*, const std::string*>{"arch", &e.arch}, {"pid", &e.pid},
                                              {"ppid", &e.ppid}, {"success", &e.success}, {"exit", &e.exit}, {"a0", &e.a0},
                                              {"a1", &e.a1}, {"a2", &e.a2}, {"a3", &e.a3}, {"exe", &e.exe}, {"comm", &e.comm},
                                              {"key", &e.key}, {"cwd", &e.cwd}, {"saddr", &e.saddr}}) {
                json.set(name, *value);
            }
            json.set("syscall", e.syscall);
            json.set("items", e.items);
            json.set("isExecve", e.isExecve);
            Poco::JSON::Object::Ptr execve = new Poco::JSON::Object(Poco::JSON_PRESERVE_KEY_ORDER);
            for (const auto& [name, value] : e.execveFields) {
                execve->set(std::string(name), std::string(value));
            }
            json.set("execve", execve);
            json.set("family", e.family);
            json.set("port", e.port);
            Poco::JSON::Array::Ptr paths = new Poco::JSON::Array;
            for (const Engine::AuditLogPath& p : e.paths) {
                Poco::JSON::Object::Ptr path = new Poco::JSON::Object(Poco::JSON_PRESERVE_KEY_ORDER);
                path->set("item", p.item);
                for (const auto& [name, value] : {std::pair<const char*, const std::string*>{"name", &p.name}, {"path", &p.path},
                                                  {"hostPath", &p.hostPath}, {"inode", &p.inode}, {"mode", &p.mode},
                                                  {"dev", &p.dev}, {"ouid", &p.ouid}, {"ogid", &p.ogid}, {"rdev", &p.rdev},
                                                  {"nametype", &p.nametype}}) {
                    path->set(name, *value);
                }
                paths->add(path);
            }
            json.set("paths", paths);
            json.set("read", e.read);
            json.set("write", e.write);
            json.set("execute", e.execute);
            json.set("attributeChange", e.attributeChange);
            Poco::JSON::Array::Ptr lines = new Poco::JSON::Array;
            for (const std::string& raw : e.lines) {
                lines->add(raw);
            }
            json.set("lines", lines);
            std::ostringstream out;
            json.stringify(out);
            benchmark::DoNotOptimize(out.tellp());
        }
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * Events().size()));
}

}  // namespace

BENCHMARK(BM_AgentJsonWriter)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RapidJsonWriter)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PocoJsonObjects)->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
