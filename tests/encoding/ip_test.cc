#include "encoding/ip.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace ns::encoding::ip {
namespace {

// Byte strings from literals with NULs inside.
template <size_t N>
std::string b(const char (&text)[N]) {
  return std::string(text, N - 1);
}

// Texts and the bytes they parse to; the accepted and refused forms follow the C library's
// inet_pton for AF_INET and then AF_INET6.
TEST(IpTest, ParseAcceptsWhatInetPtonAccepts) {
  struct Case {
    std::string text;
    std::string bytes;
  };
  const std::string zeros(16, '\0');
  const Case cases[] = {
      {"192.0.2.1", b("\xc0\x00\x02\x01")},
      {"0.0.0.0", std::string(4, '\0')},
      {"255.255.255.255", "\xff\xff\xff\xff"},
      {"2001:db8::1", "\x20\x01\x0d\xb8" + std::string(11, '\0') + "\x01"},
      {"::", zeros},
      {"::1", std::string(15, '\0') + "\x01"},
      {"1::", b("\x00\x01") + std::string(14, '\0')},
      {"0000::1", std::string(15, '\0') + "\x01"},
      {"FFFF::a", "\xff\xff" + std::string(13, '\0') + "\x0a"},
      {"1:2:3:4:5:6:7:8", b("\0\1\0\2\0\3\0\4\0\5\0\6\0\7\0\x08")},
      {"::1:2:3:4:5:6:7", b("\0\0\0\1\0\2\0\3\0\4\0\5\0\6\0\7")},
      {"1:2:3:4:5:6:7::", b("\0\1\0\2\0\3\0\4\0\5\0\6\0\7\0\0")},
      {"::ffff:1.2.3.4", std::string(10, '\0') + "\xff\xff\x01\x02\x03\x04"},
      {"1:2:3:4:5:6:1.2.3.4", b("\0\1\0\2\0\3\0\4\0\5\0\6\1\2\3\4")},
      {b("10.0.0.1\0junk"), b("\x0a\x00\x00\x01")},  // ends at the first NUL
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    std::string out = ">";
    bool isIpv6 = parseIp(out, c.text.data(), c.text.size());
    EXPECT_EQ(out, ">" + c.bytes);
    EXPECT_EQ(isIpv6, c.bytes.size() == 16);
    EXPECT_TRUE(isValidIp(c.text.data(), c.text.size()));
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
    SCOPED_TRACE(text);
    std::string out;
    try {
      parseIp(out, text.data(), text.size());
      ADD_FAILURE() << "accepted";
    } catch (const IpError& e) {
      EXPECT_EQ(e.what(), "Parse IP address " + text + " failed: Invalid IP address");
    }
    EXPECT_EQ(out, "");
    EXPECT_FALSE(isValidIp(text.data(), text.size()));
  }
}

TEST(IpTest, SixtyFourCharactersAreTooLongEvenIfValid) {
  std::string valid63 = "0000:0000:0000:0000:0000:0000:0000:0001" + std::string(24, '\0');
  std::string out;
  EXPECT_TRUE(parseIp(out, valid63.data(), 63));
  std::string valid64 = valid63 + '\0';
  try {
    parseIp(out, valid64.data(), 64);
    ADD_FAILURE() << "accepted";
  } catch (const IpError& e) {
    EXPECT_STREQ(e.what(), "Parse IP address failed: IP address too long");
  }
}

TEST(IpTest, FormatWritesCanonicalText) {
  struct Case {
    std::string bytes;
    std::string text;
  };
  const Case cases[] = {
      {b("\xc0\x00\x02\x01"), "192.0.2.1"},
      {std::string(4, '\0'), "0.0.0.0"},
      {"\xff\x0a\x64\x09", "255.10.100.9"},
      {std::string(16, '\0'), "::"},
      {std::string(15, '\0') + "\x01", "::1"},
      {b("\x00\x01") + std::string(14, '\0'), "1::"},
      // Two runs of two zero groups: the first one is compressed.
      {b("\x20\x01\x0d\xb8\0\0\0\0\0\x01\0\0\0\0\0\x01"), "2001:db8::1:0:0:1"},
      // The longer run wins even when it comes second.
      {b("\0\1\0\0\0\0\0\1\0\0\0\0\0\0\0\0"), "1:0:0:1::"},
      // A single zero group is not compressed.
      {b("\0\1\0\0\0\2\0\3\0\4\0\5\0\6\0\7"), "1:0:2:3:4:5:6:7"},
      {b("\xab\xcd\x0f\x00\x00\xf0\0\0\0\0\0\0\0\0\0\x10"), "abcd:f00:f0::10"},
      // No dotted-quad tail for mapped addresses.
      {std::string(10, '\0') + "\xff\xff\x01\x02\x03\x04", "::ffff:102:304"},
  };
  for (const Case& c : cases) {
    std::string out = ">";
    const auto* data = reinterpret_cast<const uint8_t*>(c.bytes.data());
    if (c.bytes.size() == 4) {
      formatIpv4(out, data);
    } else {
      formatIpv6(out, data);
    }
    EXPECT_EQ(out, ">" + c.text);
    // What is written parses back to the same bytes.
    std::string parsed;
    parseIp(parsed, c.text.data(), c.text.size());
    EXPECT_EQ(parsed, c.bytes) << c.text;
  }
}

}  // namespace
}  // namespace ns::encoding::ip
