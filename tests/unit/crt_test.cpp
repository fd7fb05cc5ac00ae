#include "runtime/crt.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>
#include <unistd.h>

#include <string>

namespace {

const int kUntouched = 12345;  // an errno value no function here stores

// Calls _vsnprintf_s through a real va_list.
int FormatBounded(char* buf, unsigned int size, unsigned int count, const char* format, ...) {
  va_list args;
  va_start(args, format);
  const int n = _vsnprintf_s(buf, size, count, format, args);
  va_end(args);
  return n;
}

TEST(StringCopy, FitsExactlyOrEmptiesTheDestination) {
  char dst[4] = "zzz";
  EXPECT_EQ(0, strcpy_s(dst, 4, "abc"));
  EXPECT_STREQ("abc", dst);
  errno = 0;
  EXPECT_EQ(ERANGE, strcpy_s(dst, 3, "abc"));
  EXPECT_EQ(0, dst[0]);
  EXPECT_EQ(ERANGE, errno);
  EXPECT_EQ(EINVAL, strcpy_s(dst, 4, nullptr));
  EXPECT_EQ(0, dst[0]);
  EXPECT_EQ(EINVAL, errno);
  unsigned short wide[2] = {9, 9};
  const unsigned short ab[] = {'a', 'b', 0};
  EXPECT_EQ(ERANGE, wcscpy_s(wide, 2, ab));
  EXPECT_EQ(0, wide[0]);
}

TEST(StringCopy, CountedCopyHonoursCountRoomAndTheTruncateCount) {
  char dst[8];
  EXPECT_EQ(0, strncpy_s(dst, 4, "abcdef", 3));
  EXPECT_STREQ("abc", dst);
  EXPECT_EQ(ERANGE, strncpy_s(dst, 3, "abcdef", 3));
  EXPECT_EQ(0, dst[0]);
  errno = kUntouched;
  EXPECT_EQ(80, strncpy_s(dst, 3, "abcdef", kTruncateCount));
  EXPECT_STREQ("ab", dst);
  EXPECT_EQ(kUntouched, errno);
  EXPECT_EQ(0, strncpy_s(dst, 3, "ab", kTruncateCount));
  EXPECT_EQ(0, strncpy_s(nullptr, 0, "x", 0));
  EXPECT_EQ(EINVAL, strncpy_s(nullptr, 5, "x", 0));
  strcpy(dst, "zz");
  EXPECT_EQ(EINVAL, strncpy_s(dst, 5, nullptr, 1));
  EXPECT_EQ(0, dst[0]);
  unsigned short wide[3];
  const unsigned short abcd[] = {'a', 'b', 'c', 'd', 0};
  EXPECT_EQ(80, wcsncpy_s(wide, 3, abcd, kTruncateCount));
  EXPECT_EQ('b', wide[1]);
  EXPECT_EQ(0, wide[2]);
}

TEST(StringConcatenation, AppendsOnlyWhatFitsBehindTheTerminator) {
  char dst[4] = "ab";
  EXPECT_EQ(ERANGE, strcat_s(dst, 4, "cd"));
  EXPECT_EQ(0, dst[0]);
  strcpy(dst, "ab");
  EXPECT_EQ(0, strcat_s(dst, 4, "c"));
  EXPECT_STREQ("abc", dst);
  char buf[6] = "ab";
  EXPECT_EQ(0, strncat_s(buf, 6, "cdef", 3));
  EXPECT_STREQ("abcde", buf);
  strcpy(buf, "ab");
  EXPECT_EQ(ERANGE, strncat_s(buf, 5, "cdef", 3));
  EXPECT_EQ(0, buf[0]);
  strcpy(buf, "ab");
  errno = kUntouched;
  EXPECT_EQ(80, strncat_s(buf, 5, "cdef", kTruncateCount));
  EXPECT_STREQ("abcd", buf);
  EXPECT_EQ(kUntouched, errno);
  char unterminated[2] = {'x', 'y'};
  EXPECT_EQ(EINVAL, strncat_s(unterminated, 2, "a", 0));
  EXPECT_EQ(0, unterminated[0]);
}

TEST(MemoryCopy, ZeroesTheWholeDestinationOnFailure) {
  const char src[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  char dst[6] = {9, 9, 9, 9, 9, 9};
  EXPECT_EQ(ERANGE, memcpy_s(dst, 4, src, 8));
  EXPECT_EQ(std::string(4, '\0') + "\x09\x09", std::string(dst, 6));
  EXPECT_EQ(0, memcpy_s(nullptr, 4, src, 0));
  // Sizes count 16-bit units: two units are four bytes.
  const unsigned short units[3] = {0x1111, 0x2222, 0x3333};
  unsigned short wide[3] = {7, 7, 7};
  EXPECT_EQ(0, wmemcpy_s(wide, 2, units, 2));
  EXPECT_EQ(0x2222, wide[1]);
  EXPECT_EQ(ERANGE, wmemcpy_s(wide, 2, units, 3));
  EXPECT_EQ(0, wide[1]);
  EXPECT_EQ(7, wide[2]);
  EXPECT_EQ(ERANGE, wmemcpy_s(wide, 2, units, 0x80000001u));
}

TEST(Tokens, SkipRunsOfDelimitersAndKeepTheirPlaceInContext) {
  char text[] = ",,a,,b,";
  char* context = nullptr;
  EXPECT_STREQ("a", strtok_s(text, ",", &context));
  EXPECT_STREQ("b", strtok_s(nullptr, ",", &context));
  EXPECT_EQ(nullptr, strtok_s(nullptr, ",", &context));
  char split[] = "x\xE9y\xE9";
  EXPECT_STREQ("x", strtok_s(split, "\xE9", &context));
  EXPECT_STREQ("y", strtok_s(nullptr, "\xE9", &context));
  errno = 0;
  context = nullptr;
  EXPECT_EQ(nullptr, strtok_s(nullptr, ",", &context));
  EXPECT_EQ(EINVAL, errno);
}

TEST(CaseAndOrder, ChangeInPlaceAndRefuseUnterminatedText) {
  char text[] = "MiXeD 1\xE9";
  EXPECT_STREQ("MIXED 1\xE9", _strupr(text));
  char even[] = "abcd";
  EXPECT_STREQ("dcba", _strrev(even));
  char bounded[4] = "aBc";
  EXPECT_EQ(0, _strupr_s(bounded, 4));
  EXPECT_STREQ("ABC", bounded);
  EXPECT_EQ(EINVAL, _strlwr_s(bounded, 3));
  EXPECT_EQ(0, bounded[0]);
}

TEST(Time, RefuseShortBuffersAndNegativeTimesWithoutTouchingErrno) {
  const long when = 86400L * 365;
  char buf[32] = "zz";
  errno = kUntouched;
  EXPECT_EQ(EINVAL, ctime_s(buf, 25, &when));
  EXPECT_EQ(0, buf[0]);
  const long before = -1;
  EXPECT_EQ(EINVAL, ctime_s(buf, 26, &before));
  EXPECT_EQ(kUntouched, errno);
  errno = 0;
  EXPECT_EQ(0, ctime_s(buf, 26, &when)) << "a success returns errno as it stands";
  char expected[32];
  const time_t whenTime = when;
  EXPECT_STREQ(ctime_r(&whenTime, expected), buf);
  tm record;
  errno = kUntouched;
  EXPECT_EQ(EINVAL, localtime_s(&record, &before));
  EXPECT_EQ(-1, record.tm_year);
  EXPECT_EQ(-1, record.tm_mday);
  EXPECT_EQ(0, localtime_s(&record, &when));
  EXPECT_EQ(kUntouched, errno);
  tm reference;
  EXPECT_EQ(localtime_r(&whenTime, &reference)->tm_yday, record.tm_yday);
}

TEST(IntegerText, DigitsSignAndRoomForThem) {
  char dst[40];
  EXPECT_STREQ("0", _itoa(0, dst, 10));
  EXPECT_STREQ("-2147483648", _itoa(-2147483647 - 1, dst, 10));
  EXPECT_STREQ("z", _itoa(35, dst, 36));
  EXPECT_STREQ("ffffffff", _itoa(-1, dst, 16));
  EXPECT_EQ(ERANGE, _itoa_s(-5, dst, 2, 10));
  EXPECT_EQ(0, dst[0]);
  EXPECT_EQ(0, _itoa_s(-5, dst, 3, 10));
  EXPECT_STREQ("-5", dst);
  EXPECT_EQ(EINVAL, _itoa_s(7, dst, 8, 37));
}

TEST(Formatting, BoundedOutputFollowsCountAndSize) {
  char buf[8];
  errno = kUntouched;
  EXPECT_EQ(-1, FormatBounded(buf, 8, kTruncateCount, "%s", "abcdefghijkl"));
  EXPECT_STREQ("abcdefg", buf);
  EXPECT_EQ(-1, FormatBounded(buf, 8, 5, "%s", "abcdefghijkl"));
  EXPECT_STREQ("abcde", buf);
  EXPECT_EQ(kUntouched, errno);
  EXPECT_EQ(-1, FormatBounded(buf, 8, 10, "%s", "abcdefghijkl"));
  EXPECT_EQ(0, buf[0]);
  EXPECT_EQ(ERANGE, errno);
  EXPECT_EQ(7, _snprintf_s(buf, 8, kTruncateCount, "%d", 1234567));
  EXPECT_EQ(-1, sprintf_s(buf, 4, "%s", "abcd"));
  EXPECT_EQ(0, buf[0]);
  EXPECT_EQ(ERANGE, errno);
  EXPECT_EQ(4, sprintf_s(buf, 5, "%s", "abcd"));
  EXPECT_STREQ("abcd", buf);
}

TEST(Files, OpenRealFilesAndReportErrno) {
  char path[] = "/tmp/kavo-crt-XXXXXX";
  const int made = mkstemp(path);
  ASSERT_GE(made, 0);
  close(made);
  int fd = 99;
  EXPECT_EQ(EINVAL, sopen_s(&fd, path, O_RDONLY, 0, 0x1A4));
  EXPECT_EQ(-1, fd);
  FILE* file = nullptr;
  ASSERT_EQ(0, fopen_s(&file, path, "r"));
  EXPECT_EQ(EOF, fgetc(file));
  fclose(file);
  unlink(path);
  EXPECT_EQ(ENOENT, fopen_s(&file, path, "r"));
  EXPECT_EQ(ENOENT, sopen_s(&fd, path, O_RDONLY, 0, 0));
  EXPECT_EQ(-1, fd);
}

}  // namespace
