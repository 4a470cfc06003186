#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>

namespace Export {

/// The names of user and group ids, from the passwd and group files of a root: the host's ("")
/// or a container's, read inside it. Each file is read again when it has changed, checked at most
/// once per recheck interval. Names come from the files only (not from NSS services such as
/// LDAP, which could stall the export).
class IdNames {
public:
    explicit IdNames(std::chrono::milliseconds recheck = std::chrono::seconds(1));

    /// The name of uid under root; false when the file has none.
    bool UserName(const std::string& root, uint32_t uid, std::string& name);
    /// The name of gid under root; false when the file has none.
    bool GroupName(const std::string& root, uint32_t gid, std::string& name);

    /// The id-to-name map of a passwd- or group-format text (the first name of an id wins).
    static std::unordered_map<uint32_t, std::string> ParseIdFile(std::string_view text);

    /// The most a passwd or group file may hold; a larger one is not read.
    static constexpr size_t kMaxFileBytes = 16 * 1024 * 1024;
    /// The most roots whose files are kept at once.
    static constexpr size_t kMaxRoots = 256;

private:
    struct Stamp {
        uint64_t dev = 0, ino = 0, size = 0, mtimeNs = 0;
        bool operator==(const Stamp& o) const { return dev == o.dev && ino == o.ino && size == o.size && mtimeNs == o.mtimeNs; }
    };
    struct Table {
        Stamp stamp;
        std::chrono::steady_clock::time_point checked;
        std::unordered_map<uint32_t, std::string> names;
    };
    bool Name(const std::string& root, const char* file, uint32_t id, std::string& name);
    const Table& Load(const std::string& root, const char* file);

    std::chrono::milliseconds recheck_;
    std::map<std::string, Table> tables_;  // by root and file
};

/// Opens root/relative for reading with every component resolved inside root, as a process
/// chrooted there would (its symbolic links cannot lead out); "" is the host's root. Only a
/// regular file is opened. -1 when it cannot be.
int OpenInRoot(const std::string& root, const std::string& relative);

}  // namespace Export
