#include "dns/record_data.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "dns/dns_message.h"
#include "wire_builder.h"

namespace ns::net::dns {
namespace {

using testing::Bytes;
using testing::cat;
using testing::wire_name;
using testing::WireBuilder;

struct RdataCase {
  const char* label;
  uint16_t type;
  Bytes rdata;
  std::string text;  // presentation with trailing dots, or the error after the common prefix
  bool fails = false;
};

// Presents `rdata` as the only answer of a message whose question name "a.b." sits at offset 12,
// so 0xC0 0x0C inside the data names it. The data starts at offset 33 and is followed by four
// ignored bytes, so reads beyond the data land inside the message.
std::string present(uint16_t type, const Bytes& rdata, bool trailing_dot, std::string* error) {
  Bytes bytes = cat({WireBuilder(1).record(type, rdata).bytes(), {0xEE, 0xEE, 0xEE, 0xEE}});
  DnsMessage message;
  parse(bytes.data(), static_cast<uint32_t>(bytes.size()), message, trailing_dot);
  *error = message.error;
  return message.answers.size == 1 ? message.answers.records[0].data : "";
}

const Bytes kPtr = {0xC0, 0x0C};  // "a.b."
const Bytes k16Zero = Bytes(16, 0);

TEST(PresentRdataTest, EveryLayout) {
  const std::vector<RdataCase> cases = {
      {"A", 1, {192, 0, 2, 1}, "192.0.2.1"},
      {"A short", 1, {1, 2, 3, 4, 5}, "A record data length is 5 but should be 4", true},
      {"AAAA", 28, cat({{0x20, 0x01, 0x0d, 0xb8}, Bytes(11, 0), {1}}), "2001:db8::1"},
      {"AAAA short", 28, {1, 2, 3, 4}, "AAAA record data length is 4 but should be 16", true},
      {"NS", 2, kPtr, "a.b."},
      {"CNAME", 5, wire_name("c.d"), "c.d."},
      {"PTR", 12, cat({{1, 'x'}, kPtr}), "x.a.b."},
      {"DNAME", 39, kPtr, "a.b."},
      {"SOA", 6, cat({kPtr, wire_name("host"), {0, 0, 0, 1, 0, 0, 0,    2,    0,    0,
                                                0, 3, 0, 0, 0, 4, 0xFF, 0xFF, 0xFF, 0xFF}}),
       "a.b. host. 1 2 3 4 4294967295"},
      {"MX", 15, cat({{0, 10}, kPtr}), "10 a.b."},
      {"AFSDB", 18, cat({{0, 1}, kPtr}), "1 a.b."},
      {"KX", 36, cat({{1, 0}, kPtr}), "256 a.b."},
      {"TXT two strings", 16, {2, 'h', 'i', 0, 3, 'a', '"', 'b'}, "\"hi\" \"\" \"a\\\"b\""},
      {"TXT empty data", 16, {}, ""},
      {"TXT escapes", 16, {3, 0x0A, '\\', 0xFF}, "\"\\010\\\\\\255\""},
      {"TXT overrun",
       16,
       {5, 'a'},
       "Character-string length 5 exceeds the 1 bytes left in the record data",
       true},
      {"SRV", 33, cat({{0, 1, 0, 2, 0x01, 0xBB}, kPtr}), "1 2 443 a.b."},
      {"NAPTR", 35,
       cat({{0, 100, 0, 10, 1, 'U', 7},
            Bytes{'E', '2', 'U', '+', 's', 'i', 'p'},
            {3, '!', 'x', '!'},
            {0}}),
       "100 10 \"U\" \"E2U+sip\" \"!x!\" ."},
      {"CERT", 37, {0, 1, 0x30, 0x39, 8, 'a', 'b', 'c'}, "PKIX 12345 RSASHA256 YWJj"},
      {"CERT unknown", 37, {0, 9, 0, 1, 9}, "9 1 9 "},
      {"DS", 43, {0x30, 0x39, 13, 2, 0xAB, 0xCD}, "12345 13 2 ABCD"},
      {"DS short",
       43,
       {0x30, 0x39, 13},
       "DS record data length is 3 but its fields need 4 bytes",
       true},
      {"CDS", 59, {0, 0, 0, 0}, "0 0 0 "},
      {"SSHFP", 44, {4, 2, 0x01, 0xFE}, "4 2 01FE"},
      // The gateway is chosen by the third byte and read after the fourth.
      {"IPSECKEY none", 45, {10, 1, 0, 7, 'a', 'b', 'c'}, "10 1 0 7 . YWJj"},
      {"IPSECKEY ipv4", 45, {10, 0, 1, 7, 192, 0, 2, 1, 'a'}, "10 0 1 7 192.0.2.1 YQ=="},
      {"IPSECKEY ipv6", 45, cat({{10, 0, 2, 7}, k16Zero}), "10 0 2 7 :: "},
      {"IPSECKEY name", 45, cat({{10, 2, 3, 7}, kPtr, {'a', 'b'}}), "10 2 3 7 a.b. YWI="},
      {"IPSECKEY other", 45, {10, 3, 4, 7, 'a', 'b'}, "10 3 4 7 YWI="},
      {"IPSECKEY short",
       45,
       {10, 0, 1, 7, 1, 2},
       "IPSECKEY record data length is 6 but its fields need 8 bytes",
       true},
      {"RRSIG", 46,
       cat({{0, 1, 8, 2, 0, 0, 0x0E, 0x10, 0x65, 0x92, 0x00, 0x80, 0, 0, 0, 0, 0x30, 0x39},
            kPtr,
            {'a', 'b', 'c'}}),
       "A 8 2 3600 20240101000000 19700101000000 12345 a.b. YWJj"},
      {"RRSIG unknown type", 46, cat({{0xFF, 0x00, 8, 2}, Bytes(14, 0), {0}}),
       "TYPE65280 8 2 0 19700101000000 19700101000000 0 . "},
      {"DNSKEY", 48, {1, 1, 3, 15, 'a', 'b'}, "257 3 15 YWI="},
      {"CDNSKEY", 60, {0, 0, 3, 0}, "0 3 0 "},
      {"DHCID", 49, {'a', 'b', 'c', 'd'}, "YWJjZA=="},
      {"OPENPGPKEY", 61, {0xFF}, "/w=="},
      {"NSEC3",
       50,
       {1, 0, 0, 10, 0, 1, 0xFF, 0, 6, 0x20, 0, 0, 0, 0, 0x02, 1, 1, 0x80},
       "1 0 10 - VS NS RRSIG URI"},
      {"NSEC3 salt", 50, {1, 1, 0, 0, 2, 0xAB, 0xCD, 0}, "1 1 0 ABCD "},
      {"NSEC3 unknown bit",
       50,
       {1, 0, 0, 0, 0, 0, 0, 7, 0, 0, 0, 0, 0, 0, 0x02},
       "1 0 0 -  TYPE54"},
      {"NSEC3PARAM", 51, {1, 0, 0, 5, 1, 0x0F}, "1 0 5 0F"},
      {"NSEC3PARAM no salt", 51, {1, 0, 0, 5, 0}, "1 0 5 -"},
      {"URI", 256, {0, 10, 0, 1, 3, 'a', ':', 'b'}, "10 1 \"a:b\""},
      {"CAA", 257, {0, 5, 'i', 's', 's', 'u', 'e', 2, 'c', 'a'}, "0 issue \"ca\""},
      {"SPF generic", 99, {1, 'A'}, "\\# 2 0141"},
      {"NSEC generic", 47, {0, 0, 1, 0x40}, "\\# 4 00000140"},
      {"HINFO generic", 13, {1, 'x', 1, 'y'}, "\\# 4 01780179"},
      {"LOC generic", 29, {0}, "\\# 1 00"},
      {"empty generic", 65280, {}, "\\# 0 "},
  };
  for (const RdataCase& c : cases) {
    std::string error;
    std::string text = present(c.type, c.rdata, true, &error);
    if (c.fails) {
      EXPECT_EQ(error, "Read DNS message failed: " + c.text) << c.label;
    } else {
      EXPECT_EQ(error, "") << c.label;
      EXPECT_EQ(text, c.text) << c.label;
    }
  }
}

TEST(PresentRdataTest, ServiceBindingParameters) {
  auto svcb = [](Bytes params) {
    return cat({{0, 1, 0}, params});  // priority 1, root target
  };
  const std::vector<RdataCase> cases = {
      {"alpn", 65, svcb({0, 1, 0, 6, 2, 'h', '2', 2, 'h', '3'}), "1 . alpn=\"h2,h3\""},
      {"alias", 65, {0, 0, 3, 'c', 'd', 'n', 0}, "0 cdn."},
      {"mandatory", 64, svcb({0, 0, 0, 6, 0, 1, 0, 4, 0, 9}),
       "1 . mandatory=\"alpn,ipv4hint,key9\""},
      {"no-default-alpn", 65, svcb({0, 2, 0, 0}), "1 . no-default-alpn"},
      {"port", 65, svcb({0, 3, 0, 2, 0x01, 0xBB}), "1 . port=\"443\""},
      {"ipv4hint", 65, svcb({0, 4, 0, 8, 192, 0, 2, 1, 192, 0, 2, 2}),
       "1 . ipv4hint=\"192.0.2.1,192.0.2.2\""},
      {"ech", 65, svcb({0, 5, 0, 3, 'a', 'b', 'c'}), "1 . ech=\"YWJj\""},
      {"ipv6hint", 65, svcb(cat({{0, 6, 0, 32}, k16Zero, {0x20, 0x01, 0x0d, 0xb8}, Bytes(12, 0)})),
       "1 . ipv6hint=\"::,2001:db8::\""},
      // The path is taken as a character-string and written once.
      {"dohpath", 65, svcb({0, 7, 0, 4, 3, '/', 'q', '"'}), "1 . dohpath=\"/q\\\"\""},
      {"unknown key", 65, svcb({0x01, 0x00, 0, 2, 'x', 0x01}), "1 . key256=\"x\\001\""},
      {"several", 65, svcb({0, 1, 0, 3, 2, 'h', '2', 0, 3, 0, 2, 0, 80}),
       "1 . alpn=\"h2\" port=\"80\""},
      {"value overrun", 65, svcb({0, 3, 0, 9, 0, 80}),
       "Parse HTTPS record data failed: Expected 9 << bytes at 40 until 42", true},
      {"alpn id overrun", 65, svcb({0, 1, 0, 2, 5, 'h'}),
       "Parse HTTPS record data failed: Expected 5 << bytes at 41 until 42", true},
      {"ipv4hint odd", 65, svcb({0, 4, 0, 2, 1, 2}),
       "Parse HTTPS record data failed: Expected 4 << bytes at 40 until 42", true},
  };
  for (const RdataCase& c : cases) {
    std::string error;
    std::string text = present(c.type, c.rdata, true, &error);
    if (c.fails) {
      EXPECT_EQ(error, "Read DNS message failed: " + c.text) << c.label;
    } else {
      EXPECT_EQ(error, "") << c.label;
      EXPECT_EQ(text, c.text) << c.label;
    }
  }
}

TEST(PresentRdataTest, NamesFollowTrailingDotSetting) {
  std::string error;
  EXPECT_EQ(present(65, {0, 1, 0, 0, 1, 0, 3, 2, 'h', '2'}, false, &error), "1  alpn=\"h2\"");
  EXPECT_EQ(present(6, cat({kPtr, {0}, Bytes(20, 0)}), false, &error), "a.b  0 0 0 0 0");
  EXPECT_EQ(present(45, {1, 0, 0, 0}, false, &error), "1 0 0 0 . ");
  EXPECT_EQ(error, "");
}

TEST(PresentRdataTest, DataPastMessageEndFails) {
  const uint8_t bytes[] = {1, 2, 3, 4};
  std::string out;
  try {
    present_rdata(1, bytes, 4, 1, 4, out, true);
    ADD_FAILURE() << "no failure";
  } catch (const DnsError& e) {
    EXPECT_STREQ(e.what(),
                 "Offset 1 + record data length 4 is out of bounds for packet of 4 bytes");
  }
}

TEST(CharacterStringsTest, SingleReturnsBytesUsed) {
  const uint8_t bytes[] = {2, 'a', 'b', 1, 'c'};
  std::string out;
  EXPECT_EQ(append_character_strings(bytes, 5, out, false, true), 3u);
  EXPECT_EQ(out, "ab");
  out.clear();
  EXPECT_EQ(append_character_strings(bytes, 5, out, false, false), 5u);
  EXPECT_EQ(out, "ab c");
}

}  // namespace
}  // namespace ns::net::dns
