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

}  // namespace SDK
