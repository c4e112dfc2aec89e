#include "format/syslog.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>

namespace vantrelo::format {
namespace {

TEST(SyslogTest, HeaderForEachStyle) {
  // style, priority, hostname, pid, seconds, nanoseconds, expected header.
  using Case = std::tuple<uint8_t, int32_t, const char*, uint32_t, uint64_t, uint32_t, const char*>;
  const Case cases[] = {
      {1, 134, "h", 1, 1704067199, 0, "<134>Dec 31 23:59:59 h vantrelo[1]: "},
      // Microseconds, unpadded and truncated.
      {0, 134, "dnsbox", 4242, 1709622542, 123456789,
       "<134>1 2024-03-05T07:09:02.123456Z dnsbox vantrelo 4242 - - "},
      // Negative priorities pass the configuration check and are printed as they are.
      {1, -1, "", 7, 1709622542, 0, "<-1>Mar  5 07:09:02  vantrelo[7]: "},
  };
  for (const auto& [style, priority, hostname, pid, sec, nsec, expected] : cases) {
    MessageSettings settings;
    settings.syslog_style = style;
    settings.syslog_priority = priority;
    settings.hostname = hostname;
    settings.process_id = pid;
    std::string out = "kept|";
    append_syslog_header(out, settings, sec, nsec);
    EXPECT_EQ(out, std::string("kept|") + expected);
  }
}

}  // namespace
}  // namespace vantrelo::format
