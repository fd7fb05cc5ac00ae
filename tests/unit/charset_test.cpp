#include "runtime/charset.h"

#include <gtest/gtest.h>
#include <locale.h>

#include <memory>
#include <string>
#include <vector>

namespace {

typedef std::vector<unsigned short> Units;

Units UnitsOf(const unsigned short* text) {
  Units units;
  for (; *text != 0; ++text) units.push_back(*text);
  return units;
}

Units ToWide(unsigned int codePage, const std::string& bytes, int* result = nullptr) {
  unsigned short out[64];
  const int count = MultiByteToWideChar(codePage, 0, bytes.c_str(), -1, out, 64);
  if (result != nullptr) *result = count;
  return count == 0 ? Units() : UnitsOf(out);
}

std::string ToMultiByte(unsigned int codePage, Units text, int* result = nullptr) {
  text.push_back(0);
  char out[64];
  const int size = WideCharToMultiByte(codePage, 0, text.data(), -1, out, 64, nullptr, nullptr);
  if (result != nullptr) *result = size;
  return out;
}

// Both directions report the full size and cut the output to the buffer.
TEST(CodePageConversion, ReportsFullSizeAndCutsTheOutputToTheBuffer) {
  const unsigned short abc[] = {'a', 'b', 'c', 0};
  EXPECT_EQ(4, WideCharToMultiByte(kCodePageUtf8, 0, abc, -1, nullptr, 0, nullptr, nullptr));
  char out[4] = "xxx";
  EXPECT_EQ(4, WideCharToMultiByte(kCodePageUtf8, 0, abc, -1, out, 2, nullptr, nullptr));
  EXPECT_EQ(std::string("a\0x", 3), std::string(out, 3));
  // A count converts only those units; one past the terminator reads no further.
  EXPECT_EQ(3, WideCharToMultiByte(kCodePageUtf8, 0, abc, 2, out, 4, nullptr, nullptr));
  EXPECT_STREQ("ab", out);
  EXPECT_EQ(4, WideCharToMultiByte(kCodePageUtf8, 0, abc, 1000, out, 4, nullptr, nullptr));
  EXPECT_EQ(0, WideCharToMultiByte(kCodePageUtf8, 0, nullptr, -1, out, 4, nullptr, nullptr));
  unsigned short wide[3] = {1, 1, 1};
  EXPECT_EQ(3, MultiByteToWideChar(kCodePageUtf8, 0, "h\xC3\xA9", -1, wide, 2));
  EXPECT_EQ((Units{0x68, 0, 1}), Units(wide, wide + 3));
  EXPECT_EQ((Units{0xF600}), ToWide(kCodePageUtf8, "\xF0\x9F\x98\x80")) << "beyond 16 bits the low bits stay";
}

TEST(CodePageConversion, SurrogateFailsEveryCharacterSetButUtf7) {
  const unsigned short lone[] = {'a', 0xD800, 0};
  for (unsigned int codePage : {0u, 932u, kCodePageUtf8}) {
    char out[8] = "xxxxxxx";
    EXPECT_EQ(0, WideCharToMultiByte(codePage, 0, lone, -1, out, 8, nullptr, nullptr)) << codePage;
    EXPECT_EQ(0, out[0]) << codePage;
  }
  char out[16];
  EXPECT_GT(WideCharToMultiByte(kCodePageUtf7, 0, lone, -1, out, 16, nullptr, nullptr), 0);
}

TEST(CodePageConversion, RoundTripsThroughUtf8AndUtf7CodePageTriesUtf7First) {
  const Units text = {'K', 0xE9, 0x65E5, 0x672C, 0x20AC};
  int size = 0, count = 0;
  const std::string bytes = ToMultiByte(kCodePageUtf8, text, &size);
  EXPECT_EQ("K\xC3\xA9\xE6\x97\xA5\xE6\x9C\xAC\xE2\x82\xAC", bytes);
  EXPECT_EQ(13, size);
  EXPECT_EQ(text, ToWide(kCodePageUtf8, bytes, &count));
  EXPECT_EQ(6, count);
  EXPECT_EQ("a+-b", ToMultiByte(kCodePageUtf7, Units{'a', '+', 'b'}));
  EXPECT_EQ("a+b", ToMultiByte(kCodePageUtf8, Units{'a', '+', 'b'}));
  EXPECT_EQ((Units{'a', '+', 'b'}), ToWide(kCodePageUtf7, "a+-b"));
}

// Text no set of the code page takes goes down the fallback list, the
// locale's set first; the first set that takes it wins.
TEST(CodePageFallback, FirstSetThatTakesTheTextWins) {
  // 93 FA 96 7B is Shift-JIS, tenth on the list; ISO-8859-1 takes every byte
  // and wins long before.
  int count = 0;
  EXPECT_EQ((Units{0x93, 0xFA, 0x96, 0x7B}), ToWide(932, "\x93\xFA\x96\x7B", &count));
  EXPECT_EQ(5, count);
  // A4 A2 is EUC-JP's U+3042 and EUC-KR's U+3132: EUC-JP comes first, also
  // for invalid UTF-8 under the UTF-8 code page.
  EXPECT_EQ((Units{0x3042}), ToWide(0, "\xA4\xA2"));
  EXPECT_EQ((Units{0x3042}), ToWide(kCodePageUtf8, "\xA4\xA2"));
  // A9 A1 is not EUC-JP; EUC-KR still comes before ISO-8859-1.
  EXPECT_EQ((Units{0x00E6}), ToWide(0, "\xA9\xA1"));
  EXPECT_EQ("abc", ToMultiByte(0, Units{'a', 'b', 'c'}));
  if (setlocale(LC_ALL, "C.UTF-8") == nullptr) GTEST_SKIP() << "no C.UTF-8 locale";
  EXPECT_EQ("h\xC3\xA9", ToMultiByte(0, Units{0x68, 0xE9}));
  EXPECT_EQ((Units{0x93, 0xFA, 0x96, 0x7B}), ToWide(932, "\x93\xFA\x96\x7B"));
  setlocale(LC_ALL, "C");
}

// char is widened sign-extended, wider units narrowed to their low bits;
// 16-bit text goes through the code page where it converts.
TEST(ConvertUnicode, WidensSignExtendedNarrowsToTheLowBitsAndPrefersTheCodePage) {
  unsigned short wide[4];
  ConvertUnicodeGeneric<char, unsigned short>("\xE9", wide, -1);
  EXPECT_EQ(0xFFE9, wide[0]);
  const unsigned short units[] = {0x4142, 0xFFE9, 0};
  char narrow[8];
  ConvertUnicodeGeneric<unsigned short, char>(units, narrow, 1);
  EXPECT_STREQ("B", narrow);
  EXPECT_EQ(nullptr, (ConvertUnicodeGeneric<unsigned short, char>(nullptr, narrow, -1)));
  const unsigned short accented[] = {0xE9, 0}, lone[] = {'x', 0xD841, 0};
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
