#include "runtime/charset.h"

#include <iconv.h>
#include <string.h>

#include <algorithm>
#include <memory>

namespace {

// iconv's name for the 32-bit side of every conversion.
const char kWideCharset[] = "WCHAR_T";
// iconv's name for the current locale's character set.
const char kLocaleCharset[] = "";

// Tried in this order when neither the code page nor the locale's set
// converts a text; the first set that takes the whole text wins, so the
// order decides between sets that would all accept it.
const char* const kFallbackCharsets[] = {
    "UTF-8",      "EUC-JP",     "EUC-KR",   "EUC-TW",      "ISO-8859-1", "ISO-8859-15", "ISO-8859-2",
    "ISO-8859-8", "ISO-8859-13", "SJIS",    "KOI8-R",      "KOI8-U",     "KOI8-T",      "TIS-620",
    "ISO-8859-9", "BIG-5",      "GBK",      "GB2312",      "GB18030",    "ISO-8859-5",  "ISO-8859-6",
    "ISO-8859-7", "ISO-8859-14", "CP1251",  "CP1255",      "TCVN5712-1", "PT154",
};
const size_t kFallbackCount = sizeof kFallbackCharsets / sizeof kFallbackCharsets[0];

enum class Direction { ToCharset, FromCharset };

// The working buffer of one conversion: every attempt writes into its first
// outputBytes bytes.
struct WorkBuffer {
  char* data;
  size_t size;
  size_t outputBytes;
};

// One iconv call over the whole input; true only when nothing went wrong
// (an invalid or incomplete sequence or a full output all count as failure).
bool ConvertWith(const char* charset, Direction direction, const char* input, size_t inputBytes,
                 const WorkBuffer& work) {
  const iconv_t descriptor = direction == Direction::ToCharset ? iconv_open(charset, kWideCharset)
                                                               : iconv_open(kWideCharset, charset);
  if (descriptor == reinterpret_cast<iconv_t>(-1)) return false;
  char* in = const_cast<char*>(input);
  size_t inLeft = inputBytes;
  char* out = work.data;
  size_t outLeft = work.outputBytes;
  const size_t converted = iconv(descriptor, &in, &inLeft, &out, &outLeft);
  iconv_close(descriptor);
  return converted != static_cast<size_t>(-1);
}

// The code page's own Unicode form, then the locale's set, then the
// fallback list. The list's attempts start from a cleared buffer; the ones
// before it write over whatever the previous attempt left.
bool ConvertThroughCodePage(unsigned int codePage, Direction direction, const char* input, size_t inputBytes,
                            const WorkBuffer& work) {
  size_t firstFallback = 0;
  if (codePage == kCodePageUtf7) {
    if (ConvertWith("UTF-7", direction, input, inputBytes, work)) return true;
  } else if (codePage == kCodePageUtf8) {
    if (ConvertWith("UTF-8", direction, input, inputBytes, work)) return true;
    firstFallback = 1;  // the list's first entry is UTF-8, just tried
  }
  if (ConvertWith(kLocaleCharset, direction, input, inputBytes, work)) return true;
  for (size_t i = firstFallback; i < kFallbackCount; ++i) {
    memset(work.data, 0, work.size);
    if (ConvertWith(kFallbackCharsets[i], direction, input, inputBytes, work)) return true;
  }
  return false;
}

}  // namespace

// A null source converts nothing: the result is 0, as for a text no
// character set takes, and a given output holds "". A negative count other
// than -1 is read as -1, and a count beyond the terminator stops at it, so a
// bad count can never make the conversion read past the source.
int WideCharToMultiByte(unsigned int CodePage, unsigned int, unsigned short const* lpWideCharStr, int cchWideChar,
                        char* lpMultiByteStr, int cbMultiByte, char const*, int*) {
  const bool writesOutput = lpMultiByteStr != nullptr && cbMultiByte > 0;
  if (writesOutput) lpMultiByteStr[0] = 0;
  if (lpWideCharStr == nullptr) return 0;

  std::unique_ptr<wchar_t[]> wide(ConvertUnicode<unsigned short, wchar_t>(lpWideCharStr, nullptr, -1));
  const size_t length = UnicodeStringLen(wide.get());
  size_t units = length;
  if (cchWideChar >= 0) units = std::min(static_cast<size_t>(cchWideChar), length + 1);
  const size_t inputBytes = units * sizeof(wchar_t);

  // The last byte is never handed to iconv, so the text always ends in zero.
  std::unique_ptr<char[]> text(new char[inputBytes + 1]());
  const WorkBuffer work = {text.get(), inputBytes + 1, inputBytes};
  if (!ConvertThroughCodePage(CodePage, Direction::ToCharset, reinterpret_cast<const char*>(wide.get()), inputBytes,
                              work)) {
    return 0;
  }
  const size_t textLength = strlen(text.get());
  if (writesOutput) {
    memset(lpMultiByteStr, 0, static_cast<size_t>(cbMultiByte));
    strncpy(lpMultiByteStr, text.get(), static_cast<size_t>(cbMultiByte));
    lpMultiByteStr[cbMultiByte - 1] = 0;
  }
  return static_cast<int>(textLength + 1);
}

// A null source converts nothing: the result is 0 and the output is left
// alone, as for a text no character set takes. Any negative count means
// "up to the terminator".
int MultiByteToWideChar(unsigned int CodePage, unsigned int, char const* lpMultiByteStr, int cbMultiByte,
                        unsigned short* lpWideCharStr, int cchWideChar) {
  if (lpMultiByteStr == nullptr) return 0;
  const size_t inputBytes = cbMultiByte < 0 ? strlen(lpMultiByteStr) : static_cast<size_t>(cbMultiByte);

  // A byte never yields more than one character, so the last element stays
  // zero whatever the set.
  std::unique_ptr<wchar_t[]> text(new wchar_t[inputBytes + 1]());
  const size_t workBytes = (inputBytes + 1) * sizeof(wchar_t);
  const WorkBuffer work = {reinterpret_cast<char*>(text.get()), workBytes, workBytes};
  if (!ConvertThroughCodePage(CodePage, Direction::FromCharset, lpMultiByteStr, inputBytes, work)) return 0;

  const unsigned int characters = UnicodeStringLen(text.get());
  if (lpWideCharStr != nullptr && cchWideChar > 0) {
    const unsigned int room = static_cast<unsigned int>(cchWideChar - 1);
    const unsigned int copied = characters < room ? characters : room;
    for (unsigned int i = 0; i < copied; ++i) lpWideCharStr[i] = static_cast<unsigned short>(text[i]);
    lpWideCharStr[copied] = 0;
  }
  return static_cast<int>(characters + 1);
}

int _getmbcp() { return 0; }

template <typename S, typename D>
D* ConvertUnicodeWithCodePage(unsigned int, S const* src, D* dst, int n) {
  return ConvertUnicodeGeneric<S, D>(src, dst, n);
}

template <>
KAVO_API char* ConvertUnicodeWithCodePage<unsigned short, char>(unsigned int codePage, unsigned short const* src,
                                                                char* dst, int n) {
  char* converted = ConvertUnicodeToMultiByte<unsigned short>(codePage, src, dst, n);
  if (converted != nullptr) return converted;
  return ConvertUnicodeGeneric<unsigned short, char>(src, dst, n);
}

template <typename S, typename D>
D* ConvertUnicode(S const* src, D* dst, int n) {
  return ConvertUnicodeWithCodePage<S, D>(1, src, dst, n);
}

template <typename T>
char* ConvertUnicodeToMultiByte(unsigned int codePage, T const* src, char* dst, int) {
  std::unique_ptr<unsigned short[]> wide(ConvertUnicodeGeneric<T, unsigned short>(src, nullptr, -1));
  if (!wide) return nullptr;
  const int size = WideCharToMultiByte(codePage, 0, wide.get(), -1, nullptr, 0, nullptr, nullptr);
  if (size == 0) return nullptr;
  std::unique_ptr<char[]> text(new char[size]);
  WideCharToMultiByte(codePage, 0, wide.get(), -1, text.get(), size, nullptr, nullptr);
  if (dst == nullptr) return text.release();
  strcpy(dst, text.get());
  return dst;
}

template <typename T>
T* ConvertUnicodeFromMultiByte(unsigned int codePage, char const* src, T* dst, int n) {
  const int count = MultiByteToWideChar(codePage, 0, src, n, nullptr, 0);
  if (count == 0) return nullptr;
  std::unique_ptr<unsigned short[]> wide(new unsigned short[count + 1]());
  if (MultiByteToWideChar(codePage, 0, src, n, wide.get(), count) == 0) return nullptr;
  return ConvertUnicodeGeneric<unsigned short, T>(wide.get(), dst, n);
}

template <typename T>
void UnicodeStrCpy(T* dst, T const* src, int n) {
  ConvertUnicode<T, T>(src, dst, n);
}

template <typename T>
void UnicodeStrCat(T* dst, T const* src) {
  UnicodeStrCpy<T>(dst + UnicodeStringLen(dst), src, -1);
}

template KAVO_API unsigned int UnicodeStringLen<unsigned short>(unsigned short const*);
template KAVO_API unsigned int UnicodeStringLen<wchar_t>(wchar_t const*);

template KAVO_API char* ConvertUnicodeGeneric<char, char>(char const*, char*, int);
template KAVO_API unsigned short* ConvertUnicodeGeneric<char, unsigned short>(char const*, unsigned short*, int);
template KAVO_API unsigned short* ConvertUnicodeGeneric<unsigned short, unsigned short>(unsigned short const*,
                                                                                       unsigned short*, int);
template KAVO_API char* ConvertUnicodeGeneric<unsigned short, char>(unsigned short const*, char*, int);
template KAVO_API unsigned short* ConvertUnicodeGeneric<wchar_t, unsigned short>(wchar_t const*, unsigned short*, int);
template KAVO_API wchar_t* ConvertUnicodeGeneric<unsigned short, wchar_t>(unsigned short const*, wchar_t*, int);

template KAVO_API char* ConvertUnicodeWithCodePage<char, char>(unsigned int, char const*, char*, int);
template KAVO_API unsigned short* ConvertUnicodeWithCodePage<wchar_t, unsigned short>(unsigned int, wchar_t const*,
                                                                                     unsigned short*, int);
template KAVO_API wchar_t* ConvertUnicodeWithCodePage<unsigned short, wchar_t>(unsigned int, unsigned short const*,
                                                                              wchar_t*, int);

template KAVO_API char* ConvertUnicode<char, char>(char const*, char*, int);
template KAVO_API char* ConvertUnicode<unsigned short, char>(unsigned short const*, char*, int);
template KAVO_API unsigned short* ConvertUnicode<wchar_t, unsigned short>(wchar_t const*, unsigned short*, int);
template KAVO_API wchar_t* ConvertUnicode<unsigned short, wchar_t>(unsigned short const*, wchar_t*, int);

template KAVO_API char* ConvertUnicodeToMultiByte<char>(unsigned int, char const*, char*, int);
template KAVO_API char* ConvertUnicodeToMultiByte<unsigned short>(unsigned int, unsigned short const*, char*, int);
template KAVO_API char* ConvertUnicodeToMultiByte<wchar_t>(unsigned int, wchar_t const*, char*, int);

template KAVO_API char* ConvertUnicodeFromMultiByte<char>(unsigned int, char const*, char*, int);
template KAVO_API unsigned short* ConvertUnicodeFromMultiByte<unsigned short>(unsigned int, char const*,
                                                                             unsigned short*, int);
template KAVO_API wchar_t* ConvertUnicodeFromMultiByte<wchar_t>(unsigned int, char const*, wchar_t*, int);

template KAVO_API void UnicodeStrCpy<char>(char*, char const*, int);
template KAVO_API void UnicodeStrCat<char>(char*, char const*);
