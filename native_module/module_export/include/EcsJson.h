#pragma once

#include "AgentNotice.h"
#include "ProcessTable.h"

#include "AuditEvent.h"
#include "AuditMessages.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Export {

struct FileChange;

/// The ECS version the lines follow.
inline constexpr const char* kEcsVersion = "8.11.0";

/// What every line says of where it comes from, and how much it carries.
struct EcsSettings {
    std::string hostName;
    std::string hostId;            ///< the machine id
    std::string agentVersion;
    bool original = false;         ///< event.original: the raw audit records
    size_t maxArgBytes = 65536;    ///< argument bytes kept per process; the rest is cut with a marker
};

/// This machine's name and id and the agent's version, with the defaults above.
EcsSettings HostEcsSettings();

/// The container a process runs in.
struct ContainerFacts {
    std::string id;
    std::string runtime;
    std::string rootPath;  ///< its root file system as the host sees it
};

/// Where the export learns what the audit records do not say (the live system; tests give their
/// own). Used from one thread.
class Enrichment {
public:
    virtual ~Enrichment() = default;
    /// The container of pid (or of ppid when pid has ended); false on the host.
    virtual bool Container(int32_t pid, int32_t ppid, ContainerFacts& container) = 0;
    /// The user name of uid in the passwd file under root ("" for the host's).
    virtual bool UserName(const std::string& root, uint32_t uid, std::string& name) = 0;
    /// The group name of gid in the group file under root.
    virtual bool GroupName(const std::string& root, uint32_t gid, std::string& name) = 0;
    /// The process that had pid at timeMs (see ProcessTable::Find).
    virtual const ProcessFacts* Process(int32_t pid, uint64_t timeMs) = 0;
    /// pid started a program at timeMs.
    virtual void Exec(int32_t pid, uint64_t timeMs, ProcessFacts facts) = 0;
};

/// The argument list of a program start, from every EXECVE record of its event.
struct ExecArgs {
    std::vector<std::string> args;  ///< decoded, split arguments joined; cut at the size bound with a marker
    uint64_t count = 0;             ///< argc as the kernel gave it
};

/// Decodes the EXECVE records of an event (quoted or hex arguments, long ones split into
/// aN[i] pieces), keeping at most maxBytes of argument text.
ExecArgs DecodeExecArgs(const SDK::AuditEvent& event, size_t maxBytes);

/// The command line of a PROCTITLE value: decoded, its NUL separators as blanks.
std::string ProcessTitle(std::string_view raw);

/// Milliseconds since the epoch as RFC 3339 in UTC with milliseconds ("2026-11-23T08:01:02.345Z").
std::string Rfc3339Ms(uint64_t ms);

/// Writes audit events and file notifications as Elastic Common Schema JSON objects, one a line:
/// what happened (event.*), who (user.*), which process and its parent (process.*), where to
/// (destination.*, network.*), which file (file.*), in which container (container.*); the audit
/// system's own facts under auditd.*, the agent's under hostwarden.*.
class EcsEncoder {
public:
    EcsEncoder(EcsSettings settings, Enrichment& enrichment);

    /// Appends one audit event; tag names the subscription it matched (tags, left out when empty).
    void AppendEvent(std::string& line, const Engine::AuditEvent& event, const std::string& tag);
    /// Appends one file notification with the file as it is now and the call's actor. change, when
    /// the baseline knows the file's tree: the file's attributes and hash now, and those before.
    void AppendNotification(std::string& line, const Engine::AuditEventResult& result, const std::string& tag,
                            const FileChange* change = nullptr);

    /// Appends the agent's own notice at timeMs (event.kind "metric", event.action its action).
    void AppendNotice(std::string& line, const AgentNotice& notice, uint64_t timeMs);

    const EcsSettings& Settings() const { return settings_; }

private:
    EcsSettings settings_;
    Enrichment& enrichment_;
};

}  // namespace Export
