#include "runtime/string.h"

#include <stdarg.h>
#include <string.h>

#include "runtime/charset.h"
#include "runtime/crt.h"

namespace {

const int kInitialCapacity = 6;
const unsigned int kFormatBufferSize = 16384;

}  // namespace

// The device maps compare keys on every request, so the common prefix is
// skipped first in a tight loop, and no length is counted. The order is
// decided where the strings part: at a position both still reach, a string
// that ends right after it sorts first; then the smaller signed character.
template <typename T>
int UnicodeStringCmp(T const* a, T const* b, int n) {
  if (a == nullptr || b == nullptr) {
    if (a == b) return 0;
    return a == nullptr ? -1 : 1;
  }
  if (n != -1 && n <= 0) return 0;
  if (a[0] == 0 || b[0] == 0) {
    if (a[0] == b[0]) return 0;
    return a[0] == 0 ? -1 : 1;
  }
  const unsigned int limit = n > 0 ? static_cast<unsigned int>(n) : 0;  // 0: the whole strings
  unsigned int at = 0;
  while (a[at] == b[at] && a[at] != 0) ++at;
  if ((limit != 0 && at >= limit) || a[at] == b[at]) return 0;  // equal throughout
  // Position at-1 is common to both; one of them may end after it.
  if (at > 0 && (a[at] == 0) != (b[at] == 0)) return a[at] == 0 ? -1 : 1;
  const bool lastOfA = at + 1 == limit || a[at + 1] == 0;
  const bool lastOfB = at + 1 == limit || b[at + 1] == 0;
  if (lastOfA != lastOfB) return lastOfA ? -1 : 1;
  return static_cast<signed char>(a[at]) < static_cast<signed char>(b[at]) ? -1 : 1;
}

template KAVO_API unsigned int UnicodeStringLen<char>(char const*);
template KAVO_API int UnicodeStringCmp<char>(char const*, char const*, int);

// One growth rule for every operation: room for n characters means
// capacity >= n + 2; otherwise the buffer becomes 2n + 2 bytes and keeps its
// whole old content at its start.
template <typename T>
void CBasicString<T>::Reserve(int nCharacters) {
  if (m_nCapacity >= nCharacters + 2) return;
  const int newCapacity = 2 * nCharacters + 2;
  T* grown = new T[newCapacity];
  memcpy(grown, m_pData, static_cast<size_t>(m_nCapacity) * sizeof(T));
  memset(grown + m_nCapacity, 0, static_cast<size_t>(newCapacity - m_nCapacity) * sizeof(T));
  delete[] m_pData;
  m_pData = grown;
  m_nCapacity = newCapacity;
}

template <typename T>
void CBasicString<T>::SetFrom(T const* s, int len) {
  if (len == -1) len = static_cast<int>(UnicodeStringLen(s));
  if (len < 0) len = 0;
  // The 6-byte start grown once for len, allocated in one step: strings are
  // made on every request's path (device keys), so no throw-away buffer.
  m_nCapacity = kInitialCapacity >= len + 2 ? kInitialCapacity : 2 * len + 2;
  m_pData = new T[m_nCapacity];
  if (len > 0) memcpy(m_pData, s, static_cast<size_t>(len) * sizeof(T));
  memset(m_pData + len, 0, static_cast<size_t>(m_nCapacity - len) * sizeof(T));
  m_nLength = len;
}

template <typename T>
CBasicString<T>::CBasicString(T const* s, int len) {
  SetFrom(s, len);
}

template <typename T>
CBasicString<T>::CBasicString(const CBasicString& other) {
  SetFrom(other.m_pData, other.m_nLength);
}

template <typename T>
CBasicString<T>::~CBasicString() {
  delete[] m_pData;
  m_pData = nullptr;
}

template <typename T>
CBasicString<T>& CBasicString<T>::operator=(T const* s) {
  if (s == nullptr) s = "";
  // s may point into our own buffer; growth moves that text to the start of
  // the new buffer, so follow it there.
  const bool inside = s >= m_pData && s < m_pData + m_nCapacity;
  const int offset = inside ? static_cast<int>(s - m_pData) : 0;
  const int length = static_cast<int>(UnicodeStringLen(s));
  Reserve(length);
  if (inside) s = m_pData + offset;
  memmove(m_pData, s, static_cast<size_t>(length) * sizeof(T));
  m_pData[length] = 0;
  m_nLength = length;
  return *this;
}

template <typename T>
CBasicString<T>& CBasicString<T>::operator+=(T const* s) {
  // s may point into this buffer, which the growth below releases.
  const CBasicString copy(s, -1);
  Reserve(m_nLength + copy.m_nLength);
  UnicodeStrCat<T>(m_pData, copy.m_pData);
  m_nLength = static_cast<int>(UnicodeStringLen(m_pData));
  return *this;
}

template <typename T>
void CBasicString<T>::Format(T const* format, ...) {
  T scratch[kFormatBufferSize];
  scratch[0] = 0;
  va_list arguments;
  va_start(arguments, format);
  _vsnprintf_s(scratch, kFormatBufferSize, kFormatBufferSize - 1, format, arguments);
  va_end(arguments);
  Reserve(static_cast<int>(UnicodeStringLen(scratch)));
  strcpy_s(m_pData, static_cast<unsigned int>(m_nCapacity), scratch);
  m_nLength = static_cast<int>(UnicodeStringLen(m_pData));
}

template class CBasicString<char>;
