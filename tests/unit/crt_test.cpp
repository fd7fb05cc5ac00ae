#include "runtime/crt.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

namespace {

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

TEST(MemoryCopy, ZeroesTheWholeDestinationOnFailureAndCountsWideUnits) {
  const char src[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  char dst[6] = {9, 9, 9, 9, 9, 9};
  EXPECT_EQ(ERANGE, memcpy_s(dst, 4, src, 8));
  EXPECT_EQ(std::string(4, '\0') + "\x09\x09", std::string(dst, 6));
  EXPECT_EQ(0, memcpy_s(nullptr, 4, src, 0));
  const unsigned short units[3] = {0x1111, 0x2222, 0x3333};
  unsigned short wide[3] = {7, 7, 7};
  EXPECT_EQ(0, wmemcpy_s(wide, 2, units, 2));
  EXPECT_EQ(0x2222, wide[1]);
  EXPECT_EQ(ERANGE, wmemcpy_s(wide, 2, units, 3));
  EXPECT_EQ((std::vector<unsigned short>{0, 0, 7}), std::vector<unsigned short>(wide, wide + 3));
  EXPECT_EQ(ERANGE, wmemcpy_s(wide, 2, units, 0x80000001u));
}

TEST(Text, TokensIntegersCaseAndOrder) {
  char text[] = ",,a,,b,", split[] = "x\xE9y\xE9", *context = nullptr;
  EXPECT_STREQ("a", strtok_s(text, ",", &context));
  EXPECT_STREQ("b", strtok_s(nullptr, ",", &context));
  EXPECT_EQ(nullptr, strtok_s(nullptr, ",", &context));
  EXPECT_STREQ("x", strtok_s(split, "\xE9", &context));
  EXPECT_STREQ("y", strtok_s(nullptr, "\xE9", &context));
  errno = 0;
  context = nullptr;
  EXPECT_EQ(nullptr, strtok_s(nullptr, ",", &context));
  EXPECT_EQ(EINVAL, errno);
  char dst[40], mixed[] = "MiXeD 1\xE9", even[] = "abcd";
  EXPECT_STREQ("-2147483648", _itoa(-2147483647 - 1, dst, 10));
  EXPECT_STREQ("z", _itoa(35, dst, 36));
  EXPECT_STREQ("ffffffff", _itoa(-1, dst, 16));
  EXPECT_STREQ("MIXED 1\xE9", _strupr(mixed));
  EXPECT_STREQ("dcba", _strrev(even));
}

TEST(Time, RefuseShortBuffersAndNegativeTimesWithoutTouchingErrno) {
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
  errno = 0;
  EXPECT_EQ(0, ctime_s(buf, 26, &when)) << "a success returns errno as it stands";
  EXPECT_STREQ(ctime_r(&whenTime, expected), buf);
}

TEST(Files, OpenRealFilesAndReportErrno) {
  char path[] = "/tmp/kavo-crt-XXXXXX";
  close(mkstemp(path));
  int fd = 99;
  FILE* file = nullptr;
  EXPECT_EQ(EINVAL, sopen_s(&fd, path, O_RDONLY, 0, 0x1A4)) << "a mode beyond read and write";
  EXPECT_EQ(-1, fd);
  ASSERT_EQ(0, fopen_s(&file, path, "r"));
  fclose(file);
  unlink(path);
  EXPECT_EQ(ENOENT, fopen_s(&file, path, "r"));
  EXPECT_EQ(ENOENT, sopen_s(&fd, path, O_RDONLY, 0, 0));
}

}  // namespace
