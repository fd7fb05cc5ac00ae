// The runtime the library exports: the string class and the device keys
// made with it, code-page conversion, and the bounded CRT functions.
#include <errno.h>
#include <gtest/gtest.h>
#include <locale.h>
#include <string.h>

#include <functional>
#include <memory>

#include "device/registry_internal.h"
#include "runtime/charset.h"
#include "runtime/crt.h"
#include "runtime/string.h"

namespace {

// Buffers grow by one rule and keep a zero tail; appends and assignments
// may come from the string's own buffer; Format cuts at 16383 characters.
TEST(BasicString, GrowthSelfReferencesAndFormatLimit) {
  const std::pair<const char*, int> capacities[] = {{"", 6}, {"abcd", 6}, {"abcde", 12}};
  for (const auto& row : capacities) EXPECT_EQ(row.second, CBasicString<char>(row.first, -1).GetCapacity()) << row.first;
  CBasicString<char> key;
  key.Format("h%02dc%02dt%02dd%02d", 0, 0, 0, 0);
  const CBasicString<char> copy(key);
  ASSERT_EQ(26, key.GetCapacity()) << "grown to 2n + 2 for 12 characters";
  ASSERT_EQ(26, copy.GetCapacity());
  EXPECT_EQ(std::string(14, '\0'), std::string(copy.GetString() + 12, 14));
  const char raw[3] = {'x', 'y', 'z'};
  EXPECT_STREQ("xy", CBasicString<char>(raw, 2).GetString()) << "exactly len bytes of unterminated text";
  CBasicString<char> s("abcd", -1);
  s += s.GetString();
  s += s.GetString() + 4;
  EXPECT_STREQ("abcdabcdabcd", s.GetString());
  s = s.GetString() + 9;
  EXPECT_STREQ("bcd", s.GetString());
  EXPECT_EQ(3, s.GetLength());
  s.Format("%s", std::string(20000, 'q').c_str());
  EXPECT_EQ(std::string(16383, 'q'), s.GetString());
  EXPECT_EQ(16383, s.GetLength());
  s.Format("%d-%s", 7, "x");
  EXPECT_STREQ("7-x", s.GetString());
  EXPECT_GE(s.GetCapacity(), 16385) << "a buffer never shrinks";
}

TEST(UnicodeStringCmp, EndOfStringDecidesBeforeCharacters) {
  const struct {
    const char *left, *right;
    int count, result;
  } rows[] = {{"b", "ab", -1, -1},    {"ab", "b", -1, 1},   {"a", "ab", -1, -1},       {"abc", "abc", -1, 0},
              {"abc", "abd", -1, -1}, {"abc", "abd", 2, 0}, {"x", "y", 0, 0},          {"x", "y", -2, 0},
              {nullptr, "", -1, -1},  {"", nullptr, -1, 1}, {nullptr, nullptr, -1, 0}, {"", "a", -1, -1},
              {"\xE9", "e", -1, -1}};  // bytes above 0x7F sort before ASCII
  for (const auto& row : rows) EXPECT_EQ(row.result, UnicodeStringCmp<char>(row.left, row.right, row.count)) << &row - rows;
  EXPECT_EQ(0u, UnicodeStringLen<char>(nullptr));
}

// The key is built by hand on the request path; it reads as the format makes it.
TEST(DeviceKey, ReadsAsTheFormatMakesIt) {
  for (int value : {-100, -5, 0, 7, 10, 99, 100, 255, 1000, 2147483647}) {
    for (int field = 0; field < 4; ++field) {
      int n[4] = {3, 0, 1, 0};
      n[field] = value;
      CBasicString<char> expected;
      expected.Format("h%02dc%02dt%02dd%02d", n[0], n[1], n[2], n[3]);
      const CBasicString<char> made = SCSI_MakeDeviceKey(n[0], n[1], n[2], n[3]);
      EXPECT_STREQ(expected.GetString(), made.GetString()) << "field " << field << " = " << value;
      EXPECT_EQ(expected.GetLength(), made.GetLength());
    }
  }
  EXPECT_EQ(26, SCSI_MakeDeviceKey(0, 0, 0, 0).GetCapacity()) << "the growth rule's buffer for 12 characters";
}

using Units = std::vector<unsigned short>;

Units UnitsOf(const unsigned short* text) {
  Units units;
  for (; *text != 0; ++text) units.push_back(*text);
  return units;
}

// Text no set of the code page takes goes down the fallback list; the first
// set that takes it wins. Results count the terminator.
TEST(CodePages, ConvertBothWaysWithFallbacks) {
  const struct {
    unsigned int codePage;
    std::string bytes;
    Units units;
    int toWide, toBytes;  // results; 0: fails
  } rows[] = {
      {kCodePageUtf8, "K\xC3\xA9\xE6\x97\xA5\xE6\x9C\xAC\xE2\x82\xAC", {'K', 0xE9, 0x65E5, 0x672C, 0x20AC}, 6, 13},
      {kCodePageUtf7, "a+-b", {'a', '+', 'b'}, 4, 5},
      {kCodePageUtf8, "a+b", {'a', '+', 'b'}, 4, 4},
      {0, "abc", {'a', 'b', 'c'}, 4, 4},
      {kCodePageUtf8, "\xF0\x9F\x98\x80", {0xF600}, 2, 0},  // beyond 16 bits the low bits stay
      {932, "\x93\xFA\x96\x7B", {0x93, 0xFA, 0x96, 0x7B}, 5, 0},  // ISO-8859-1 wins long before Shift-JIS
      {0, "\xA4\xA2", {0x3042}, 2, 0},              // EUC-JP before EUC-KR
      {kCodePageUtf8, "\xA4\xA2", {0x3042}, 2, 0},  // also for invalid UTF-8
      {0, "\xA9\xA1", {0x00E6}, 2, 0},              // not EUC-JP; EUC-KR before ISO-8859-1
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.bytes);
    unsigned short wide[64] = {0};
    EXPECT_EQ(row.toWide, MultiByteToWideChar(row.codePage, 0, row.bytes.c_str(), -1, wide, 64));
    EXPECT_EQ(row.units, UnitsOf(wide));
    if (row.toBytes == 0) continue;
    Units text = row.units;
    text.push_back(0);
    char bytes[64];
    EXPECT_EQ(row.toBytes, WideCharToMultiByte(row.codePage, 0, text.data(), -1, bytes, 64, nullptr, nullptr));
    EXPECT_EQ(row.bytes, bytes);
  }
  const unsigned short lone[] = {'a', 0xD800, 0};  // a surrogate fails every set but UTF-7
  for (unsigned int codePage : {0u, 932u, kCodePageUtf8, kCodePageUtf7}) {
    char out[16] = "xxxxxxx";
    EXPECT_EQ(codePage == kCodePageUtf7, WideCharToMultiByte(codePage, 0, lone, -1, out, 16, nullptr, nullptr) > 0);
    EXPECT_EQ(codePage == kCodePageUtf7, out[0] != 0) << codePage;
  }
  if (setlocale(LC_ALL, "C.UTF-8") == nullptr) GTEST_SKIP() << "no C.UTF-8 locale";
  char out[8];
  const unsigned short accented[] = {0x68, 0xE9, 0};
  WideCharToMultiByte(0, 0, accented, -1, out, 8, nullptr, nullptr);
  EXPECT_STREQ("h\xC3\xA9", out) << "the locale's set comes first";
  setlocale(LC_ALL, "C");
}

// Both directions report the full size and cut the output to the buffer; a
// count converts only those units, and one past the terminator reads no further.
TEST(CodePages, FullSizeIsReportedAndTheOutputCut) {
  const unsigned short abc[] = {'a', 'b', 'c', 0};
  const struct {
    int count, room, result;
    std::string out;
  } rows[] = {{-1, 0, 4, "xxx"}, {-1, 2, 4, std::string("a\0x", 3)}, {2, 4, 3, std::string("ab\0", 3)},
              {1000, 4, 4, std::string("abc", 3)}};
  for (const auto& row : rows) {
    char out[4] = "xxx";
    EXPECT_EQ(row.result, WideCharToMultiByte(kCodePageUtf8, 0, abc, row.count, row.room ? out : nullptr, row.room,
                                              nullptr, nullptr));
    EXPECT_EQ(row.out, std::string(out, 3)) << row.count << " " << row.room;
  }
  EXPECT_EQ(0, WideCharToMultiByte(kCodePageUtf8, 0, nullptr, -1, nullptr, 4, nullptr, nullptr));
  unsigned short wide[3] = {1, 1, 1};
  EXPECT_EQ(3, MultiByteToWideChar(kCodePageUtf8, 0, "h\xC3\xA9", -1, wide, 2));
  EXPECT_EQ((Units{0x68, 0, 1}), Units(wide, wide + 3));
}

// char is widened sign-extended, wider units narrowed to their low bits;
// 16-bit text goes through the code page where it converts.
TEST(ConvertUnicode, WidensSignExtendedNarrowsToTheLowBitsAndPrefersTheCodePage) {
  unsigned short wide[4];
  ConvertUnicodeGeneric<char, unsigned short>("\xE9", wide, -1);
  EXPECT_EQ(0xFFE9, wide[0]);
  const unsigned short units[] = {0x4142, 0xFFE9, 0}, accented[] = {0xE9, 0}, lone[] = {'x', 0xD841, 0};
  char narrow[8];
  ConvertUnicodeGeneric<unsigned short, char>(units, narrow, 1);
  EXPECT_STREQ("B", narrow);
  EXPECT_EQ(nullptr, (ConvertUnicodeGeneric<unsigned short, char>(nullptr, narrow, -1)));
  ConvertUnicode<unsigned short, char>(accented, narrow, -1);
  EXPECT_STREQ("\xC3\xA9", narrow);
  ConvertUnicode<unsigned short, char>(lone, narrow, -1);
  EXPECT_STREQ("xA", narrow) << "a lone surrogate converts nowhere and is narrowed";
  const wchar_t hAccent[] = {'h', 0xE9, 0};
  std::unique_ptr<char[]> made(ConvertUnicodeToMultiByte<wchar_t>(kCodePageUtf8, hAccent, nullptr, -1));
  EXPECT_STREQ("h\xC3\xA9", made.get());
  std::unique_ptr<char[]> fromChar(ConvertUnicodeToMultiByte<char>(kCodePageUtf8, "\xE9", nullptr, -1));
  EXPECT_STREQ("\xEF\xBF\xA9", fromChar.get());
  EXPECT_EQ(nullptr, ConvertUnicodeToMultiByte<unsigned short>(kCodePageUtf8, lone + 1, narrow, -1));
  EXPECT_EQ(wide, ConvertUnicodeFromMultiByte<unsigned short>(kCodePageUtf8, "h\xC3\xA9", wide, -1));
  EXPECT_EQ((Units{0x68, 0xE9}), UnitsOf(wide));
  ConvertUnicodeFromMultiByte<char>(kCodePageUtf8, "h\xC3\xA9", narrow, -1);
  EXPECT_STREQ("h\xE9", narrow);
}

const int kUntouched = 12345;  // an errno value no function here stores

// Each call starts on a buffer holding "ab" with errno at kUntouched: the
// result, the text left behind, and errno (kUntouched: not set).
TEST(BoundedText, ResultTextAndErrnoOfEachCall) {
  const struct {
    const char* what;
    std::function<int(char*)> call;
    int result;
    const char* text;
    int errnoAfter;
  } rows[] = {
      {"strcpy_s fits", [](char* d) { return strcpy_s(d, 4, "abc"); }, 0, "abc", kUntouched},
      {"strcpy_s no room", [](char* d) { return strcpy_s(d, 3, "abc"); }, ERANGE, "", ERANGE},
      {"strcpy_s null", [](char* d) { return strcpy_s(d, 4, nullptr); }, EINVAL, "", EINVAL},
      {"strncpy_s count", [](char* d) { return strncpy_s(d, 4, "abcdef", 3); }, 0, "abc", kUntouched},
      {"strncpy_s no room", [](char* d) { return strncpy_s(d, 3, "abcdef", 3); }, ERANGE, "", ERANGE},
      {"strncpy_s truncate", [](char* d) { return strncpy_s(d, 3, "abcdef", kTruncateCount); }, 80, "ab", kUntouched},
      {"strncpy_s fits truncate", [](char* d) { return strncpy_s(d, 3, "xy", kTruncateCount); }, 0, "xy", kUntouched},
      {"strncpy_s null", [](char* d) { return strncpy_s(d, 5, nullptr, 1); }, EINVAL, "", EINVAL},
      {"strcat_s no room", [](char* d) { return strcat_s(d, 4, "cd"); }, ERANGE, "", ERANGE},
      {"strcat_s fits", [](char* d) { return strcat_s(d, 4, "c"); }, 0, "abc", kUntouched},
      {"strncat_s count", [](char* d) { return strncat_s(d, 6, "cdef", 3); }, 0, "abcde", kUntouched},
      {"strncat_s no room", [](char* d) { return strncat_s(d, 5, "cdef", 3); }, ERANGE, "", ERANGE},
      {"strncat_s truncate", [](char* d) { return strncat_s(d, 5, "cdef", kTruncateCount); }, 80, "abcd", kUntouched},
      {"strncat_s unterminated", [](char* d) { return strncat_s(d, 2, "a", 0); }, EINVAL, "", EINVAL},
      {"_strupr_s", [](char* d) { return _strupr_s(d, 3); }, 0, "AB", kUntouched},
      {"_strlwr_s unterminated", [](char* d) { return _strlwr_s(d, 2); }, EINVAL, "", EINVAL},
      {"_itoa_s no room", [](char* d) { return _itoa_s(-5, d, 2, 10); }, ERANGE, "", ERANGE},
      {"_itoa_s fits", [](char* d) { return _itoa_s(-5, d, 3, 10); }, 0, "-5", kUntouched},
      {"_itoa_s radix", [](char* d) { return _itoa_s(7, d, 8, 37); }, EINVAL, "", EINVAL},
      {"_snprintf_s truncate", [](char* d) { return _snprintf_s(d, 8, kTruncateCount, "%s", "abcdefghijkl"); }, -1,
       "abcdefg", kUntouched},
      {"_snprintf_s count", [](char* d) { return _snprintf_s(d, 8, 5, "%s", "abcdefghijkl"); }, -1, "abcde",
       kUntouched},
      {"_snprintf_s no room", [](char* d) { return _snprintf_s(d, 8, 10, "%s", "abcdefghijkl"); }, -1, "", ERANGE},
      {"_snprintf_s fits", [](char* d) { return _snprintf_s(d, 8, kTruncateCount, "%d", 1234567); }, 7, "1234567",
       kUntouched},
      {"sprintf_s no room", [](char* d) { return sprintf_s(d, 4, "%s", "abcd"); }, -1, "", ERANGE},
      {"sprintf_s fits", [](char* d) { return sprintf_s(d, 5, "%s", "abcd"); }, 4, "abcd", kUntouched},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    char buffer[16] = "ab";
    errno = kUntouched;
    EXPECT_EQ(row.result, row.call(buffer));
    EXPECT_STREQ(row.text, buffer);
    EXPECT_EQ(row.errnoAfter, errno);
  }
  unsigned short wide[3] = {9, 9, 9};
  const unsigned short abcd[] = {'a', 'b', 'c', 'd', 0};
  EXPECT_EQ(ERANGE, wcscpy_s(wide, 2, abcd));
  EXPECT_EQ(0, wide[0]);
  EXPECT_EQ(80, wcsncpy_s(wide, 3, abcd, kTruncateCount));
  EXPECT_EQ((std::vector<unsigned short>{'a', 'b', 0}), std::vector<unsigned short>(wide, wide + 3));
}

// Text functions outside the bounded family, and the memory copies whose
// sizes count bytes or 16-bit units; a failed copy zeroes the whole destination.
TEST(BoundedText, TokensIntegersCaseOrderAndCopies) {
  char text[] = ",,a,,b,", split[] = "x\xE9y\xE9", dst[40], mixed[] = "MiXeD 1\xE9", even[] = "abcd", *context = nullptr;
  const std::vector<std::string> tokens = {strtok_s(text, ",", &context), strtok_s(nullptr, ",", &context),
                                           strtok_s(split, "\xE9", &context), strtok_s(nullptr, "\xE9", &context)};
  EXPECT_EQ((std::vector<std::string>{"a", "b", "x", "y"}), tokens);
  context = nullptr;
  EXPECT_EQ(nullptr, strtok_s(nullptr, ",", &context));
  EXPECT_EQ(EINVAL, errno);
  EXPECT_STREQ("-2147483648", _itoa(-2147483647 - 1, dst, 10));
  EXPECT_STREQ("z", _itoa(35, dst, 36));
  EXPECT_STREQ("ffffffff", _itoa(-1, dst, 16));
  EXPECT_STREQ("MIXED 1\xE9", _strupr(mixed));
  EXPECT_STREQ("dcba", _strrev(even));
  const char bytes[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  char small[6] = {9, 9, 9, 9, 9, 9};
  EXPECT_EQ(ERANGE, memcpy_s(small, 4, bytes, 8));
  EXPECT_EQ(std::string(4, '\0') + "\x09\x09", std::string(small, 6));
  EXPECT_EQ(0, memcpy_s(nullptr, 4, bytes, 0));
  const unsigned short units[3] = {0x1111, 0x2222, 0x3333};
  unsigned short wide[3] = {7, 7, 7};
  EXPECT_EQ(0, wmemcpy_s(wide, 2, units, 2));
  EXPECT_EQ(0x2222, wide[1]);
  EXPECT_EQ(ERANGE, wmemcpy_s(wide, 2, units, 3));
  EXPECT_EQ((std::vector<unsigned short>{0, 0, 7}), std::vector<unsigned short>(wide, wide + 3));
  EXPECT_EQ(ERANGE, wmemcpy_s(wide, 2, units, 0x80000001u));
}

// Short buffers and negative times are refused without touching errno.
TEST(BoundedText, Times) {
  const long when = 86400L * 365, before = -1;
  const time_t whenTime = when;
  char buf[32] = "zz", expected[32];
  tm record, reference;
  errno = kUntouched;
  EXPECT_EQ(EINVAL, ctime_s(buf, 25, &when));
  EXPECT_EQ(0, buf[0]);
  EXPECT_EQ(EINVAL, ctime_s(buf, 26, &before));
  EXPECT_EQ(EINVAL, localtime_s(&record, &before));
  EXPECT_EQ(-1, record.tm_mday) << "every field set to -1";
  EXPECT_EQ(0, localtime_s(&record, &when));
  EXPECT_EQ(localtime_r(&whenTime, &reference)->tm_yday, record.tm_yday);
  EXPECT_EQ(kUntouched, errno);
  EXPECT_EQ(kUntouched, ctime_s(buf, 26, &when)) << "a success returns errno as it stands";
  EXPECT_STREQ(ctime_r(&whenTime, expected), buf);
}

}  // namespace
