#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace SDK {

/// Small text helpers shared by the agent and its modules.
class StrUtils {
public:
    /// Splits text at every occurrence of sep. Empty pieces are kept ("a,,b" gives "a", "", "b"),
    /// so callers see exactly what stood between separators; an empty text gives one empty piece.
    /// An empty separator yields the whole text as the only piece.
    static std::vector<std::string> Split(std::string_view text, std::string_view sep);

    /// Returns text without leading and trailing white space (space, tab, CR, LF, VT, FF).
    static std::string Trim(std::string_view text);

    /// True when text begins with prefix.
    static bool StartWith(std::string_view text, std::string_view prefix);
};

}  // namespace SDK
