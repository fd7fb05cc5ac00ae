// The runtime the library exports: the string class, code-page conversion,
// the bounded CRT functions and the system's name, as tables of inputs.
#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>

#include <functional>

#include "runtime/charset.h"
#include "runtime/crt.h"
#include "runtime/string.h"
#include "runtime/system.h"
#include "tests/fixture/world.h"

namespace {

// Buffers grow to twice the length plus two, zero-filled behind the text.
TEST(BasicString, GrowsByOneRuleAndComparesByteWise) {
  const std::pair<const char*, int> capacities[] = {{"", 6}, {"abcd", 6}, {"abcde", 12}};
  for (const auto& row : capacities) EXPECT_EQ(row.second, CBasicString<char>(row.first, -1).GetCapacity()) << row.first;
  CBasicString<char> key;
  key.Format("h%02dc%02dt%02dd%02d", 0, 0, 0, 0);
  EXPECT_EQ(26, key.GetCapacity()) << "grown for 12 characters";
  const struct { const char *left, *right; int count, result; } rows[] = {
      {"b", "ab", -1, -1},    {"ab", "b", -1, 1},   {"abc", "abc", -1, 0},
      {"abc", "abd", -1, -1}, {"abc", "abd", 2, 0}, {nullptr, "", -1, -1},
      {"\xE9", "e", -1, -1}};  // bytes above 0x7F sort before ASCII
  for (const auto& row : rows) EXPECT_EQ(row.result, UnicodeStringCmp<char>(row.left, row.right, row.count)) << &row - rows;
}

using Units = std::vector<unsigned short>;

// Text no set of the code page takes goes down the fallback list; the first
// set that takes it wins. Results count the terminator; 0 is a failure, -1
// not tried.
TEST(CodePages, ConvertBothWaysWithFallbacks) {
  const unsigned short kLoneSurrogate = 0xD800;
  const struct {
    unsigned int codePage;
    std::string bytes;
    Units units;
    int toWide, toBytes;
  } rows[] = {
      {kCodePageUtf8, "K\xC3\xA9\xE6\x97\xA5\xE2\x82\xAC", {'K', 0xE9, 0x65E5, 0x20AC}, 5, 10},
      {kCodePageUtf7, "a+-b", {'a', '+', 'b'}, 4, 5},
      {kCodePageUtf7, "+2A", {kLoneSurrogate}, -1, 4},  // only UTF-7 carries a lone surrogate
      {kCodePageUtf8, "", {kLoneSurrogate}, -1, 0},
      {932, "\x93\xFA", {0x93, 0xFA}, 3, -1},  // ISO-8859-1 wins long before Shift-JIS
      {0, "\xA4\xA2", {0x3042}, 2, -1},        // EUC-JP before EUC-KR
      {0, "\xA9\xA1", {0x00E6}, 2, -1},        // not EUC-JP; EUC-KR before ISO-8859-1
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.bytes);
    unsigned short wide[16] = {0};
    if (row.toWide != -1) {
      EXPECT_EQ(row.toWide, MultiByteToWideChar(row.codePage, 0, row.bytes.c_str(), -1, wide, 16));
      EXPECT_EQ(row.units, Units(wide, wide + row.toWide - 1));
    }
    if (row.toBytes == -1) continue;
    Units text = row.units;
    text.push_back(0);
    char bytes[16] = "";
    EXPECT_EQ(row.toBytes, WideCharToMultiByte(row.codePage, 0, text.data(), -1, bytes, 16, nullptr, nullptr));
    if (row.toBytes != 0) {
      EXPECT_EQ(row.bytes, bytes);
    }
  }
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
      {"strncpy_s truncate", [](char* d) { return strncpy_s(d, 3, "abcdef", kTruncateCount); }, 80, "ab", kUntouched},
      {"strcat_s no room", [](char* d) { return strcat_s(d, 4, "cd"); }, ERANGE, "", ERANGE},
      {"strncat_s truncate", [](char* d) { return strncat_s(d, 5, "cdef", kTruncateCount); }, 80, "abcd", kUntouched},
      {"strncat_s unterminated", [](char* d) { return strncat_s(d, 2, "a", 0); }, EINVAL, "", EINVAL},
      {"_itoa_s no room", [](char* d) { return _itoa_s(-5, d, 2, 10); }, ERANGE, "", ERANGE},
      {"_itoa_s radix", [](char* d) { return _itoa_s(7, d, 8, 37); }, EINVAL, "", EINVAL},
      {"_snprintf_s truncate", [](char* d) { return _snprintf_s(d, 8, kTruncateCount, "%s", "abcdefghij"); }, -1,
       "abcdefg", kUntouched},
      {"_snprintf_s no room", [](char* d) { return _snprintf_s(d, 8, 10, "%s", "abcdefghij"); }, -1, "", ERANGE},
      {"sprintf_s fits", [](char* d) { return sprintf_s(d, 5, "%s", "abcd"); }, 4, "abcd", kUntouched},
      {"_strrev", [](char* d) { return strcmp(_strrev(strcpy(d, "abcd")), "dcba"); }, 0, "dcba", kUntouched},
      {"_itoa", [](char* d) { return strcmp(_itoa(-2147483647 - 1, d, 10), "-2147483648"); }, 0, "-2147483648",
       kUntouched},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    char buffer[16] = "ab";
    errno = kUntouched;
    EXPECT_EQ(row.result, row.call(buffer));
    EXPECT_STREQ(row.text, buffer);
    EXPECT_EQ(row.errnoAfter, errno);
  }
}

// Each machine is a whole /etc world with the name it should give:
// lsb-release, else the first release file that opens, else the kernel type.
TEST(SystemInfo, NameComesFromLsbReleaseOrTheFirstReleaseFile) {
  for (const char* name : {"os/lsb", "os/lsb_keys", "os/lsb_long_line", "os/lsb_long_line_cut", "os/lsb_without_release",
                           "os/redhat_before_suse", "os/fedora_before_redhat", "os/empty_release_file",
                           "os/empty_kernel_type", "os/kernel_type_alone"}) {
    fixture::FixtureWorld world;
    world.Load(name);
    EXPECT_EQ(world.expected, std::vector<std::string>{CPortableSystem::GetOSName().GetString()}) << name;
  }
}

}  // namespace
