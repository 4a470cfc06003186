#pragma once

#include <string>
#include <vector>

namespace SDK {

/// Directory queries and creation.
class DirUtils {
public:
    /// True when path names a directory (symbolic links followed).
    static bool IsDir(const std::string& path);

    /// Creates path and its missing parents with the given mode. Returns 0 on success, -1 on failure.
    static int CreateDirs(const std::string& path, unsigned int mode = 0755);

    /// Lists the entry names of a directory (without "." and ".."), unsorted.
    /// Returns 0 on success, -1 when the directory cannot be read.
    static int ListEntries(const std::string& path, std::vector<std::string>& names);
};

}  // namespace SDK
