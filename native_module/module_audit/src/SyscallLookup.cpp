#include "SyscallTables.h"

#include <map>

namespace Engine {

namespace {

std::map<std::string, int32_t> MakeByName(const SyscallEntry* entries, size_t count)
{
    std::map<std::string, int32_t> byName;
    for (size_t i = 0; i < count; ++i) {
        byName.emplace(entries[i].name, entries[i].number);
    }
    return byName;
}

std::map<int32_t, std::string> MakeByNumber(const SyscallEntry* entries, size_t count)
{
    std::map<int32_t, std::string> byNumber;
    for (size_t i = 0; i < count; ++i) {
        byNumber.emplace(entries[i].number, entries[i].name);
    }
    return byNumber;
}

}  // namespace

SharedLookupTable<std::string, int32_t> syscallNameToNumber64(MakeByName(kSyscalls64, kSyscalls64Count));
SharedLookupTable<int32_t, std::string> syscallNumberToName64(MakeByNumber(kSyscalls64, kSyscalls64Count));
SharedLookupTable<std::string, int32_t> syscallNameToNumber32(MakeByName(kSyscalls32, kSyscalls32Count));
SharedLookupTable<int32_t, std::string> syscallNumberToName32(MakeByNumber(kSyscalls32, kSyscalls32Count));

}  // namespace Engine
