#include "runtime/charset.h"

template <typename S, typename D>
D* ConvertUnicodeWithCodePage(unsigned int, S const* src, D* dst, int n) {
  return ConvertUnicodeGeneric<S, D>(src, dst, n);
}

template <typename S, typename D>
D* ConvertUnicode(S const* src, D* dst, int n) {
  return ConvertUnicodeWithCodePage<S, D>(1, src, dst, n);
}

template <typename T>
void UnicodeStrCpy(T* dst, T const* src, int n) {
  ConvertUnicode<T, T>(src, dst, n);
}

template <typename T>
void UnicodeStrCat(T* dst, T const* src) {
  UnicodeStrCpy<T>(dst + UnicodeStringLen(dst), src, -1);
}

template KAVO_API char* ConvertUnicodeGeneric<char, char>(char const*, char*, int);
template KAVO_API char* ConvertUnicodeWithCodePage<char, char>(unsigned int, char const*, char*, int);
template KAVO_API char* ConvertUnicode<char, char>(char const*, char*, int);
template KAVO_API void UnicodeStrCpy<char>(char*, char const*, int);
template KAVO_API void UnicodeStrCat<char>(char*, char const*);
