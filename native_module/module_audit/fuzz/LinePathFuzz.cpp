// libFuzzer entry for the audit task's whole line path. Every input is split into lines and handed
// to AuditLog::HandleOneLineLog as the log reader hands them over, then a poll without new data
// ends the last event. A route under every system call of both tables and a path route on "/"
// make every event go all the way: assembly, parsing, decoding (paths resolved on this machine)
// and delivery. Every delivered event must keep the invariants checked below.
#include "AuditLog.h"
#include "AuditLogging.h"
#include "AuditMessages.h"
#include "AuditRules.h"

#include "framework/Task.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

namespace {

class Sink : public Framework::Task, public Engine::AbstructMessage<Engine::AuditEventMessage>::Receiver {
public:
    Sink() : Framework::Task("fuzz_sink_task", "fuzz", Framework::TaskCondition::kLoop, 1 << 16) {}
    int Receive(const Engine::AuditEventMessage& msg) override
    {
        const Engine::AuditEvent* event = msg.event.get();
        // A delivered event was decoded from its own SYSCALL record and has no more paths than
        // PATH records.
        if (event == nullptr || event->parsedEvent.FindRecord("SYSCALL") == nullptr ||
            event->paths.size() > event->parsedEvent.FindRecords("PATH").size() || event->lines.empty()) {
            std::abort();
        }
        return 0;
    }
};

struct Path {
    Path() : owner("audit_task", "fuzz", Framework::TaskCondition::kLoop, 1), log(&owner, &rules)
    {
        Engine::Audit::GetLoggerPtr()->setLevel(0);  // none: the warnings of bad lines would slow it
        for (int32_t number = 0; number < 1024; ++number) {
            Engine::auditSyscallDest dest;
            dest.task = &sink;
            dest.tag = "fuzz";
            log.syscallRoutes64.emplace(number, dest);
            log.syscallRoutes32.emplace(number, dest);
        }
        Engine::auditFileSystemDest everything;
        everything.task = &sink;
        everything.tag = "fuzz";
        log.pathRoutes.emplace("/", everything);
    }
    Framework::Task owner;
    Sink sink;
    Engine::AuditRules rules;  // holds no key: configuration changes find nothing to run
    Engine::AuditLog log;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static Path path;
    const std::string input(reinterpret_cast<const char*>(data), size);
    size_t start = 0;
    while (start <= input.size()) {
        const size_t end = input.find('\n', start);
        path.log.HandleOneLineLog(input.substr(start, end == std::string::npos ? std::string::npos : end - start));
        if (end == std::string::npos) {
            break;
        }
        start = end + 1;
        path.sink.BulkConsumeMsg(1 << 16);
    }
    path.log.HandleNoEofScenarios();
    path.sink.BulkConsumeMsg(1 << 16);
    return 0;
}
