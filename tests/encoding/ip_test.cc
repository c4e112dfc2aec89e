#include "encoding/ip.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "test_helpers.h"

namespace vantrelo::encoding::ip {
namespace {

using test::b;
using test::errorOf;

// Texts, the bytes they parse to (as inet_pton for AF_INET and then AF_INET6 accepts them) and
// the canonical text those bytes format to, when it differs from the text.
TEST(IpTest, ParseAndFormat) {
  struct Case {
    std::string text, bytes, canonical;
  };
  const std::string z10(10, '\0'), z14(14, '\0');
  const Case cases[] = {
      {"192.0.2.1", b("\xc0\x00\x02\x01"), ""},
      {"2001:db8::1", "\x20\x01\x0d\xb8" + z10 + b("\0\x01"), ""},
      {"::", z14 + b("\0\0"), ""},
      {"FFFF::a", "\xff\xff" + z10 + b("\0\0\0\x0a"), "ffff::a"},
      {"1:2:3:4:5:6:7:8", b("\0\1\0\2\0\3\0\4\0\5\0\6\0\7\0\x08"), ""},
      {"::1:2:3:4:5:6:7", b("\0\0\0\1\0\2\0\3\0\4\0\5\0\6\0\7"), "0:1:2:3:4:5:6:7"},
      // No dotted-quad tail when formatting mapped addresses.
      {"::ffff:1.2.3.4", z10 + "\xff\xff\x01\x02\x03\x04", "::ffff:102:304"},
      {"1:2:3:4:5:6:1.2.3.4", b("\0\1\0\2\0\3\0\4\0\5\0\6\1\2\3\4"), "1:2:3:4:5:6:102:304"},
      {b("10.0.0.1\0junk"), b("\x0a\x00\x00\x01"), "10.0.0.1"},  // ends at the first NUL
      // Of two runs of zero groups the first compresses, unless the second is longer; a single
      // zero group does not.
      {"2001:db8::1:0:0:1", b("\x20\x01\x0d\xb8\0\0\0\0\0\x01\0\0\0\0\0\x01"), ""},
      {"1:0:0:1::", b("\0\1\0\0\0\0\0\1\0\0\0\0\0\0\0\0"), ""},
      {"1:0:2:3:4:5:6:7", b("\0\1\0\0\0\2\0\3\0\4\0\5\0\6\0\7"), ""},
      {"abcd:f00:f0::10", b("\xab\xcd\x0f\x00\x00\xf0\0\0\0\0\0\0\0\0\0\x10"), ""}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    std::string parsed = ">", formatted = ">";
    EXPECT_EQ(parseIp(parsed, c.text.data(), c.text.size()), c.bytes.size() == 16);
    EXPECT_EQ(parsed, ">" + c.bytes);
    EXPECT_TRUE(isValidIp(c.text.data(), c.text.size()));
    const auto* data = reinterpret_cast<const uint8_t*>(c.bytes.data());
    c.bytes.size() == 4 ? formatIpv4(formatted, data) : formatIpv6(formatted, data);
    EXPECT_EQ(formatted, ">" + (c.canonical.empty() ? c.text : c.canonical));
  }
}

TEST(IpTest, ParseRefusesOtherTexts) {
  // Separated by '|'; the first one is the empty text.
  const std::string invalid =
      "|01.2.3.4|1.2.3.04|00.1.2.3|1.2.3|1.2.3.4.|256.1.1.1| 1.2.3.4|1.2.3.4 |0x1.2.3.4|1::2:|:1|"
      "1:::2|00000::1|1:2:3:4:5:6:7::8|1:2:3:4:5:6::1.2.3.4|::1.2.3|::ffff:01.2.3.4|1.2.3.4::|"
      "::1.2.3.4:1|::%|::0x1|1:2:3:4:5:6:7:1.2.3.4|1:2:3:4:5:6:7:8:9|g::1|1:2:3:4:5:6:7";
  for (size_t start = 0, end = 0; start <= invalid.size(); start = end + 1) {
    end = std::min(invalid.find('|', start), invalid.size());
    const std::string text = invalid.substr(start, end - start);
    std::string out;
    EXPECT_EQ(errorOf<IpError>([&] { parseIp(out, text.data(), text.size()); }),
              "Parse IP address " + text + " failed: Invalid IP address");
    EXPECT_EQ(out, "");
    EXPECT_FALSE(isValidIp(text.data(), text.size())) << text;
  }
  // Sixty-four characters are too long even when the text before the NULs is valid.
  std::string valid64 = "0000:0000:0000:0000:0000:0000:0000:0001" + std::string(25, '\0');
  std::string out;
  EXPECT_TRUE(parseIp(out, valid64.data(), 63));
  EXPECT_EQ(errorOf<IpError>([&] { parseIp(out, valid64.data(), 64); }),
            "Parse IP address failed: IP address too long");
}

}  // namespace
}  // namespace vantrelo::encoding::ip
