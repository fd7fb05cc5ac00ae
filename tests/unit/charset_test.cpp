#include "runtime/charset.h"

#include <gtest/gtest.h>
#include <locale.h>

#include <memory>
#include <string>
#include <vector>

namespace {

typedef std::vector<unsigned short> Units;

// The converted units before the terminator.
Units UnitsOf(const unsigned short* text) {
  Units units;
  for (; *text != 0; ++text) units.push_back(*text);
  return units;
}

// MultiByteToWideChar into a roomy buffer; the result count comes back too.
Units ToWide(unsigned int codePage, const std::string& bytes, int* result = nullptr) {
  unsigned short out[64];
  const int count = MultiByteToWideChar(codePage, 0, bytes.c_str(), -1, out, 64);
  if (result != nullptr) *result = count;
  return count == 0 ? Units() : UnitsOf(out);
}

std::string ToMultiByte(unsigned int codePage, const Units& text, int* result = nullptr) {
  Units terminated = text;
  terminated.push_back(0);
  char out[64];
  const int size = WideCharToMultiByte(codePage, 0, terminated.data(), -1, out, 64, nullptr, nullptr);
  if (result != nullptr) *result = size;
  return out;
}

// Runs a test body under a locale and puts "C" back afterwards.
class LocaleScope {
 public:
  explicit LocaleScope(const char* name) : active_(setlocale(LC_ALL, name) != nullptr) {}
  ~LocaleScope() { setlocale(LC_ALL, "C"); }
  bool active() const { return active_; }

 private:
  bool active_;
};

TEST(WideCharToMultiByte, ReportsFullSizeAndCutsTheOutputToTheBuffer) {
  const unsigned short abc[] = {'a', 'b', 'c', 0};
  EXPECT_EQ(4, WideCharToMultiByte(kCodePageUtf8, 0, abc, -1, nullptr, 0, nullptr, nullptr));

  char small[2] = {'x', 'x'};
  EXPECT_EQ(4, WideCharToMultiByte(kCodePageUtf8, 0, abc, -1, small, 2, nullptr, nullptr));
  EXPECT_EQ('a', small[0]);
  EXPECT_EQ(0, small[1]);

  char exact[4];
  EXPECT_EQ(4, WideCharToMultiByte(kCodePageUtf8, 0, abc, -1, exact, 4, nullptr, nullptr));
  EXPECT_STREQ("abc", exact);

  char oneShort[3];
  EXPECT_EQ(4, WideCharToMultiByte(kCodePageUtf8, 0, abc, -1, oneShort, 3, nullptr, nullptr));
  EXPECT_STREQ("ab", oneShort);
}

TEST(WideCharToMultiByte, ConvertsOnlyTheGivenUnitsAndStopsAtTheTerminator) {
  const unsigned short abc[] = {'a', 'b', 'c', 0};
  char out[8];
  EXPECT_EQ(3, WideCharToMultiByte(kCodePageUtf8, 0, abc, 2, out, 8, nullptr, nullptr));
  EXPECT_STREQ("ab", out);
  // The terminator may be counted; a count past it reads no further.
  EXPECT_EQ(4, WideCharToMultiByte(kCodePageUtf8, 0, abc, 4, out, 8, nullptr, nullptr));
  EXPECT_STREQ("abc", out);
  EXPECT_EQ(4, WideCharToMultiByte(kCodePageUtf8, 0, abc, 1000, out, 8, nullptr, nullptr));
  EXPECT_STREQ("abc", out);
}

TEST(WideCharToMultiByte, SurrogateFailsEveryCharacterSetAndLeavesAnEmptyString) {
  const unsigned short lone[] = {'a', 0xD800, 0};
  for (unsigned int codePage : {0u, 932u, kCodePageUtf8}) {
    char out[8] = "xxxxxxx";
    EXPECT_EQ(0, WideCharToMultiByte(codePage, 0, lone, -1, out, 8, nullptr, nullptr)) << codePage;
    EXPECT_EQ(0, out[0]) << codePage;
  }
  // UTF-7 carries any 16-bit unit, so its code page does not fail.
  char out[16];
  EXPECT_GT(WideCharToMultiByte(kCodePageUtf7, 0, lone, -1, out, 16, nullptr, nullptr), 0);
  EXPECT_EQ(std::string("a+"), std::string(out, 2));
}

TEST(WideCharToMultiByte, NullSourceConvertsNothing) {
  char out[4] = "xyz";
  EXPECT_EQ(0, WideCharToMultiByte(kCodePageUtf8, 0, nullptr, -1, out, 4, nullptr, nullptr));
  EXPECT_EQ(0, out[0]);
}

TEST(MultiByteToWideChar, ReportsFullCountAndCutsTheOutputToTheBuffer) {
  const char text[] = "h\xC3\xA9";
  EXPECT_EQ(3, MultiByteToWideChar(kCodePageUtf8, 0, text, -1, nullptr, 0));

  unsigned short exact[3] = {1, 1, 1};
  EXPECT_EQ(3, MultiByteToWideChar(kCodePageUtf8, 0, text, -1, exact, 3));
  EXPECT_EQ((Units{0x68, 0xE9, 0}), Units(exact, exact + 3));

  unsigned short oneShort[2] = {1, 1};
  EXPECT_EQ(3, MultiByteToWideChar(kCodePageUtf8, 0, text, -1, oneShort, 2));
  EXPECT_EQ((Units{0x68, 0}), Units(oneShort, oneShort + 2));

  unsigned short untouched[2] = {7, 7};
  EXPECT_EQ(3, MultiByteToWideChar(kCodePageUtf8, 0, text, -1, untouched, 0));
  EXPECT_EQ((Units{7, 7}), Units(untouched, untouched + 2));
}

TEST(MultiByteToWideChar, ConvertsOnlyTheGivenBytes) {
  unsigned short out[8];
  EXPECT_EQ(2, MultiByteToWideChar(kCodePageUtf8, 0, "h\xC3\xA9", 1, out, 8));
  EXPECT_EQ((Units{0x68}), UnitsOf(out));
}

TEST(MultiByteToWideChar, CharactersBeyondSixteenBitsKeepTheirLowBits) {
  int result = 0;
  EXPECT_EQ((Units{0xF600}), ToWide(kCodePageUtf8, "\xF0\x9F\x98\x80", &result));
  EXPECT_EQ(2, result);
}

TEST(MultiByteToWideChar, NullSourceConvertsNothingAndLeavesTheOutput) {
  unsigned short out[2] = {7, 7};
  EXPECT_EQ(0, MultiByteToWideChar(kCodePageUtf8, 0, nullptr, -1, out, 2));
  EXPECT_EQ(7, out[0]);
}

TEST(CodePageConversion, RoundTripsThroughUtf8) {
  const Units text = {'K', 0xE9, 0x65E5, 0x672C, 0x20AC, '!'};
  int size = 0;
  const std::string bytes = ToMultiByte(kCodePageUtf8, text, &size);
  EXPECT_EQ("K\xC3\xA9\xE6\x97\xA5\xE6\x9C\xAC\xE2\x82\xAC!", bytes);
  EXPECT_EQ(static_cast<int>(bytes.size()) + 1, size);
  int count = 0;
  EXPECT_EQ(text, ToWide(kCodePageUtf8, bytes, &count));
  EXPECT_EQ(static_cast<int>(text.size()) + 1, count);
}

TEST(CodePageConversion, Utf7CodePageTriesUtf7First) {
  const Units plus = {'a', '+', 'b'};
  EXPECT_EQ("a+-b", ToMultiByte(kCodePageUtf7, plus));
  EXPECT_EQ("a+b", ToMultiByte(kCodePageUtf8, plus));
  EXPECT_EQ((Units{'a', '+', 'b'}), ToWide(kCodePageUtf7, "a+-b"));
  EXPECT_EQ((Units{'a', '+', '-', 'b'}), ToWide(kCodePageUtf8, "a+-b"));
}

// The bytes 93 FA 96 7B are 日本 in Shift-JIS. UTF-8 and the locale's set
// reject them, and so do EUC-JP, EUC-KR and EUC-TW; ISO-8859-1, the first
// list entry that takes every byte, wins long before SJIS is reached.
TEST(CodePageFallback, ShiftJisTextLandsOnTheFirstSetThatTakesIt) {
  int count = 0;
  EXPECT_EQ((Units{0x93, 0xFA, 0x96, 0x7B}), ToWide(932, "\x93\xFA\x96\x7B", &count));
  EXPECT_EQ(5, count);

  LocaleScope utf8("C.UTF-8");
  if (!utf8.active()) GTEST_SKIP() << "no C.UTF-8 locale";
  EXPECT_EQ((Units{0x93, 0xFA, 0x96, 0x7B}), ToWide(932, "\x93\xFA\x96\x7B"));
}

TEST(CodePageFallback, ListOrderDecidesBetweenSetsThatAcceptTheText) {
  // A4 A2: EUC-JP (あ, U+3042) comes before EUC-KR (U+3132) and ISO-8859-1.
  EXPECT_EQ((Units{0x3042}), ToWide(0, "\xA4\xA2"));
  // A9 A1 is not in EUC-JP; EUC-KR (U+00E6) still beats ISO-8859-1.
  EXPECT_EQ((Units{0x00E6}), ToWide(0, "\xA9\xA1"));
  // Invalid UTF-8 under the UTF-8 code page goes on down the list.
  EXPECT_EQ((Units{0x3042}), ToWide(kCodePageUtf8, "\xA4\xA2"));
  // In the C locale the locale's set is ASCII; UTF-8 heads the list.
  EXPECT_EQ("\xC3\xA9", ToMultiByte(0, Units{0xE9}));
}

TEST(CodePageFallback, LocaleSetIsTriedBeforeTheList) {
  LocaleScope utf8("C.UTF-8");
  if (!utf8.active()) GTEST_SKIP() << "no C.UTF-8 locale";
  EXPECT_EQ((Units{0x68, 0xE9}), ToWide(0, "h\xC3\xA9"));
  EXPECT_EQ("h\xC3\xA9", ToMultiByte(0, Units{0x68, 0xE9}));
}

TEST(ConvertUnicodeGeneric, WidensSignExtendedAndNarrowsToTheLowBits) {
  unsigned short wide[2];
  ConvertUnicodeGeneric<char, unsigned short>("\xE9", wide, -1);
  EXPECT_EQ(0xFFE9, wide[0]);
  EXPECT_EQ(0, wide[1]);

  const unsigned short units[] = {0x4142, 0xFFE9, 0};
  char narrow[3];
  ConvertUnicodeGeneric<unsigned short, char>(units, narrow, -1);
  EXPECT_EQ(0x42, narrow[0]);
  EXPECT_EQ(static_cast<char>(0xE9), narrow[1]);

  wchar_t full[3];
  ConvertUnicodeGeneric<unsigned short, wchar_t>(units, full, -1);
  EXPECT_EQ(0xFFE9, full[1]);

  const wchar_t big[] = {0x1F600, 0};
  unsigned short cut[2];
  ConvertUnicodeGeneric<wchar_t, unsigned short>(big, cut, -1);
  EXPECT_EQ(0xF600, cut[0]);
}

TEST(ConvertUnicodeGeneric, CountLimitsTheCopyAndNullSourceTouchesNothing) {
  const unsigned short abc[] = {'a', 'b', 'c', 0};
  std::unique_ptr<unsigned short[]> copy(ConvertUnicodeGeneric<unsigned short, unsigned short>(abc, nullptr, 2));
  EXPECT_EQ((Units{'a', 'b'}), UnitsOf(copy.get()));

  unsigned short dst[2] = {7, 7};
  EXPECT_EQ(nullptr, (ConvertUnicodeGeneric<unsigned short, unsigned short>(nullptr, dst, -1)));
  EXPECT_EQ(7, dst[0]);
}

TEST(ConvertUnicode, SixteenBitTextGoesThroughTheCodePageElseIsNarrowed) {
  const unsigned short accented[] = {0xE9, 0};
  char out[8];
  ConvertUnicode<unsigned short, char>(accented, out, -1);
  EXPECT_STREQ("\xC3\xA9", out);

  // A lone surrogate converts nowhere, so it is narrowed: D841 becomes A.
  const unsigned short lone[] = {'x', 0xD841, 0};
  ConvertUnicode<unsigned short, char>(lone, out, -1);
  EXPECT_STREQ("xA", out);
}

TEST(ConvertUnicodeToMultiByte, AllocatesOrFillsTheGivenBuffer) {
  const wchar_t accented[] = {'h', 0xE9, 0};
  std::unique_ptr<char[]> made(ConvertUnicodeToMultiByte<wchar_t>(kCodePageUtf8, accented, nullptr, -1));
  ASSERT_NE(nullptr, made);
  EXPECT_STREQ("h\xC3\xA9", made.get());

  char given[8];
  EXPECT_EQ(given, ConvertUnicodeToMultiByte<wchar_t>(kCodePageUtf8, accented, given, -1));
  EXPECT_STREQ("h\xC3\xA9", given);

  // char text is widened sign-extended first: the byte E9 is U+FFE9.
  std::unique_ptr<char[]> fromChar(ConvertUnicodeToMultiByte<char>(kCodePageUtf8, "\xE9", nullptr, -1));
  EXPECT_STREQ("\xEF\xBF\xA9", fromChar.get());

  const unsigned short lone[] = {0xD800, 0};
  EXPECT_EQ(nullptr, ConvertUnicodeToMultiByte<unsigned short>(kCodePageUtf8, lone, given, -1));
  EXPECT_EQ(nullptr, ConvertUnicodeToMultiByte<unsigned short>(kCodePageUtf8, nullptr, given, -1));
}

TEST(ConvertUnicodeFromMultiByte, DecodesIntoEachCharacterType) {
  std::unique_ptr<wchar_t[]> full(ConvertUnicodeFromMultiByte<wchar_t>(0, "xyz", nullptr, -1));
  ASSERT_NE(nullptr, full);
  EXPECT_EQ(std::wstring(L"xyz"), std::wstring(full.get()));

  unsigned short wide[4];
  EXPECT_EQ(wide, ConvertUnicodeFromMultiByte<unsigned short>(kCodePageUtf8, "h\xC3\xA9", wide, -1));
  EXPECT_EQ((Units{0x68, 0xE9}), UnitsOf(wide));

  char narrow[4];
  ConvertUnicodeFromMultiByte<char>(kCodePageUtf8, "h\xC3\xA9", narrow, -1);
  EXPECT_STREQ("h\xE9", narrow);

  EXPECT_EQ(nullptr, ConvertUnicodeFromMultiByte<char>(kCodePageUtf8, nullptr, narrow, -1));
}

TEST(UnicodeStrCpy, CopiesAtMostCountAndAppendsBehindTheTerminator) {
  char dst[8] = "zzzzzzz";
  UnicodeStrCpy<char>(dst, "abcdef", 3);
  EXPECT_STREQ("abc", dst);
  UnicodeStrCpy<char>(dst, "ab", -1);
  UnicodeStrCat<char>(dst, "cd");
  EXPECT_STREQ("abcd", dst);
}

TEST(UnicodeStringLen, CountsWideElementsAndTakesNull) {
  const unsigned short units[] = {'a', 0xFFFF, 0};
  EXPECT_EQ(2u, UnicodeStringLen<unsigned short>(units));
  EXPECT_EQ(0u, UnicodeStringLen<unsigned short>(nullptr));
  EXPECT_EQ(3u, UnicodeStringLen<wchar_t>(L"abc"));
  EXPECT_EQ(0u, UnicodeStringLen<wchar_t>(nullptr));
  EXPECT_EQ(0, _getmbcp());
}

}  // namespace
