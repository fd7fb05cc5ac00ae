// CBasicString's growth rule, formatting limit and self-references, and the
// comparison that orders the device maps.
#include <gtest/gtest.h>

#include <map>
#include <string>

#include "runtime/string.h"

namespace {

TEST(BasicString, GrowsByTheOneRule) {
  CBasicString<char> empty("", -1);
  EXPECT_EQ(0, empty.GetLength());
  EXPECT_EQ(6, empty.GetCapacity());
  CBasicString<char> four("abcd", -1);
  EXPECT_EQ(6, four.GetCapacity());
  CBasicString<char> five("abcde", -1);
  EXPECT_EQ(12, five.GetCapacity());
  EXPECT_STREQ("abcde", five.GetString());
}

TEST(BasicString, DeviceKeyLeavesZeroTail) {
  CBasicString<char> deviceKey;
  deviceKey.Format("h%02dc%02dt%02dd%02d", 0, 0, 0, 0);
  EXPECT_STREQ("h00c00t00d00", deviceKey.GetString());
  ASSERT_EQ(26, deviceKey.GetCapacity());
  const CBasicString<char> copy(deviceKey);
  for (int i = 12; i < copy.GetCapacity(); ++i) EXPECT_EQ(0, copy.GetString()[i]) << i;
}

TEST(BasicString, TakesExactlyLenBytesOfUnterminatedText) {
  const char raw[3] = {'x', 'y', 'z'};
  CBasicString<char> s(raw, 2);
  EXPECT_STREQ("xy", s.GetString());
  EXPECT_EQ(2, s.GetLength());
}

TEST(BasicString, AppendsItsOwnTextAcrossGrowth) {
  CBasicString<char> s("abcd", -1);
  s += s.GetString();
  EXPECT_STREQ("abcdabcd", s.GetString());
  EXPECT_EQ(8, s.GetLength());
  s += s.GetString() + 4;
  EXPECT_STREQ("abcdabcdabcd", s.GetString());
}

TEST(BasicString, AssignsFromInsideItsOwnBuffer) {
  CBasicString<char> s("0123456789", -1);
  s = s.GetString() + 3;
  EXPECT_STREQ("3456789", s.GetString());
  EXPECT_EQ(7, s.GetLength());
  CBasicString<char> copy("short", -1);
  copy = s;
  EXPECT_STREQ("3456789", copy.GetString());
}

TEST(BasicString, FormatCutsAt16383Characters) {
  const std::string longText(20000, 'q');
  CBasicString<char> s;
  s.Format("%s", longText.c_str());
  EXPECT_EQ(16383, s.GetLength());
  EXPECT_EQ(std::string(16383, 'q'), s.GetString());
  s.Format("%d-%s", 7, "x");
  EXPECT_STREQ("7-x", s.GetString());
  EXPECT_GE(s.GetCapacity(), 16385) << "a buffer never shrinks";
}

TEST(UnicodeStringCmp, EndOfStringDecidesBeforeCharacters) {
  EXPECT_EQ(-1, UnicodeStringCmp<char>("b", "ab", -1));
  EXPECT_EQ(1, UnicodeStringCmp<char>("ab", "b", -1));
  EXPECT_EQ(-1, UnicodeStringCmp<char>("a", "ab", -1));
  EXPECT_EQ(0, UnicodeStringCmp<char>("abc", "abc", -1));
  EXPECT_EQ(-1, UnicodeStringCmp<char>("abc", "abd", -1));
}

TEST(UnicodeStringCmp, CountsNullsAndSignedBytes) {
  EXPECT_EQ(0, UnicodeStringCmp<char>("abc", "abd", 2));
  EXPECT_EQ(0, UnicodeStringCmp<char>("x", "y", 0));
  EXPECT_EQ(0, UnicodeStringCmp<char>("x", "y", -2));
  EXPECT_EQ(-1, UnicodeStringCmp<char>(nullptr, "", -1));
  EXPECT_EQ(1, UnicodeStringCmp<char>("", nullptr, -1));
  EXPECT_EQ(0, UnicodeStringCmp<char>(nullptr, nullptr, -1));
  EXPECT_EQ(-1, UnicodeStringCmp<char>("", "a", -1));
  EXPECT_EQ(-1, UnicodeStringCmp<char>("\xE9", "e", -1)) << "bytes above 0x7F sort before ASCII";
  EXPECT_EQ(0u, UnicodeStringLen<char>(nullptr));
}

TEST(UnicodeStringCmp, OrdersDeviceKeysNumerically) {
  std::map<CBasicString<char>, int> keys;
  const int adapters[] = {12, 2, 0, 4};
  for (int adapter : adapters) {
    CBasicString<char> deviceKey;
    deviceKey.Format("h%02dc%02dt%02dd%02d", adapter, 0, 1, 0);
    keys[deviceKey] = adapter;
  }
  std::string order;
  for (const auto& entry : keys) order += std::to_string(entry.second) + " ";
  EXPECT_EQ("0 2 4 12 ", order);
}

}  // namespace
