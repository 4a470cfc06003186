#pragma once

#include "EcsJson.h"

#include "AuditEvent.h"
#include "AuditMessages.h"

#include <memory>
#include <string>

namespace Export {

/// How the agent writes what it receives.
struct LineOptions {
    bool flat = false;           ///< the audit module's own records, for debugging, instead of ECS
    bool original = false;       ///< ECS lines carry the raw records (event.original)
    size_t maxArgBytes = 65536;  ///< argument bytes kept per process
};

/// Makes the agent's JSON lines: ECS objects enriched from this host, or the flat records. One
/// per receiving thread.
class EventLines {
public:
    /// enrichment null: this host's (its process table is seeded now).
    explicit EventLines(const LineOptions& options, std::unique_ptr<Enrichment> enrichment = nullptr);
    ~EventLines();

    /// One audit event, without the newline.
    void AppendEvent(std::string& line, const Engine::AuditEvent& event, const std::string& tag);
    /// One file notification, without the newline; change, when known, says what changed.
    void AppendNotification(std::string& line, const Engine::AuditEventResult& result, const std::string& tag,
                            const FileChange* change = nullptr);

    /// The agent's own notice at timeMs (milliseconds since the epoch), without the newline.
    void AppendNotice(std::string& line, const AgentNotice& notice, uint64_t timeMs);

private:
    LineOptions options_;
    std::unique_ptr<Enrichment> enrichment_;
    std::unique_ptr<EcsEncoder> encoder_;
};

}  // namespace Export
