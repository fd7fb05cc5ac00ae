// CBasicString's growth rule, formatting limit and self-references, the
// comparison that orders the device maps, and the device keys in them.
#include "runtime/string.h"

#include <gtest/gtest.h>

#include <string>

#include "device/registry_internal.h"

namespace {

TEST(BasicString, GrowsByTheOneRuleAndLeavesAZeroTail) {
  const struct {
    const char* text;
    int capacity;
  } rows[] = {{"", 6}, {"abcd", 6}, {"abcde", 12}};
  for (const auto& row : rows) EXPECT_EQ(row.capacity, CBasicString<char>(row.text, -1).GetCapacity()) << row.text;
  CBasicString<char> deviceKey;
  deviceKey.Format("h%02dc%02dt%02dd%02d", 0, 0, 0, 0);
  ASSERT_EQ(26, deviceKey.GetCapacity());
  const CBasicString<char> copy(deviceKey);
  for (int i = 12; i < copy.GetCapacity(); ++i) EXPECT_EQ(0, copy.GetString()[i]) << i;
  const char raw[3] = {'x', 'y', 'z'};
  EXPECT_STREQ("xy", CBasicString<char>(raw, 2).GetString()) << "exactly len bytes of unterminated text";
}

TEST(BasicString, AppendsAndAssignsFromInsideItsOwnBuffer) {
  CBasicString<char> s("abcd", -1);
  s += s.GetString();
  EXPECT_STREQ("abcdabcd", s.GetString());
  s += s.GetString() + 4;
  EXPECT_STREQ("abcdabcdabcd", s.GetString());
  s = s.GetString() + 9;
  EXPECT_STREQ("bcd", s.GetString());
  EXPECT_EQ(3, s.GetLength());
}

TEST(BasicString, FormatCutsAt16383Characters) {
  CBasicString<char> s;
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
  for (const auto& row : rows) {
    SCOPED_TRACE(::testing::Message() << (row.left ? row.left : "null") << " " << (row.right ? row.right : "null")
                                      << " " << row.count);
    EXPECT_EQ(row.result, UnicodeStringCmp<char>(row.left, row.right, row.count));
  }
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

}  // namespace
