// Tests of date_FormatDateAndTime: calendar edges (epoch, leap days, the
// century rule, the 2038 boundary and the largest 32-bit time), separators,
// and cutting the text to a small buffer.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "date.h"

namespace {

std::string Format(uint32_t seconds, const char* separator = " ") {
  char buf[64];
  std::memset(buf, 'x', sizeof buf);
  const size_t n = date_FormatDateAndTime(seconds, separator, buf, sizeof buf);
  EXPECT_EQ(n, std::strlen(buf));
  return buf;
}

TEST(DateFormat, Epoch) { EXPECT_EQ(Format(0), "1970-01-01 00:00:00"); }

TEST(DateFormat, OrdinaryTime) { EXPECT_EQ(Format(1795442709), "2026-11-23 14:05:09"); }

TEST(DateFormat, LeapDays) {
  EXPECT_EQ(Format(1709210096), "2024-02-29 12:34:56");
  // 2000 is a leap year although it is a century year.
  EXPECT_EQ(Format(951782400), "2000-02-29 00:00:00");
  // 2100 is not: the day after 28 February is 1 March.
  EXPECT_EQ(Format(4107542399u), "2100-02-28 23:59:59");
  EXPECT_EQ(Format(4107542400u), "2100-03-01 00:00:00");
}

TEST(DateFormat, BeyondSigned32Bits) {
  EXPECT_EQ(Format(2147483647u), "2038-01-19 03:14:07");
  EXPECT_EQ(Format(2147483648u), "2038-01-19 03:14:08");
  EXPECT_EQ(Format(UINT32_MAX), "2106-02-07 06:28:15");
}

TEST(DateFormat, Separators) {
  EXPECT_EQ(Format(1795442709, "T"), "2026-11-23T14:05:09");
  EXPECT_EQ(Format(1795442709, ""), "2026-11-2314:05:09");
  EXPECT_EQ(Format(1795442709, nullptr), "2026-11-2314:05:09");
  EXPECT_EQ(Format(1795442709, " at "), "2026-11-23 at 14:05:09");
}

TEST(DateFormat, LengthMatchesTextLength) {
  EXPECT_EQ(Format(UINT32_MAX).size(), date_TextLength(1));
  EXPECT_EQ(Format(0, " at ").size(), date_TextLength(4));
}

TEST(DateFormat, CutToSmallBuffer) {
  char buf[8];
  std::memset(buf, 'x', sizeof buf);
  EXPECT_EQ(date_FormatDateAndTime(0, " ", buf, 5), 19u);
  EXPECT_STREQ(buf, "1970");
  EXPECT_EQ(buf[5], 'x');  // nothing written past the given size
  EXPECT_EQ(date_FormatDateAndTime(0, " ", nullptr, 0), 19u);
}

}  // namespace
