#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "base/safe_str.h"

namespace {

TEST(SafeStrTest, MemsetFillsAtMostTheDestination) {
  char buf[8];
  std::memset(buf, 'x', sizeof(buf));
  EXPECT_EQ(0, memset_s(buf, sizeof(buf), 0, 4));
  EXPECT_EQ(0, buf[3]);
  EXPECT_EQ('x', buf[4]);
  // A count beyond the destination fills what fits and reports -1.
  EXPECT_EQ(-1, memset_s(buf, 4, 'y', 6));
  EXPECT_EQ('y', buf[3]);
  EXPECT_EQ('x', buf[4]);
  EXPECT_EQ(-1, memset_s(nullptr, 4, 0, 4));
  EXPECT_EQ(-1, memset_s(buf, 0, 0, 0));
}

// strcpy_s refuses what does not fit; strncpy_s copies at most the count.
TEST(SafeStrTest, StrcpyRefusesWhatDoesNotFitStrncpyCopiesAtMostCount) {
  char small[4];
  EXPECT_EQ(0, strcpy_s(small, sizeof(small), "abc"));
  EXPECT_STREQ("abc", small);
  EXPECT_EQ(-1, strcpy_s(small, sizeof(small), "abcd"));
  EXPECT_STREQ("", small);
  EXPECT_EQ(-1, strcpy_s(small, sizeof(small), nullptr));
  EXPECT_EQ(-1, strcpy_s(nullptr, 4, "a"));

  char buf[256];
  std::string longName(300, 'n');
  // A count below the destination size cuts the source: not an error.
  EXPECT_EQ(0, strncpy_s(buf, sizeof(buf), longName.c_str(), 255));
  EXPECT_EQ(255u, std::strlen(buf));
  EXPECT_EQ(0, strncpy_s(small, 4, "abcdef", 3));
  EXPECT_STREQ("abc", small);
  EXPECT_EQ(-1, strncpy_s(small, 4, "abcdef", 4));
  EXPECT_STREQ("", small);
  EXPECT_EQ(0, strncpy_s(small, 4, "ab", 10));
  EXPECT_STREQ("ab", small);
}

TEST(SafeStrTest, SnprintfReportsTruncationAndKeepsThePrefix) {
  char buf[10];
  EXPECT_EQ(5, snprintf_s(buf, sizeof(buf), 9, "_%d", 1234));
  EXPECT_STREQ("_1234", buf);
  EXPECT_EQ(-1, snprintf_s(buf, sizeof(buf), 9, "%s", "0123456789abc"));
  EXPECT_STREQ("012345678", buf);
  // The count limits the output even when the buffer is larger.
  EXPECT_EQ(-1, snprintf_s(buf, sizeof(buf), 3, "%s", "abcdef"));
  EXPECT_STREQ("abc", buf);
  EXPECT_EQ(3, snprintf_s(buf, sizeof(buf), 3, "%s", "abc"));
  EXPECT_EQ(-1, snprintf_s(nullptr, 10, 9, "x"));
}

}  // namespace
