// The device key is built by hand on the request path; it must read exactly
// as the format "h%02dc%02dt%02dd%02d" makes it, in every field width.
#include <gtest/gtest.h>

#include "device/registry_internal.h"

namespace {

TEST(DeviceKey, ReadsAsTheFormatMakesIt) {
  const int values[] = {-100, -5, 0, 7, 10, 99, 100, 255, 1000, 2147483647};
  for (int value : values) {
    for (int field = 0; field < 4; ++field) {
      int numbers[4] = {3, 0, 1, 0};
      numbers[field] = value;
      CBasicString<char> expected;
      expected.Format("h%02dc%02dt%02dd%02d", numbers[0], numbers[1], numbers[2], numbers[3]);
      const CBasicString<char> made = SCSI_MakeDeviceKey(numbers[0], numbers[1], numbers[2], numbers[3]);
      EXPECT_STREQ(expected.GetString(), made.GetString()) << "field " << field << " = " << value;
      EXPECT_EQ(expected.GetLength(), made.GetLength());
    }
  }
  EXPECT_EQ(26, SCSI_MakeDeviceKey(0, 0, 0, 0).GetCapacity()) << "the growth rule's buffer for 12 characters";
}

}  // namespace
