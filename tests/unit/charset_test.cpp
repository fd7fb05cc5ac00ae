#include "runtime/charset.h"

#include <gtest/gtest.h>
#include <locale.h>

#include <memory>

namespace {

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

}  // namespace
