#pragma once

#include "AuditLog.h"

#include <string>

namespace Bench {

/// Routes every system call number of both architectures to task, with no filter.
inline void RouteEverySystemCall(Engine::AuditLog& log, Framework::Task* task, const std::string& tag = "")
{
    Engine::auditSyscallDest dest;
    dest.task = task;
    dest.tag = tag;
    for (int32_t number = 0; number < 1024; ++number) {
        log.syscallRoutes64.emplace(number, dest);
        log.syscallRoutes32.emplace(number, dest);
    }
}

}  // namespace Bench
