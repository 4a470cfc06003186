#pragma once

#include <cstddef>
#include <cstdint>
#include "SharedLookupTable.h"

#include <string>

namespace Engine {

/// One pair of a kernel system-call table.
struct SyscallEntry {
    int32_t number;
    const char* name;
};

/// The audit architectures of the two tables, as records write them (arch=).
inline constexpr const char* kAuditArch64 = "c000003e";
inline constexpr const char* kAuditArch32 = "40000003";

/// The kernel's x86_64 table, numbers 0 to 323 (generated, see tools/gen_syscall_tables.py).
extern const SyscallEntry kSyscalls64[];
extern const size_t kSyscalls64Count;
/// The kernel's i386 table, numbers 0 to 374 (generated).
extern const SyscallEntry kSyscalls32[];
extern const size_t kSyscalls32Count;

/// Process-wide lookup tables built from the generated pairs at load time. Lookups use
/// insert-on-miss (operator[]): an unknown name is added with number 0, an unknown number with an
/// empty name. The audit task reads them by name, the file-watch task by number, at the same time.
extern SharedLookupTable<std::string, int32_t> syscallNameToNumber64;
extern SharedLookupTable<int32_t, std::string> syscallNumberToName64;
extern SharedLookupTable<std::string, int32_t> syscallNameToNumber32;
extern SharedLookupTable<int32_t, std::string> syscallNumberToName32;

}  // namespace Engine
