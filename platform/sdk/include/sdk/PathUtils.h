#pragma once

#include <string>
#include <string_view>

namespace SDK {

/// Paths of the agent's installation.
class PathUtils {
public:
    /// Fills path with the installation directory, always ending in "/": the value of the
    /// environment variable HOSTWARDEN_HOME when set, otherwise the directory above the
    /// running program's bin/. Returns 0 on success, -1 when neither can be determined.
    static int GetInstallationPath(std::string& path);

    /// The last component of path ("/a/b/c.cpp" gives "c.cpp"; "c" gives "c").
    static std::string GetFileNameFromPath(const std::string& path);

    /// True when path lies below dir: it begins with dir, and dir ends in "/" or path goes on
    /// with "/" right after it. A path equal to dir is not below it, unless dir ends in "/"; an
    /// empty dir has below it every path that begins with "/".
    static bool IsBelow(std::string_view dir, std::string_view path);
};

}  // namespace SDK
