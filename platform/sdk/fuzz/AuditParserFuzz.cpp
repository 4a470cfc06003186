// libFuzzer entry for SDK::AuditParser: every input is split into lines and fed to one parser;
// every field handed back must lie inside the record's own buffer and be consistent.
#include "sdk/AuditParser.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    SDK::AuditParser parser;
    std::istringstream input(std::string(reinterpret_cast<const char*>(data), size));
    for (std::string line; std::getline(input, line);) {
        parser.FeedLine(line);
    }
    parser.Flush();
    for (const SDK::AuditEvent& event : parser.GetEvents()) {
        for (const SDK::AuditRecord& record : event.records) {
            if (record.type.empty()) {
                std::abort();
            }
            for (const auto& field : record.fields) {
                if (field.first.empty() || record.fields.View(field.first).data() == nullptr) {
                    std::abort();
                }
            }
        }
    }
    return 0;
}
