#pragma once

#include <functional>
#include <iosfwd>
#include <string>
#include <vector>

namespace Framework {
class Engine;
}

namespace Agent {

/// What `hostwarden audit` subscribes.
struct AuditRequest {
    std::vector<std::string> rules;    ///< syscall rules in auditctl syntax ("exit,always -S connect")
    std::vector<std::string> watches;  ///< paths watched for writes and attribute changes
    std::string tag = "cli";         ///< printed with everything the command prints
    bool flat = false;               ///< the module's flat records instead of ECS lines
    uint32_t rateLimit = 0;          ///< events printed a second at most; 0 for no limit
};

/// hostwarden audit: runs the audit task and a subscriber task of its own in engine, subscribes
/// the request, and prints every event it receives as one JSON line until waitForStop returns;
/// then unsubscribes so no rule is left. Returns 0; 1 when the audit system is unusable or a rule
/// is refused (with a message on err); 2 for a request without rules or watches.
int RunAuditCommand(const AuditRequest& request, Framework::Engine& engine, const std::function<void()>& waitForStop,
                    std::ostream& out, std::ostream& err);

}  // namespace Agent
