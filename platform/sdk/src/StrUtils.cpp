#include "sdk/StrUtils.h"

namespace SDK {

std::vector<std::string> StrUtils::Split(std::string_view text, std::string_view sep)
{
    std::vector<std::string> pieces;
    if (sep.empty()) {
        pieces.emplace_back(text);
        return pieces;
    }
    size_t start = 0;
    for (;;) {
        const size_t hit = text.find(sep, start);
        if (hit == std::string_view::npos) {
            pieces.emplace_back(text.substr(start));
            return pieces;
        }
        pieces.emplace_back(text.substr(start, hit - start));
        start = hit + sep.size();
    }
}

std::string StrUtils::Trim(std::string_view text)
{
    constexpr std::string_view blanks = " \t\r\n\v\f";
    const size_t first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos) {
        return {};
    }
    const size_t last = text.find_last_not_of(blanks);
    return std::string(text.substr(first, last - first + 1));
}

bool StrUtils::StartWith(std::string_view text, std::string_view prefix)
{
    return text.size() >= prefix.size() && text.compare(0, prefix.size(), prefix) == 0;
}

}  // namespace SDK
