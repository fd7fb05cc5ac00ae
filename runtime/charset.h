// Moving text between the runtime's three character types: char (multibyte),
// unsigned short (the 16-bit wide character of the exported interface) and
// wchar_t (32-bit, used only inside conversions), and the Win32 code-page
// conversions over iconv.
#pragma once

#include "runtime/export.h"
#include "runtime/string.h"

// The two code pages that name a Unicode form; every other code page means
// "the locale's character set, then the fallback list".
const unsigned int kCodePageUtf7 = 65000;
const unsigned int kCodePageUtf8 = 65001;

// Converts cchWideChar 16-bit units of lpWideCharStr (-1: up to its zero
// unit) to multibyte text. The result is the size of the whole converted
// text in bytes with its terminator, even when lpMultiByteStr is null or
// too small (the output is then cut and still terminated), or 0 when no
// character set could convert it (a given output then holds ""). dwFlags,
// lpDefaultChar and lpUsedDefaultChar are ignored.
KAVO_API int WideCharToMultiByte(unsigned int CodePage, unsigned int dwFlags, unsigned short const* lpWideCharStr,
                                 int cchWideChar, char* lpMultiByteStr, int cbMultiByte, char const* lpDefaultChar,
                                 int* lpUsedDefaultChar);

// Converts cbMultiByte bytes of lpMultiByteStr (-1: up to its zero byte) to
// 16-bit units. The result is the number of characters of the whole
// converted text with its terminator, even when lpWideCharStr is null or too
// small (cut and terminated), or 0 when no character set could convert it
// (the output is then untouched). Characters above U+FFFF keep their low
// 16 bits.
KAVO_API int MultiByteToWideChar(unsigned int CodePage, unsigned int dwFlags, char const* lpMultiByteStr,
                                 int cbMultiByte, unsigned short* lpWideCharStr, int cchWideChar);

// No multibyte code page is ever in effect.
KAVO_API int _getmbcp();

extern template KAVO_API unsigned int UnicodeStringLen<unsigned short>(unsigned short const*);
extern template KAVO_API unsigned int UnicodeStringLen<wchar_t>(wchar_t const*);

// Copies at most n elements of src (all for n = -1) with plain integer
// conversion and terminates. A null dst is allocated with array new, sized
// by the whole source. A null src gives null. char widens sign-extended, so
// the byte 0xE9 becomes 0xFFE9.
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
extern template KAVO_API unsigned short* ConvertUnicodeGeneric<char, unsigned short>(char const*, unsigned short*, int);
extern template KAVO_API unsigned short* ConvertUnicodeGeneric<unsigned short, unsigned short>(unsigned short const*,
                                                                                              unsigned short*, int);
extern template KAVO_API char* ConvertUnicodeGeneric<unsigned short, char>(unsigned short const*, char*, int);
extern template KAVO_API unsigned short* ConvertUnicodeGeneric<wchar_t, unsigned short>(wchar_t const*,
                                                                                       unsigned short*, int);
extern template KAVO_API wchar_t* ConvertUnicodeGeneric<unsigned short, wchar_t>(unsigned short const*, wchar_t*,
                                                                                int);

// As ConvertUnicodeGeneric, except that 16-bit text going to char is
// converted through the code page (plain narrowing when that fails).
template <typename S, typename D>
D* ConvertUnicodeWithCodePage(unsigned int codePage, S const* src, D* dst, int n);
extern template KAVO_API char* ConvertUnicodeWithCodePage<char, char>(unsigned int, char const*, char*, int);
extern template KAVO_API unsigned short* ConvertUnicodeWithCodePage<wchar_t, unsigned short>(unsigned int,
                                                                                            wchar_t const*,
                                                                                            unsigned short*, int);
extern template KAVO_API wchar_t* ConvertUnicodeWithCodePage<unsigned short, wchar_t>(unsigned int,
                                                                                     unsigned short const*, wchar_t*,
                                                                                     int);
template <>
KAVO_API char* ConvertUnicodeWithCodePage<unsigned short, char>(unsigned int codePage, unsigned short const* src,
                                                                char* dst, int n);

// ConvertUnicodeWithCodePage with code page 1: the locale's character set.
template <typename S, typename D>
D* ConvertUnicode(S const* src, D* dst, int n);
extern template KAVO_API char* ConvertUnicode<char, char>(char const*, char*, int);
extern template KAVO_API char* ConvertUnicode<unsigned short, char>(unsigned short const*, char*, int);
extern template KAVO_API unsigned short* ConvertUnicode<wchar_t, unsigned short>(wchar_t const*, unsigned short*,
                                                                                int);
extern template KAVO_API wchar_t* ConvertUnicode<unsigned short, wchar_t>(unsigned short const*, wchar_t*, int);

// Converts src to multibyte text in the code page. With a null dst the
// result is a new array the caller frees with delete[]; a given dst must
// hold the whole text (it is copied unbounded). n is not used. Null when
// src is null or the text cannot be converted.
template <typename T>
char* ConvertUnicodeToMultiByte(unsigned int codePage, T const* src, char* dst, int n);
extern template KAVO_API char* ConvertUnicodeToMultiByte<char>(unsigned int, char const*, char*, int);
extern template KAVO_API char* ConvertUnicodeToMultiByte<unsigned short>(unsigned int, unsigned short const*, char*,
                                                                        int);
extern template KAVO_API char* ConvertUnicodeToMultiByte<wchar_t>(unsigned int, wchar_t const*, char*, int);

// Converts n bytes of multibyte text (-1: up to its terminator) from the
// code page into T, through ConvertUnicodeGeneric (so a null dst gives a
// new array the caller frees with delete[]). Null when it cannot be
// converted.
template <typename T>
T* ConvertUnicodeFromMultiByte(unsigned int codePage, char const* src, T* dst, int n);
extern template KAVO_API char* ConvertUnicodeFromMultiByte<char>(unsigned int, char const*, char*, int);
extern template KAVO_API unsigned short* ConvertUnicodeFromMultiByte<unsigned short>(unsigned int, char const*,
                                                                                    unsigned short*, int);
extern template KAVO_API wchar_t* ConvertUnicodeFromMultiByte<wchar_t>(unsigned int, char const*, wchar_t*, int);

// Copies at most n elements (all for -1) and terminates.
template <typename T>
void UnicodeStrCpy(T* dst, T const* src, int n);
extern template KAVO_API void UnicodeStrCpy<char>(char*, char const*, int);

// Appends src behind the terminator of dst.
template <typename T>
void UnicodeStrCat(T* dst, T const* src);
extern template KAVO_API void UnicodeStrCat<char>(char*, char const*);
