#include "sdk/BoundedStr.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace SDK {

int strcpy_s(char* dest, size_t destMax, const char* src)
{
    if (dest == nullptr || destMax == 0) {
        return -1;
    }
    if (src == nullptr) {
        dest[0] = '\0';
        return -1;
    }
    const size_t len = strnlen(src, destMax);
    if (len >= destMax) {
        dest[0] = '\0';
        return -1;
    }
    std::memcpy(dest, src, len + 1);
    return 0;
}

int snprintf_s(char* dest, size_t destMax, const char* format, ...)
{
    if (dest == nullptr || destMax == 0) {
        return -1;
    }
    if (format == nullptr) {
        dest[0] = '\0';
        return -1;
    }
    va_list args;
    va_start(args, format);
    const int len = std::vsnprintf(dest, destMax, format, args);
    va_end(args);
    if (len < 0 || static_cast<size_t>(len) >= destMax) {
        dest[0] = '\0';
        return -1;
    }
    return len;
}

}  // namespace SDK
