#include "runtime/crt.h"

#include <errno.h>
#include <stdio.h>

namespace {

int Fail(int code) {
  errno = code;
  return code;
}

}  // namespace

int strcpy_s(char* dst, unsigned int size, char const* src) {
  if (dst == nullptr || size == 0) return Fail(EINVAL);
  if (src == nullptr) {
    dst[0] = 0;
    return Fail(EINVAL);
  }
  for (unsigned int i = 0; i < size; ++i) {
    dst[i] = src[i];
    if (src[i] == 0) return 0;
  }
  dst[0] = 0;
  return Fail(ERANGE);
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
