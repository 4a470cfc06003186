#include "IdNames.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <charconv>

namespace Export {

namespace {

bool ReadWhole(int fd, size_t size, std::string& text)
{
    text.resize(size);
    size_t got = 0;
    while (got < size) {
        const ssize_t n = ::read(fd, &text[got], size - got);
        if (n <= 0) {
            break;
        }
        got += static_cast<size_t>(n);
    }
    text.resize(got);
    return true;
}

}  // namespace

int OpenInRoot(const std::string& root, const std::string& relative)
{
    // Non-blocking: a FIFO planted in a container's /etc must not hang the export.
    constexpr int kFlags = O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
    int fd = -1;
    if (root.empty() || root == "/") {
        fd = ::open(("/" + relative).c_str(), kFlags);
    } else {
        const int dir = ::open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
        if (dir < 0) {
            return -1;
        }
        open_how how{};
        how.flags = kFlags;
        how.resolve = RESOLVE_IN_ROOT | RESOLVE_NO_MAGICLINKS;
        fd = static_cast<int>(::syscall(SYS_openat2, dir, relative.c_str(), &how, sizeof(how)));
        ::close(dir);
    }
    struct stat st {};
    if (fd >= 0 && (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode))) {
        ::close(fd);
        fd = -1;
    }
    return fd;
}

IdNames::IdNames(std::chrono::milliseconds recheck) : recheck_(recheck) {}

std::unordered_map<uint32_t, std::string> IdNames::ParseIdFile(std::string_view text)
{
    std::unordered_map<uint32_t, std::string> names;
    while (!text.empty()) {
        const size_t end = text.find('\n');
        const std::string_view line = text.substr(0, end);
        text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
        // NAME:PASSWORD:ID:... in both files.
        const size_t first = line.find(':');
        const size_t second = first == std::string_view::npos ? first : line.find(':', first + 1);
        if (second == std::string_view::npos || first == 0 || line.front() == '#') {
            continue;
        }
        const size_t third = line.find(':', second + 1);
        const std::string_view id = line.substr(second + 1, third == std::string_view::npos ? third : third - second - 1);
        uint32_t value = 0;
        const auto [ptr, ec] = std::from_chars(id.data(), id.data() + id.size(), value);
        if (ec == std::errc() && ptr == id.data() + id.size() && !id.empty()) {
            names.emplace(value, std::string(line.substr(0, first)));
        }
    }
    return names;
}

const IdNames::Table& IdNames::Load(const std::string& root, const char* file)
{
    const std::string key = root + '\0' + file;
    const auto now = std::chrono::steady_clock::now();
    auto it = tables_.find(key);
    if (it != tables_.end() && now - it->second.checked < recheck_) {
        return it->second;
    }
    if (it == tables_.end()) {
        if (tables_.size() >= kMaxRoots * 2) {
            tables_.clear();  // many short-lived containers: start over rather than grow
        }
        it = tables_.emplace(key, Table()).first;
    }
    Table& table = it->second;
    table.checked = now;
    const int fd = OpenInRoot(root, std::string("etc/") + file);
    struct stat st {};
    if (fd < 0 || ::fstat(fd, &st) != 0) {
        if (fd >= 0) {
            ::close(fd);
        }
        table.names.clear();
        table.stamp = Stamp();
        return table;
    }
    const Stamp stamp{st.st_dev, st.st_ino, static_cast<uint64_t>(st.st_size),
                      static_cast<uint64_t>(st.st_mtim.tv_sec) * 1000000000ULL + static_cast<uint64_t>(st.st_mtim.tv_nsec)};
    if (!(stamp == table.stamp)) {
        std::string text;
        if (static_cast<uint64_t>(st.st_size) <= kMaxFileBytes && ReadWhole(fd, static_cast<size_t>(st.st_size), text)) {
            table.names = ParseIdFile(text);
        } else {
            table.names.clear();
        }
        table.stamp = stamp;
    }
    ::close(fd);
    return table;
}

bool IdNames::Name(const std::string& root, const char* file, uint32_t id, std::string& name)
{
    const Table& table = Load(root, file);
    const auto it = table.names.find(id);
    if (it == table.names.end()) {
        return false;
    }
    name = it->second;
    return true;
}

bool IdNames::UserName(const std::string& root, uint32_t uid, std::string& name)
{
    return Name(root, "passwd", uid, name);
}

bool IdNames::GroupName(const std::string& root, uint32_t gid, std::string& name)
{
    return Name(root, "group", gid, name);
}

}  // namespace Export
