#include "format/syslog.h"

#include <gtest/gtest.h>

#include <string>

namespace ns::format {
namespace {

TEST(SyslogTest, HeaderForEachStyle) {
  struct Case {
    uint8_t style;
    int32_t priority;
    const char* hostname;
    uint32_t pid;
    uint64_t sec;
    uint32_t nsec;
    const char* expected;
  };
  const Case cases[] = {
      {1, 134, "dnsbox", 4242, 1709622542, 5000, "<134>Mar  5 07:09:02 dnsbox vantrelo[4242]: "},
      {1, 134, "h", 1, 1704067199, 0, "<134>Dec 31 23:59:59 h vantrelo[1]: "},
      // Microseconds, unpadded and truncated.
      {0, 134, "dnsbox", 4242, 1709622542, 123456789,
       "<134>1 2024-03-05T07:09:02.123456Z dnsbox vantrelo 4242 - - "},
      {0, 13, "h", 0, 1709622542, 5000, "<13>1 2024-03-05T07:09:02.5Z h vantrelo 0 - - "},
      // Negative priorities pass the configuration check and are printed as they are.
      {1, -1, "", 7, 1709622542, 0, "<-1>Mar  5 07:09:02  vantrelo[7]: "},
  };
  for (const Case& c : cases) {
    MessageSettings settings;
    settings.syslog_style = c.style;
    settings.syslog_priority = c.priority;
    settings.hostname = c.hostname;
    settings.process_id = c.pid;
    std::string out = "kept|";
    append_syslog_header(out, settings, c.sec, c.nsec);
    EXPECT_EQ(out, std::string("kept|") + c.expected);
  }
}

}  // namespace
}  // namespace ns::format
