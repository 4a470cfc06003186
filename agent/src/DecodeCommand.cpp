#include "DecodeCommand.h"

#include "EventLines.h"

#include "AuditMessages.h"
#include "OfflineAudit.h"

#include "CommandInput.h"

#include <fstream>
#include <iostream>

namespace Agent {

namespace {

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
    Engine::OfflineDecoder decoder(&printer);
    for (std::string line; std::getline(*in, line);) {
        decoder.Line(line);
        printer.BulkConsumeMsg(4096);  // each line delivers at most one event
    }
    decoder.End();
    printer.BulkConsumeMsg(4096);
    return 0;
}

}  // namespace Agent
