#include "DecodeCommand.h"

#include "EventLines.h"

#include "AuditLog.h"
#include "AuditMessages.h"

#include "CommandInput.h"

#include <fstream>
#include <iostream>

namespace Agent {

namespace {

// Numbers above every system call the kernel's tables hold on either architecture.
constexpr int32_t kSyscallNumbers = 1024;

// Receives the delivered events and prints them.
class PrintingTask : public Framework::Task, public Engine::AbstructMessage<Engine::AuditEventMessage>::Receiver {
public:
    PrintingTask(std::ostream& out, const Export::LineOptions& options)
        : Framework::Task("decode_print_task", "decode", Framework::TaskCondition::kOnEvent, 4096), out_(out),
          lines_(options) {}
    int Receive(const Engine::AuditEventMessage& msg) override
    {
        if (msg.event) {
            line_.clear();
            lines_.AppendEvent(line_, *msg.event, "");
            line_ += '\n';
            out_ << line_;
        }
        return 0;
    }

private:
    std::ostream& out_;
    Export::EventLines lines_;
    std::string line_;
};

// A route without filters under every system-call number of both architectures.
void RouteEverything(Engine::AuditLog& log, Framework::Task* receiver)
{
    for (int32_t number = 0; number < kSyscallNumbers; ++number) {
        Engine::auditSyscallDest dest;
        dest.task = receiver;
        dest.tag = "decode";
        log.syscallRoutes64.emplace(number, dest);
        log.syscallRoutes32.emplace(number, dest);
    }
}

}  // namespace

int RunDecodeCommand(const std::vector<std::string>& args, const Export::LineOptions& lines, std::ostream& out,
                     std::ostream& err)
{
    std::ifstream file;
    std::istream* in = OpenInput(args, file, "decode", err);
    if (in == nullptr) {
        return 2;
    }
    PrintingTask printer(out, lines);
    Framework::Task sender("decode_task", "decode", Framework::TaskCondition::kOnEvent, 1);
    Engine::AuditLog log(&sender, nullptr);
    RouteEverything(log, &printer);
    for (std::string line; std::getline(*in, line);) {
        log.HandleOneLineLog(line);
        printer.BulkConsumeMsg(4096);  // each line delivers at most one event
    }
    log.HandleNoEofScenarios();
    printer.BulkConsumeMsg(4096);
    return 0;
}

}  // namespace Agent
