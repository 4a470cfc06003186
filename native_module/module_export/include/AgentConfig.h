#pragma once

#include "EventLines.h"
#include "FileIntegrity.h"

#include "FileNotify.h"

#include <cstdint>
#include <string>
#include <vector>

namespace Export {

/// The events a second a subscription writes unless its configuration says otherwise.
inline constexpr uint32_t kDefaultRateLimit = 5000;
/// The largest rate limit a subscription or a command may ask for.
inline constexpr uint32_t kMaxRateLimit = 1000000;

/// Where the baseline of the watched trees is kept unless the configuration says otherwise
/// (relative: in the installation).
inline constexpr const char* kDefaultBaseline = "var/lib/hostwarden/baseline.db";

/// One subscription: a system-call rule, or a file watch.
struct Subscription {
    std::string entry;        ///< where it stands in the file, such as "subscriptions[2]"
    std::string tag;          ///< printed with every event or notification it yields
    std::string syscall;      ///< rule text in auditctl syntax without -a; empty for a watch
    std::string watch;        ///< the watched path, absolute and resolved; empty for a rule
    bool recursive = false;   ///< a watch covers every descendant, not only direct children
    uint32_t events = 0;      ///< the notification kinds a watch wants
    uint32_t rateLimit = kDefaultRateLimit;  ///< events a second written at most; 0 for no limit
};

/// Where the events go.
struct OutputSettings {
    std::string file;                 ///< JSON lines file (absolute); empty for none
    uint64_t rotateBytes = 10 << 20;  ///< the size at which the file rotates; 0 for never
    int keep = 5;                     ///< rotated files kept
    bool toStdout = true;             ///< also to standard output
    LineOptions lines;                ///< ECS or flat; raw records; argument bytes kept
};

/// The agent's configuration file (JSON):
///   {"log": {"level": "information", "file": ""},
///    "cpu": {"share": 0},
///    "file_watch": {"max_entries": 500000},
///    "file_integrity": {"baseline": "var/lib/hostwarden/baseline.db", "max_hash_size": "64 M",
///                       "scan_cpu_share": 0.25},
///    "output": {"file": "...", "rotate_size": "10 M", "keep": 5, "stdout": true,
///               "format": "ecs", "original": false, "max_args_bytes": 65536},
///    "subscriptions": [{"tag": "exec", "syscall": "exit,always -F arch=b64 -S execve"},
///                      {"tag": "etc", "watch": "/etc", "recursive": true, "events": "create,delete",
///                       "rate_limit": 5000}]}
/// Every section and key is optional; unknown ones are errors. In paths "$INSTALLATION" stands
/// for the agent's installation directory, and a relative path is taken from there.
struct AgentConfig {
    std::string logLevel = "information";
    std::string logFile;
    double cpuShare = 0;  ///< processor share of the agent's threads; 0 for no limit
    uint64_t maxWatchEntries = Engine::kDefaultMaxWatchEntries;  ///< inode index entries per watched tree
    IntegritySettings integrity;  ///< the baseline of the watched trees; an empty path for none
    OutputSettings output;
    std::vector<Subscription> subscriptions;
};

/// Reads a configuration text. installation ends in "/". False, with error naming the entry
/// ("subscriptions[2].watch: no such file or directory: /x"), for anything it cannot use: not
/// JSON, an unknown key, a value of the wrong type, a tag that is empty or holds other than
/// letters, digits, '_', '-' and '.', a subscription with both or neither of syscall and watch,
/// an unknown event name, a watched path that does not exist (or holds blanks or quotes).
bool ParseAgentConfig(const std::string& text, const std::string& installation, AgentConfig& config,
                      std::string& error);

/// ParseAgentConfig of a file; the error then names the file too.
bool LoadAgentConfig(const std::string& path, const std::string& installation, AgentConfig& config,
                     std::string& error);

/// The notification mask of a comma-separated list: names (create, delete, modify, attrib,
/// moved_from, moved_to) or numbers made of those bits; all of them for an empty list. False,
/// with the offending word in bad.
bool ParseEventMask(const std::string& list, uint32_t& mask, std::string& bad);

/// The canonical form of a path to watch: absolute, resolved. False, with the reason, when it
/// does not exist or holds blanks or quotes (the module's rule syntax separates words by blanks).
bool WatchablePath(const std::string& path, std::string& resolved, std::string& problem);

}  // namespace Export
