// Moving text between the runtime's three character types: char (multibyte),
// unsigned short (the 16-bit wide character of the exported interface) and
// wchar_t (32-bit, used only inside conversions).
#pragma once

#include "runtime/export.h"
#include "runtime/string.h"

// Copies at most n elements of src (all for n = -1) with plain integer
// conversion and terminates. A null dst is allocated with array new, sized
// by the whole source. A null src gives null.
template <typename S, typename D>
D* ConvertUnicodeGeneric(S const* src, D* dst, int n) {
  if (src == nullptr) return nullptr;
  const unsigned int length = UnicodeStringLen(src);
  if (dst == nullptr) dst = new D[length + 1];
  unsigned int count = length;
  if (n != -1 && count > static_cast<unsigned int>(n)) count = static_cast<unsigned int>(n);
  for (unsigned int i = 0; i < count; ++i) dst[i] = static_cast<D>(src[i]);
  dst[count] = 0;
  return dst;
}
extern template KAVO_API char* ConvertUnicodeGeneric<char, char>(char const*, char*, int);

template <typename S, typename D>
D* ConvertUnicodeWithCodePage(unsigned int codePage, S const* src, D* dst, int n);
extern template KAVO_API char* ConvertUnicodeWithCodePage<char, char>(unsigned int, char const*, char*, int);

template <typename S, typename D>
D* ConvertUnicode(S const* src, D* dst, int n);
extern template KAVO_API char* ConvertUnicode<char, char>(char const*, char*, int);

// Copies at most n elements (all for -1) and terminates.
template <typename T>
void UnicodeStrCpy(T* dst, T const* src, int n);
extern template KAVO_API void UnicodeStrCpy<char>(char*, char const*, int);

// Appends src behind the terminator of dst.
template <typename T>
void UnicodeStrCat(T* dst, T const* src);
extern template KAVO_API void UnicodeStrCat<char>(char*, char const*);
