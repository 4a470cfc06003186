#pragma once

#include <cstddef>
#include <cstdint>
#include "SharedLookupTable.h"

#include <string>
#include <string_view>

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

/// The -F arch value of a rule that selects the i386 tables; any other value selects x86-64.
inline const std::string kRuleArch32 = "b32";

/// True when a rule's arch value selects the i386 tables.
inline bool IsRuleArch32(const std::string& arch)
{
    return arch == kRuleArch32;
}

/// True when a record's arch (hexadecimal) is x86-64.
inline bool IsRecordArch64(std::string_view arch)
{
    return arch == kAuditArch64;
}

/// The name-to-number table a rule's arch value selects.
inline SharedLookupTable<std::string, int32_t>& SyscallNumbersOfRuleArch(const std::string& arch)
{
    return IsRuleArch32(arch) ? syscallNameToNumber32 : syscallNameToNumber64;
}

/// The name-to-number table of a record's arch (x86-64 or else i386).
inline SharedLookupTable<std::string, int32_t>& SyscallNumbersOfRecordArch(std::string_view arch)
{
    return IsRecordArch64(arch) ? syscallNameToNumber64 : syscallNameToNumber32;
}

}  // namespace Engine
