// The bounded string and formatting functions of the Win32 runtime, on libc.
// They are exported under their C++ signatures, so they never stand in for a
// libc function of the same short name. Results are errno values: 0, EINVAL
// (22), ERANGE (34), STRUNCATE (80); the printf-style ones return a count or -1.
#pragma once

#include <stdarg.h>

#include "runtime/export.h"

// The count that asks a copy to take as much as fits.
const unsigned int kTruncateCount = 0xFFFFFFFFu;
const int STRUNCATE_RESULT = 80;

KAVO_API int strcpy_s(char* dst, unsigned int size, char const* src);
KAVO_API int _vsnprintf_s(char* buf, unsigned int size, unsigned int count, char const* format, va_list args);
