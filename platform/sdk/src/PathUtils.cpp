#include "sdk/PathUtils.h"
#include "sdk/ProcessUtils.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <string_view>

namespace SDK {

namespace {
int ReadLink(const std::string& link, std::string& target)
{
    char buffer[4096];
    const ssize_t len = readlink(link.c_str(), buffer, sizeof(buffer));
    if (len < 0) {
        return -1;
    }
    if (static_cast<size_t>(len) >= sizeof(buffer)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    target.assign(buffer, static_cast<size_t>(len));
    return 0;
}
}  // namespace

int PathUtils::GetInstallationPath(std::string& path)
{
    const char* home = std::getenv("HOSTWARDEN_HOME");
    if (home != nullptr && *home != '\0') {
        path = home;
        if (path.back() != '/') {
            path.push_back('/');
        }
        return 0;
    }
    std::string exe;
    if (ReadLink("/proc/self/exe", exe) != 0) {
        return -1;
    }
    // <prefix>/bin/<program>: drop the program, then bin.
    const size_t programSlash = exe.rfind('/');
    if (programSlash == std::string::npos || programSlash == 0) {
        return -1;
    }
    const size_t binSlash = exe.rfind('/', programSlash - 1);
    if (binSlash == std::string::npos) {
        return -1;
    }
    path.assign(exe, 0, binSlash + 1);
    return 0;
}

std::string PathUtils::GetFileNameFromPath(const std::string& path)
{
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

int ProcessUtils::GetProcessExePath(unsigned int pid, std::string& exePath)
{
    return ReadLink("/proc/" + std::to_string(pid) + "/exe", exePath);
}

bool PathUtils::IsBelow(std::string_view dir, std::string_view path)
{
    if (path.size() < dir.size() || path.compare(0, dir.size(), dir) != 0) {
        return false;
    }
    return (!dir.empty() && dir.back() == '/') || (path.size() > dir.size() && path[dir.size()] == '/');
}

}  // namespace SDK
