#pragma once

#include <string>

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
};

}  // namespace SDK
