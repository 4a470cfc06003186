// libFuzzer entry for SDK::AuditParser: every input is split into lines and fed to one parser;
// every field handed back must lie inside the record's own buffer and be consistent.
#include "sdk/AuditParser.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    SDK::AuditParser parser;
    const std::string input(reinterpret_cast<const char*>(data), size);
    size_t start = 0;
    while (start <= input.size()) {
        const size_t end = input.find('\n', start);
        const std::string line = input.substr(start, end == std::string::npos ? std::string::npos : end - start);
        parser.FeedLine(line);
        if (end == std::string::npos) {
            break;
        }
        start = end + 1;
    }
    parser.Flush();
    for (const SDK::AuditEvent& event : parser.GetEvents()) {
        for (const SDK::AuditRecord& record : event.records) {
            if (record.type.empty()) {
                std::abort();
            }
            for (const auto& [name, value] : record.fields) {
                if (name.empty() || record.fields.View(name).data() == nullptr) {
                    std::abort();
                }
                (void)value.size();
            }
        }
    }
    return 0;
}
