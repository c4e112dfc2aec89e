#include "encoding/time_format.h"

#include <gtest/gtest.h>

#include <string>

namespace ns::encoding::time {
namespace {

TEST(TimeFormatTest, ThreeLayoutsOfUtcTime) {
  struct Case {
    int64_t seconds;
    uint32_t nanoseconds;
    const char* compact;
    const char* rfc3339;
    const char* rfc3164;
  };
  const Case cases[] = {
      {0, 0, "19700101000000", "1970-01-01T00:00:00.0Z", "Jan  1 00:00:00"},
      // The fraction is the microsecond count, unpadded: 5 us reads ".5".
      {1709622542, 5000, "20240305070902", "2024-03-05T07:09:02.5Z", "Mar  5 07:09:02"},
      {1709622542, 999999999, "20240305070902", "2024-03-05T07:09:02.999999Z", "Mar  5 07:09:02"},
      {1709622542, 999, "20240305070902", "2024-03-05T07:09:02.0Z", "Mar  5 07:09:02"},
      {951825600, 0, "20000229120000", "2000-02-29T12:00:00.0Z", "Feb 29 12:00:00"},  // leap day
      {951868800, 0, "20000301000000", "2000-03-01T00:00:00.0Z", "Mar  1 00:00:00"},
      {2147483647, 0, "20380119031407", "2038-01-19T03:14:07.0Z", "Jan 19 03:14:07"},
      {2147483648, 0, "20380119031408", "2038-01-19T03:14:08.0Z", "Jan 19 03:14:08"},
      {2214172799, 0, "20400229235959", "2040-02-29T23:59:59.0Z", "Feb 29 23:59:59"},
      // 2100 is not a leap year: 28 February is followed by 1 March.
      {4107456000, 0, "21000228000000", "2100-02-28T00:00:00.0Z", "Feb 28 00:00:00"},
      {4107542400, 0, "21000301000000", "2100-03-01T00:00:00.0Z", "Mar  1 00:00:00"},
      {1735689599, 0, "20241231235959", "2024-12-31T23:59:59.0Z", "Dec 31 23:59:59"},
      {253402300799, 0, "99991231235959", "9999-12-31T23:59:59.0Z", "Dec 31 23:59:59"},
      {253402300800, 0, "100000101000000", "10000-01-01T00:00:00.0Z", "Jan  1 00:00:00"},
      {-1, 0, "19691231235959", "1969-12-31T23:59:59.0Z", "Dec 31 23:59:59"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.seconds);
    std::string out = ">";
    formatCompactTime(out, c.seconds);
    EXPECT_EQ(out, std::string(">") + c.compact);
    out = ">";
    formatRfc3339Time(out, c.seconds, c.nanoseconds);
    EXPECT_EQ(out, std::string(">") + c.rfc3339);
    out = ">";
    formatRfc3164Time(out, c.seconds);
    EXPECT_EQ(out, std::string(">") + c.rfc3164);
  }
}

// Every day over 400 years (one full Gregorian cycle): consecutive days differ by exactly one
// calendar step.
TEST(TimeFormatTest, DaysFollowEachOtherOverAFullCycle) {
  const int kDaysInMonth[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  int year = 1970, month = 1, day = 1;
  for (int64_t days = 0; days < 146097; ++days) {
    char expected[48];
    std::snprintf(expected, sizeof expected, "%04d%02d%02d120000", year, month, day);
    std::string out;
    formatCompactTime(out, days * 86400 + 43200);
    ASSERT_EQ(out, expected);
    bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    int length = kDaysInMonth[month - 1] + (month == 2 && leap ? 1 : 0);
    if (++day > length) {
      day = 1;
      if (++month > 12) {
        month = 1;
        ++year;
      }
    }
  }
}

}  // namespace
}  // namespace ns::encoding::time
