#pragma once

#include <string>
#include <vector>

namespace SDK {

/// File queries that never throw.
class FileUtils {
public:
    /// True when path names a regular file (symbolic links followed).
    static bool IsFile(const std::string& path);

    /// Reads at most maxBytes of a file into content. Returns 0 on success, -1 on failure.
    static int ReadFile(const std::string& path, std::string& content, size_t maxBytes = 1U << 20);
};

}  // namespace SDK
