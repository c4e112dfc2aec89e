#include "encoding/time_format.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <tuple>

namespace vantrelo::encoding::time {
namespace {

// The compact, RFC 3339 and RFC 3164 layouts of one UTC time, each appended to the text before it.
TEST(TimeFormatTest, ThreeLayoutsOfUtcTime) {
  const std::tuple<int64_t, uint32_t, std::string> cases[] = {
      {0, 0, "19700101000000|1970-01-01T00:00:00.0Z|Jan  1 00:00:00"},
      // The fraction is the microsecond count, unpadded: 5 us reads ".5".
      {1709622542, 5000, "20240305070902|2024-03-05T07:09:02.5Z|Mar  5 07:09:02"},
      {1709622542, 999, "20240305070902|2024-03-05T07:09:02.0Z|Mar  5 07:09:02"},
      {253402300799, 0, "99991231235959|9999-12-31T23:59:59.0Z|Dec 31 23:59:59"},
      {253402300800, 0, "100000101000000|10000-01-01T00:00:00.0Z|Jan  1 00:00:00"},
      {-1, 0, "19691231235959|1969-12-31T23:59:59.0Z|Dec 31 23:59:59"}};
  for (const auto& [seconds, nanoseconds, expected] : cases) {
    std::string out = ">";
    formatCompactTime(out, seconds);
    out += '|';
    formatRfc3339Time(out, seconds, nanoseconds);
    out += '|';
    formatRfc3164Time(out, seconds);
    EXPECT_EQ(out, ">" + expected) << seconds;
  }
}

// Every day of one full 400-year Gregorian cycle, against the standard library's calendar.
TEST(TimeFormatTest, EveryDayOfAFullCycleMatchesTheCalendar) {
  for (int64_t days = 0; days < 146097; ++days) {
    const std::chrono::year_month_day date{std::chrono::sys_days{std::chrono::days{days}}};
    char expected[48];
    std::snprintf(expected, sizeof expected, "%04d%02u%02u120000", int{date.year()},
                  unsigned{date.month()}, unsigned{date.day()});
    std::string out;
    formatCompactTime(out, days * 86400 + 43200);
    ASSERT_EQ(out, expected);
  }
}

}  // namespace
}  // namespace vantrelo::encoding::time
