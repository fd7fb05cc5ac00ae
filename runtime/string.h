// CBasicString: the library's own owning, growable, NUL-terminated string.
// Only the char instance exists. It keys the device maps, whose order is
// UnicodeStringCmp's.
#pragma once

#include "runtime/export.h"

// Number of characters before the terminator; 0 for a null pointer.
template <typename T>
unsigned int UnicodeStringLen(T const* s) {
  if (s == nullptr) return 0;
  unsigned int length = 0;
  while (s[length] != 0) ++length;
  return length;
}
extern template KAVO_API unsigned int UnicodeStringLen<char>(char const*);

// Three-way comparison (-1, 0, 1). n = -1 compares whole strings, n > 0 the
// first n characters, any other n gives 0. Where the strings first differ,
// a string whose character there is its last sorts first; otherwise the
// smaller signed character does. So "b" < "ab" and "a" < "ab".
template <typename T>
int UnicodeStringCmp(T const* a, T const* b, int n);
extern template KAVO_API int UnicodeStringCmp<char>(char const*, char const*, int);

// Exported as a class template rather than through an extern explicit
// instantiation: applications then instantiate the inline accessors
// themselves instead of expecting the library to export them.
template <typename T>
class KAVO_API CBasicString {
 public:
  // len = -1 takes the whole C string; otherwise exactly len bytes, which
  // need not be terminated.
  CBasicString(T const* s = "", int len = -1);
  CBasicString(const CBasicString& other);
  virtual ~CBasicString();

  CBasicString& operator=(T const* s);
  KAVO_HIDDEN CBasicString& operator=(const CBasicString& other) {
    if (this != &other) *this = other.m_pData;
    return *this;
  }
  CBasicString& operator+=(T const* s);

  // printf-style; replaces the contents. Output beyond 16,383 characters is
  // cut without notice.
  void Format(T const* format, ...);

  KAVO_HIDDEN T const* GetString() const { return m_pData; }
  KAVO_HIDDEN int GetLength() const { return m_nLength; }
  KAVO_HIDDEN int GetCapacity() const { return m_nCapacity; }
  KAVO_HIDDEN bool IsEmpty() const { return m_nLength == 0; }

 private:
  KAVO_HIDDEN void Reserve(int nCharacters);
  KAVO_HIDDEN void SetFrom(T const* s, int len);

  T* m_pData;        // never null while the object lives
  int m_nCapacity;   // bytes allocated; always >= m_nLength + 2
  int m_nLength;     // characters before the terminator
};

// The order of the device maps.
inline bool operator<(const CBasicString<char>& a, const CBasicString<char>& b) {
  return UnicodeStringCmp<char>(a.GetString(), b.GetString(), -1) < 0;
}
