#pragma once

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <vector>

namespace Framework {
class Engine;
}

namespace Agent {

/// What `hostwarden watch` watches.
struct WatchRequest {
    std::vector<std::string> paths;  ///< files or directories
    bool recursive = false;          ///< every descendant, not only direct children
    std::string events;              ///< comma-separated kinds or numbers; empty for all
    std::string tag = "cli";         ///< printed with everything the command prints
    bool flat = false;               ///< the module's flat records instead of ECS lines
    uint32_t rateLimit = 0;          ///< notifications printed a second at most; 0 for no limit
};

/// hostwarden watch: runs the audit module's tasks and a subscriber of its own in engine, watches
/// each path through the file-watch task and prints every notification as one JSON line until
/// waitForStop returns; then unwatches, so no rule is left. Returns 0; 1 when the audit system is
/// unusable or a watch is not installed; 2 for bad arguments (a missing path, an unknown event).
int RunWatchCommand(const WatchRequest& request, Framework::Engine& engine, const std::function<void()>& waitForStop,
                    std::ostream& out, std::ostream& err);

}  // namespace Agent
