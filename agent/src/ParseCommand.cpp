#include "ParseCommand.h"

#include "CommandInput.h"

#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>

#include <fstream>
#include <iostream>
#include <sstream>

namespace Agent {

std::string EventToJson(const SDK::AuditEvent& event)
{
    Poco::JSON::Object root(Poco::JSON_PRESERVE_KEY_ORDER);
    root.set("time_ms", static_cast<Poco::UInt64>(event.header[0]));
    root.set("serial", static_cast<Poco::UInt64>(event.header[1]));
    Poco::JSON::Array::Ptr records = new Poco::JSON::Array;
    for (const SDK::AuditRecord& record : event.records) {
        Poco::JSON::Object::Ptr fields = new Poco::JSON::Object(Poco::JSON_PRESERVE_KEY_ORDER);
        for (const auto& [name, value] : record.fields) {
            if (!fields->has(std::string(name))) {  // a repeated name keeps its first value, as lookups do
                fields->set(std::string(name), std::string(value));
            }
        }
        Poco::JSON::Object::Ptr item = new Poco::JSON::Object(Poco::JSON_PRESERVE_KEY_ORDER);
        item->set("type", record.type);
        item->set("fields", fields);
        records->add(item);
    }
    root.set("records", records);
    std::ostringstream json;
    root.stringify(json);
    return json.str();
}

int RunParseCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err)
{
    std::ifstream file;
    std::istream* in = OpenInput(args, file, "parse", err);
    if (in == nullptr) {
        return 2;
    }
    SDK::AuditParser parser;
    size_t lineNumber = 0;
    size_t bad = 0;
    for (std::string line; std::getline(*in, line);) {
        ++lineNumber;
        if (!parser.FeedLine(line)) {
            ++bad;
            err << "line " << lineNumber << ": not an audit record, skipped\n";
        }
        // Print finished events as we go, so memory stays flat on long logs.
        for (const SDK::AuditEvent& event : parser.TakeEvents()) {
            out << EventToJson(event) << "\n";
        }
    }
    parser.Flush();
    for (const SDK::AuditEvent& event : parser.TakeEvents()) {
        out << EventToJson(event) << "\n";
    }
    return bad == 0 ? 0 : 1;
}

}  // namespace Agent
