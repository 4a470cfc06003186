#include "sdk/AuditRuleText.h"

namespace SDK {

std::string AuditRuleTextProblem(const std::string& text)
{
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7f) {
            return "a control character";
        }
        if (c == '"' || c == '\'') {
            return "a quote";
        }
    }
    if (text.find("***") != std::string::npos) {
        return "\"***\", which separates the parts of a rule key";
    }
    return {};
}

std::set<std::string> AuditRuleListingKeys(const std::string& listing)
{
    std::set<std::string> keys;
    for (const std::string marker : {" -k ", " -F key="}) {
        for (size_t at = listing.find(marker); at != std::string::npos; at = listing.find(marker, at + 1)) {
            const size_t start = at + marker.size();
            keys.insert(listing.substr(start, listing.find_first_of(" \n", start) - start));
        }
    }
    return keys;
}

}  // namespace SDK
