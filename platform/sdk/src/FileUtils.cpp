#include "sdk/FileUtils.h"
#include "sdk/DirUtils.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace SDK {

bool FileUtils::IsFile(const std::string& path)
{
    struct stat st {};
    return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

int FileUtils::ReadFile(const std::string& path, std::string& content, size_t maxBytes)
{
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return -1;
    }
    content.clear();
    char buffer[8192];
    while (content.size() < maxBytes) {
        const size_t want = std::min(sizeof(buffer), maxBytes - content.size());
        const ssize_t got = read(fd, buffer, want);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            const int saved = errno;
            close(fd);
            errno = saved;
            return got < 0 ? -1 : 0;
        }
        content.append(buffer, static_cast<size_t>(got));
    }
    close(fd);
    return 0;
}

bool DirUtils::IsDir(const std::string& path)
{
    struct stat st {};
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

int DirUtils::CreateDirs(const std::string& path, unsigned int mode)
{
    if (path.empty()) {
        return -1;
    }
    std::string partial;
    partial.reserve(path.size());
    for (size_t i = 0; i <= path.size(); ++i) {
        if (i == path.size() || (path[i] == '/' && i > 0)) {
            partial.assign(path, 0, i);
            if (mkdir(partial.c_str(), mode) != 0 && errno != EEXIST) {
                return -1;
            }
        }
    }
    return IsDir(path) ? 0 : -1;
}

int DirUtils::ListEntries(const std::string& path, std::vector<std::string>& names)
{
    DIR* dir = opendir(path.c_str());
    if (dir == nullptr) {
        return -1;
    }
    names.clear();
    while (const dirent* entry = readdir(dir)) {
        if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0) {
            names.emplace_back(entry->d_name);
        }
    }
    closedir(dir);
    return 0;
}

}  // namespace SDK
