// These are contracts over libc itself (fopen_s hands out a real FILE*), so
// unlike the rest of the library they call libc directly.
#include "runtime/crt.h"

#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <string.h>

#include <bitset>

namespace {

// Owner read and owner write: the only permission bits sopen_s accepts.
const int kAllowedPermissions = 0x180;
// Enough for 32 binary digits, a sign and the terminator.
const size_t kItoaScratchSize = 34;
// ctime_r writes 26 bytes.
const unsigned int kCtimeBufferSize = 26;

int Fail(int code) {
  errno = code;
  return code;
}

// A destination known to be usable is left holding an empty string.
template <typename T>
int EmptyAndFail(T* dst, int code) {
  dst[0] = 0;
  return Fail(code);
}

enum class CopyOutcome { Complete, Truncated, NoRoom };

// Copies src into the room elements at dst: at most limit characters, then a
// terminator. Running out of room is a cut (terminated at the last element)
// when truncating, else a failure that leaves dst to the caller.
template <typename T>
CopyOutcome CopyBounded(T* dst, unsigned int room, T const* src, unsigned int limit, bool truncates) {
  unsigned int i = 0;
  for (; i < room && i < limit; ++i) {
    dst[i] = src[i];
    if (src[i] == 0) return CopyOutcome::Complete;
  }
  if (i < room) {
    dst[i] = 0;
    return CopyOutcome::Complete;
  }
  if (!truncates) return CopyOutcome::NoRoom;
  dst[room - 1] = 0;
  return CopyOutcome::Truncated;
}

template <typename T>
int ResultOf(CopyOutcome outcome, T* dst) {
  switch (outcome) {
    case CopyOutcome::Complete:
      return 0;
    case CopyOutcome::Truncated:
      return STRUNCATE_RESULT;
    case CopyOutcome::NoRoom:
      break;
  }
  return EmptyAndFail(dst, ERANGE);
}

// Index of the terminator among the first size elements, or size if none.
template <typename T>
unsigned int TerminatorWithin(T const* str, unsigned int size) {
  unsigned int i = 0;
  while (i < size && str[i] != 0) ++i;
  return i;
}

// Appends at most limit characters of src behind dst's terminator, which
// must lie within size.
int AppendBounded(char* dst, unsigned int size, char const* src, unsigned int limit, bool truncates) {
  const unsigned int length = TerminatorWithin(dst, size);
  if (length == size) return EmptyAndFail(dst, EINVAL);
  if (limit == 0) return 0;
  return ResultOf(CopyBounded(dst + length, size - length, src, limit, truncates), dst);
}

template <typename T>
int CopyString(T* dst, unsigned int size, T const* src) {
  if (dst == nullptr || size == 0) return Fail(EINVAL);
  if (src == nullptr) return EmptyAndFail(dst, EINVAL);
  return ResultOf(CopyBounded(dst, size, src, UINT_MAX, false), dst);
}

template <typename T>
int CopyStringCounted(T* dst, unsigned int size, T const* src, unsigned int count) {
  if (count == 0) {
    if (dst == nullptr) return size == 0 ? 0 : Fail(EINVAL);
    if (size == 0) return Fail(EINVAL);
    dst[0] = 0;
    return 0;
  }
  if (dst == nullptr || size == 0) return Fail(EINVAL);
  if (src == nullptr) return EmptyAndFail(dst, EINVAL);
  return ResultOf(CopyBounded(dst, size, src, count, count == kTruncateCount), dst);
}

int ChangeCase(char* str, unsigned int size, char* (*change)(char*)) {
  if (str == nullptr || size == 0) return Fail(EINVAL);
  if (TerminatorWithin(str, size) == size) return EmptyAndFail(str, EINVAL);
  change(str);
  return 0;
}

}  // namespace

int strcpy_s(char* dst, unsigned int size, char const* src) { return CopyString(dst, size, src); }

int wcscpy_s(unsigned short* dst, unsigned int size, unsigned short const* src) {
  return CopyString(dst, size, src);
}

int strncpy_s(char* dst, unsigned int size, char const* src, unsigned int count) {
  return CopyStringCounted(dst, size, src, count);
}

int wcsncpy_s(unsigned short* dst, unsigned int size, unsigned short const* src, unsigned int count) {
  return CopyStringCounted(dst, size, src, count);
}

int strcat_s(char* dst, unsigned int size, char const* src) {
  if (dst == nullptr || size == 0) return Fail(EINVAL);
  if (src == nullptr) return EmptyAndFail(dst, EINVAL);
  return AppendBounded(dst, size, src, UINT_MAX, false);
}

int strncat_s(char* dst, unsigned int size, char const* src, unsigned int count) {
  if (count == 0 && dst == nullptr && size == 0) return 0;
  if (dst == nullptr || size == 0) return Fail(EINVAL);
  if (count != 0 && src == nullptr) return EmptyAndFail(dst, EINVAL);
  return AppendBounded(dst, size, src, count, count == kTruncateCount);
}

int memcpy_s(void* dst, unsigned int size, void const* src, unsigned int count) {
  if (count == 0) return 0;
  if (dst == nullptr) return Fail(EINVAL);
  if (src != nullptr && count <= size) {
    memcpy(dst, src, count);
    return 0;
  }
  memset(dst, 0, size);
  return Fail(src == nullptr ? EINVAL : ERANGE);
}

// Compared in units, so that no count can wrap around when made bytes.
int wmemcpy_s(unsigned short* dst, unsigned int size, unsigned short const* src, unsigned int count) {
  if (count == 0) return 0;
  if (dst == nullptr) return Fail(EINVAL);
  if (src != nullptr && count <= size) {
    memcpy(dst, src, static_cast<size_t>(count) * sizeof *dst);
    return 0;
  }
  memset(dst, 0, static_cast<size_t>(size) * sizeof *dst);
  return Fail(src == nullptr ? EINVAL : ERANGE);
}

char* strtok_s(char* str, char const* delimiters, char** context) {
  if (context == nullptr || delimiters == nullptr || (str == nullptr && *context == nullptr)) {
    errno = EINVAL;
    return nullptr;
  }
  std::bitset<256> stops;
  for (const unsigned char* d = reinterpret_cast<const unsigned char*>(delimiters); *d != 0; ++d) stops.set(*d);
  stops.set(0);
  auto stopsAt = [&stops](const char* p) { return stops.test(static_cast<unsigned char>(*p)); };

  char* p = str != nullptr ? str : *context;
  while (stopsAt(p)) {
    if (*p == 0) {
      *context = p;
      return nullptr;
    }
    ++p;
  }
  char* token = p;
  while (!stopsAt(p)) ++p;
  if (*p != 0) {
    *p = 0;
    *context = p + 1;
  } else {
    *context = p;
  }
  return token;
}

int _strlwr_s(char* str, unsigned int size) { return ChangeCase(str, size, _strlwr); }

int _strupr_s(char* str, unsigned int size) { return ChangeCase(str, size, _strupr); }

int ctime_s(char* buf, unsigned int size, long const* timer) {
  if (buf == nullptr || size == 0) return EINVAL;
  if (size < kCtimeBufferSize || timer == nullptr || *timer < 0) {
    buf[0] = 0;
    return EINVAL;
  }
  const time_t when = *timer;
  ctime_r(&when, buf);
  return errno;
}

int localtime_s(tm* result, long const* timer) {
  if (result == nullptr) return EINVAL;
  memset(result, 0xFF, sizeof *result);
  if (timer == nullptr || *timer < 0) return EINVAL;
  const int savedErrno = errno;  // loading the time zone may set it
  const time_t when = *timer;
  localtime_r(&when, result);
  errno = savedErrno;
  return 0;
}

int _itoa_s(int value, char* dst, unsigned int size, int radix) {
  if (dst == nullptr || size == 0) return Fail(EINVAL);
  dst[0] = 0;
  const unsigned int shortestText = value < 0 && radix == 10 ? 2 : 1;
  if (size <= shortestText) return Fail(ERANGE);
  if (radix < 2 || radix > 36) return Fail(EINVAL);
  char scratch[kItoaScratchSize];
  _itoa(value, scratch, radix);
  const size_t length = strlen(scratch);
  if (length >= size) return Fail(ERANGE);
  memcpy(dst, scratch, length + 1);
  return 0;
}

char* gets_s(char* buf, unsigned int size) {
  if (buf == nullptr || size == 0) {
    errno = EINVAL;
    return nullptr;
  }
  const int limit = size > static_cast<unsigned int>(INT_MAX) ? INT_MAX : static_cast<int>(size);
  if (fgets(buf, limit, stdin) == nullptr) return nullptr;
  const size_t length = strlen(buf);
  if (length > 0 && buf[length - 1] == '\n') buf[length - 1] = 0;
  return buf;
}

int sopen_s(int* pfh, char const* path, int oflag, int, int pmode) {
  if (pfh == nullptr) return Fail(EINVAL);
  *pfh = -1;
  if (path == nullptr || (pmode & ~kAllowedPermissions) != 0) return Fail(EINVAL);
  *pfh = open(path, oflag, pmode);
  return errno;
}

int fopen_s(FILE** pfile, char const* path, char const* mode) {
  if (pfile == nullptr || path == nullptr || mode == nullptr || mode[0] == 0) return Fail(EINVAL);
  *pfile = fopen(path, mode);
  return *pfile != nullptr ? 0 : errno;
}

int sscanf_s(char const* buf, char const* format, ...) {
  if (buf == nullptr || format == nullptr) {
    errno = EINVAL;
    return -1;
  }
  va_list args;
  va_start(args, format);
  const int assigned = vsscanf(buf, format, args);
  va_end(args);
  return assigned;
}

int _vsprintf_s(char* buf, unsigned int size, char const* format, va_list args) {
  if (format == nullptr || buf == nullptr || size == 0) {
    errno = EINVAL;
    return -1;
  }
  const int n = vsnprintf(buf, size, format, args);
  if (n >= 0 && static_cast<unsigned int>(n) < size) return n;
  buf[0] = 0;
  if (n >= 0) errno = ERANGE;
  return -1;
}

int sprintf_s(char* buf, unsigned int size, char const* format, ...) {
  va_list args;
  va_start(args, format);
  const int n = _vsprintf_s(buf, size, format, args);
  va_end(args);
  return n;
}

int _vsnprintf_s(char* buf, unsigned int size, unsigned int count, char const* format, va_list args) {
  if (format == nullptr) {
    errno = EINVAL;
    return -1;
  }
  if (count == 0 && buf == nullptr && size == 0) return 0;
  if (buf == nullptr || size == 0) {
    errno = EINVAL;
    return -1;
  }
  if (count >= size) {
    const int n = vsnprintf(buf, size, format, args);
    buf[size - 1] = 0;
    if (n < 0) {
      buf[0] = 0;
      return -1;
    }
    if (static_cast<unsigned int>(n) < size) return n;
    if (count == kTruncateCount) return -1;
    buf[0] = 0;
    errno = ERANGE;
    return -1;
  }
  const int n = vsnprintf(buf, count + 1, format, args);
  if (n < 0) {
    buf[0] = 0;
    return -1;
  }
  if (static_cast<unsigned int>(n) >= count + 1) return -1;
  return n;
}

int _snprintf_s(char* buf, unsigned int size, unsigned int count, char const* format, ...) {
  va_list args;
  va_start(args, format);
  const int n = _vsnprintf_s(buf, size, count, format, args);
  va_end(args);
  return n;
}

char* _strrev(char* str) {
  const size_t length = strlen(str);
  if (length < 2) return str;
  for (size_t front = 0, back = length - 1; front < back; ++front, --back) {
    const char kept = str[front];
    str[front] = str[back];
    str[back] = kept;
  }
  return str;
}

char* _strupr(char* str) {
  for (char* p = str; *p != 0; ++p) *p = static_cast<char>(toupper(static_cast<signed char>(*p)));
  return str;
}

char* _strlwr(char* str) {
  for (char* p = str; *p != 0; ++p) *p = static_cast<char>(tolower(static_cast<signed char>(*p)));
  return str;
}

// A negative value is signed only in radix 10. In any other radix its 32-bit
// pattern is written as an unsigned number (-1 in radix 16 is ffffffff), as
// the Win32 runtime does; that is why _itoa_s reserves no room for a sign
// there. A radix outside 2 to 36 writes an empty string instead of dividing
// by zero or never finishing.
char* _itoa(int value, char* dst, int radix) {
  if (radix < 2 || radix > 36) {
    dst[0] = 0;
    return dst;
  }
  char digits[kItoaScratchSize];
  char* first = digits + sizeof digits;
  *--first = 0;
  const bool negative = value < 0 && radix == 10;
  unsigned int rest = negative ? 0u - static_cast<unsigned int>(value) : static_cast<unsigned int>(value);
  const unsigned int base = static_cast<unsigned int>(radix);
  do {
    const unsigned int digit = rest % base;
    *--first = static_cast<char>(digit < 10 ? '0' + digit : 'a' + digit - 10);
    rest /= base;
  } while (rest != 0);
  if (negative) *--first = '-';
  strcpy(dst, first);
  return dst;
}
