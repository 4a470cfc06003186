#pragma once

#include <cstddef>

namespace SDK {

/// Copies src into dest of destMax bytes including the terminator. Returns 0, or -1 when src
/// does not fit (dest is then emptied) or an argument is null or zero: it never overflows.
int strcpy_s(char* dest, size_t destMax, const char* src);

/// printf-style formatting into dest of destMax bytes. Returns the length written, or -1 when
/// the result does not fit (dest is then emptied) or an argument is null or zero.
int snprintf_s(char* dest, size_t destMax, const char* format, ...) __attribute__((format(printf, 3, 4)));

}  // namespace SDK
