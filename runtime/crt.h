// The bounded string and formatting functions of the Win32 runtime, on libc.
// They are exported under their C++ signatures, so they never stand in for a
// libc function of the same short name. Results are errno values: 0, EINVAL
// (22), ERANGE (34), STRUNCATE (80); the printf-style ones return a count or -1.
//
// Sizes and counts are in elements of the destination (bytes, or 16-bit
// units for the wide functions). A null destination or a zero size writes
// nothing; once the destination is usable, every failure leaves an empty
// string in it, while a cut under the truncate count leaves the cut text.
#pragma once

#include <stdarg.h>
#include <stdio.h>
#include <time.h>

#include "runtime/export.h"

// The count that asks a copy to take as much as fits.
const unsigned int kTruncateCount = 0xFFFFFFFFu;
const int STRUNCATE_RESULT = 80;

KAVO_API int strcpy_s(char* dst, unsigned int size, char const* src);
KAVO_API int strncpy_s(char* dst, unsigned int size, char const* src, unsigned int count);
KAVO_API int wcscpy_s(unsigned short* dst, unsigned int size, unsigned short const* src);
KAVO_API int wcsncpy_s(unsigned short* dst, unsigned int size, unsigned short const* src, unsigned int count);
KAVO_API int strcat_s(char* dst, unsigned int size, char const* src);
KAVO_API int strncat_s(char* dst, unsigned int size, char const* src, unsigned int count);

// count 0 succeeds without looking at anything; a failure zeroes all of dst.
KAVO_API int memcpy_s(void* dst, unsigned int size, void const* src, unsigned int count);
KAVO_API int wmemcpy_s(unsigned short* dst, unsigned int size, unsigned short const* src, unsigned int count);

// Keeps its position only in *context. Null with errno EINVAL on bad
// arguments.
KAVO_API char* strtok_s(char* str, char const* delimiters, char** context);

KAVO_API int _strlwr_s(char* str, unsigned int size);
KAVO_API int _strupr_s(char* str, unsigned int size);

// Need 26 bytes. Failures give 22 without touching errno; success gives
// errno as ctime_r leaves it.
KAVO_API int ctime_s(char* buf, unsigned int size, long const* timer);
// Fills *result with 0xFF bytes before anything else; never sets errno.
KAVO_API int localtime_s(tm* result, long const* timer);

KAVO_API int _itoa_s(int value, char* dst, unsigned int size, int radix);

// One line of stdin without its line feed; null at the end of input.
KAVO_API char* gets_s(char* buf, unsigned int size);
// pmode may hold only owner read (0x100) and owner write (0x80). The result
// is errno as open leaves it.
KAVO_API int sopen_s(int* pfh, char const* path, int oflag, int shflag, int pmode);
KAVO_API int fopen_s(FILE** pfile, char const* path, char const* mode);
// No size arguments are taken for string conversions.
KAVO_API int sscanf_s(char const* buf, char const* format, ...);

KAVO_API int _vsprintf_s(char* buf, unsigned int size, char const* format, va_list args);
KAVO_API int sprintf_s(char* buf, unsigned int size, char const* format, ...);
// Writes at most count characters (the truncate count: as many as fit).
KAVO_API int _vsnprintf_s(char* buf, unsigned int size, unsigned int count, char const* format, va_list args);
KAVO_API int _snprintf_s(char* buf, unsigned int size, unsigned int count, char const* format, ...);

// Unchecked helpers, in place; each returns str (or dst).
KAVO_API char* _strrev(char* str);
KAVO_API char* _strupr(char* str);
KAVO_API char* _strlwr(char* str);
// radix 2 to 36, lower-case digits; dst is written without a bound.
KAVO_API char* _itoa(int value, char* dst, int radix);
