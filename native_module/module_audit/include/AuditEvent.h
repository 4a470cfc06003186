#pragma once

#include "sdk/AuditParser.h"

#include <cstdint>
#include <string>
#include <vector>

namespace Engine {

/// The process and system-call part of a decoded event (the SYSCALL record).
struct AuditLogSyscall {
    std::string arch;     ///< audit architecture, hexadecimal ("c000003e" is x86-64)
    int32_t syscall = 0;  ///< system-call number, -1 when the record's value does not convert
    int32_t items = 0;    ///< number of PATH records, -1 when it does not convert
    std::string pid;
    std::string ppid;
    std::string exit;
    std::string success;
    std::string a0;       ///< arguments, hexadecimal as written
    std::string a1;
    std::string a2;
    std::string a3;
    std::string exe;      ///< executable, unquoted or hex-decoded
    std::string comm;     ///< command name, unquoted or hex-decoded
    std::string key;      ///< the key of the rule that matched, as written
};

/// One PATH record of an event.
struct AuditLogPath {
    int32_t item = 0;       ///< the record's item number, -1 when it does not convert
    std::string name;       ///< the name as recorded, quotes removed (hex-encoded names stay hex)
    std::string path;       ///< name made absolute against the working directory
    std::string hostPath;   ///< the same file as seen from the host, resolved when it exists
    std::string inode;
    std::string mode;
    std::string dev;
    std::string ouid;
    std::string ogid;
    std::string rdev;
    std::string nametype;   ///< "objtype" if present, else "nametype" (PARENT, CREATE, DELETE, NORMAL ...)
};

/// A decoded audit event, shared read-only with subscribers once complete.
struct AuditEvent : AuditLogSyscall {
    std::string cwd;                   ///< working directory (CWD record), quotes removed
    bool isExecve = false;             ///< the event has an EXECVE record
    SDK::AuditFields execveFields;     ///< every field of the EXECVE record, as written
    uint16_t family = 0;               ///< socket address family, 0 without SOCKADDR record
    uint16_t port = 0;                 ///< IPv4 port in host order
    std::string saddr = std::string(1, '\0');  ///< dotted IPv4 address or local socket path
    std::vector<AuditLogPath> paths;   ///< PATH records in record order
    bool read = false;                 ///< access flags matched against file-system routes
    bool write = false;
    bool execute = false;
    bool attributeChange = false;
    SDK::AuditEvent parsedEvent;       ///< the parser's event: header and records
    std::vector<std::string> lines;    ///< the raw log lines of the event
};

}  // namespace Engine
