#pragma once

#include <cstdint>
#include <set>
#include <string>

namespace Framework {
class Task;
}

namespace Engine {

/// Where events of one subscribed system call go: a subscriber task and its filters.
struct auditSyscallDest {
    Framework::Task* task = nullptr;  ///< the subscriber; not owned
    std::string tag;
    std::set<std::string> pids;       ///< pid filters (empty with ppids: any process)
    std::set<std::string> ppids;      ///< ppid filters
    uint8_t hasFilter = 0;            ///< compare exit, success and a0..a3 when set
    std::string success;
    std::string exit;
    std::string a0;
    std::string a1;
    std::string a2;
    std::string a3;
};

/// Where events of one watched path go: a subscriber task, its process filters and access kinds.
struct auditFileSystemDest {
    Framework::Task* task = nullptr;  ///< the subscriber; not owned
    std::string tag;
    std::set<std::string> pids;
    std::set<std::string> ppids;
    std::set<std::string> keys;       ///< rule keys given with the subscriptions
    uint8_t read = 0;                 ///< access kinds wanted, from the perm letters
    uint8_t write = 0;
    uint8_t exec = 0;
    uint8_t attr = 0;
};

/// Sets the access flags from perm letters (r, w, x, a); perm is trimmed in place. An empty perm
/// sets nothing. An unknown letter sets all four and gives false.
bool setPermission(auditFileSystemDest& dest, std::string& perm);

}  // namespace Engine
