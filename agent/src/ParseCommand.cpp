#include "ParseCommand.h"

#include "CommandInput.h"

#include "sdk/JsonWriter.h"

#include <algorithm>

#include <fstream>
#include <iostream>
#include <string_view>
#include <vector>

namespace Agent {

std::string EventToJson(const SDK::AuditEvent& event)
{
    std::string line;
    SDK::JsonWriter json(line);
    json.BeginObject();
    json.Field("time_ms", event.header[0]);
    json.Field("serial", event.header[1]);
    json.Key("records");
    json.BeginArray();
    for (const SDK::AuditRecord& record : event.records) {
        json.BeginObject();
        json.Field("type", record.type);
        json.Key("fields");
        json.BeginObject();
        std::vector<std::string_view> written;
        std::vector<std::pair<std::string_view, std::string_view>> repeated;
        for (const auto& [name, value] : record.fields) {
            // An object holds a name once, with its first value, as lookups see it; the later
            // values of a repeated name follow as [name, value] pairs.
            if (std::find(written.begin(), written.end(), name) == written.end()) {
                written.push_back(name);
                json.Field(name, value);
            } else {
                repeated.emplace_back(name, value);
            }
        }
        json.EndObject();
        if (!repeated.empty()) {
            json.Key("repeated");
            json.BeginArray();
            for (const auto& [name, value] : repeated) {
                json.BeginArray();
                json.String(name);
                json.String(value);
                json.EndArray();
            }
            json.EndArray();
        }
        json.EndObject();
    }
    json.EndArray();
    json.EndObject();
    return line;
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
