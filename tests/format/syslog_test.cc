#include "format/syslog.h"

#include <gtest/gtest.h>

#include <string>

namespace ns::format {
namespace {

constexpr uint64_t k20240305T070902 = 1709622542;
constexpr uint64_t k20231231T235959 = 1704067199;

TEST(SyslogTest, Rfc5424TimeKeepsMicrosecondsUnpadded) {
  struct Case {
    uint64_t sec;
    uint32_t nsec;
    const char* expected;
  };
  const Case cases[] = {
      {k20240305T070902, 5000, "2024-03-05T07:09:02.5Z"},
      {k20240305T070902, 999999999, "2024-03-05T07:09:02.999999Z"},  // truncated
      {k20240305T070902, 999, "2024-03-05T07:09:02.0Z"},
      {k20240305T070902, 50000000, "2024-03-05T07:09:02.50000Z"},
      {k20231231T235959, 123456000, "2023-12-31T23:59:59.123456Z"},
  };
  for (const Case& c : cases) {
    std::string out = "x";
    append_rfc5424_time(out, c.sec, c.nsec);
    EXPECT_EQ(out, std::string("x") + c.expected) << c.sec << " " << c.nsec;
  }
}

TEST(SyslogTest, Rfc3164TimePadsTheDayWithASpace) {
  std::string out;
  append_rfc3164_time(out, k20240305T070902);
  EXPECT_EQ(out, "Mar  5 07:09:02");
  out.clear();
  append_rfc3164_time(out, k20231231T235959);
  EXPECT_EQ(out, "Dec 31 23:59:59");
}

TEST(SyslogTest, HeaderForEachStyle) {
  struct Case {
    uint8_t style;
    int32_t priority;
    const char* hostname;
    uint32_t pid;
    uint32_t nsec;
    const char* expected;
  };
  const Case cases[] = {
      {1, 134, "dnsbox", 4242, 5000, "<134>Mar  5 07:09:02 dnsbox vantrelo[4242]: "},
      {0, 134, "dnsbox", 4242, 123456789,
       "<134>1 2024-03-05T07:09:02.123456Z dnsbox vantrelo 4242 - - "},
      {0, 13, "h", 0, 5000, "<13>1 2024-03-05T07:09:02.5Z h vantrelo 0 - - "},
      // Negative priorities pass the configuration check and are printed as they are.
      {1, -1, "", 7, 0, "<-1>Mar  5 07:09:02  vantrelo[7]: "},
  };
  for (const Case& c : cases) {
    MessageSettings settings;
    settings.syslog_style = c.style;
    settings.syslog_priority = c.priority;
    settings.hostname = c.hostname;
    settings.process_id = c.pid;
    std::string out = "kept|";
    append_syslog_header(out, settings, k20240305T070902, c.nsec);
    EXPECT_EQ(out, std::string("kept|") + c.expected);
  }
}

}  // namespace
}  // namespace ns::format
