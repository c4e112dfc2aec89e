#include "dns/record_data.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "dns/dns_message.h"
#include "wire_builder.h"

namespace vantrelo::net::dns {
namespace {

using testing::Bytes;
using testing::cat;
using testing::wire_name;
using testing::WireBuilder;

// Presents `rdata` as the only answer of a message whose question name "a.b." sits at offset 12,
// so 0xC0 0x0C inside the data names it. The data starts at offset 33 and is followed by four
// ignored bytes, so reads beyond the data land inside the message. Failures come back as "!"
// and the text after the common prefix.
std::string present(uint16_t type, const Bytes& rdata, bool trailing_dot = true) {
  DnsMessage m = testing::parsed(
      cat({WireBuilder(1).record(type, rdata).bytes(), {0xEE, 0xEE, 0xEE, 0xEE}}), trailing_dot);
  const std::string prefix = "Read DNS message failed: ";
  if (!m.error.empty())
    return "!" + (m.error.rfind(prefix, 0) == 0 ? m.error.substr(prefix.size()) : m.error);
  return m.answers.size == 1 ? m.answers.records[0].data : "<no record>";
}

const Bytes kPtr = {0xC0, 0x0C};  // "a.b."
Bytes svcb(const Bytes& params) { return cat({{0, 1, 0}, params}); }  // priority 1, root target

// Plain forms of every type are compared with a real server's data in record_data_zone_test.cc;
// these are the edges: limits, escapes, every gateway and parameter kind, and failures.
TEST(PresentRdataTest, EdgesOfEveryLayout) {
  struct Case {
    uint16_t type;
    Bytes rdata;
    std::string text;  // presentation, or "!" and the failure
  };
  const std::vector<Case> cases = {
      {1, {1, 2, 3, 4, 5}, "!A record data length is 5 but should be 4"},
      {6,
       cat({kPtr,
            wire_name("host"),
            {0, 0, 0, 1, 0, 0, 0, 2, 0, 0, 0, 3, 0, 0, 0, 4},
            {0xFF, 0xFF, 0xFF, 0xFF}}),
       "a.b. host. 1 2 3 4 4294967295"},
      {16, {0, 3, 0x0A, '\\', 0xFF}, "\"\" \"\\010\\\\\\255\""},
      {16, {5, 'a'}, "!Character-string length 5 exceeds the 1 bytes left in the record data"},
      {43, {0x30, 0x39, 13}, "!DS record data length is 3 but its fields need 4 bytes"},
      // The IPSECKEY gateway is chosen by the third byte and read after the fourth.
      {45, {10, 1, 0, 7, 'a', 'b', 'c'}, "10 1 0 7 . YWJj"},
      {45, {10, 0, 1, 7, 192, 0, 2, 1, 'a'}, "10 0 1 7 192.0.2.1 YQ=="},
      {45, cat({{10, 2, 3, 7}, kPtr, {'a', 'b'}}), "10 2 3 7 a.b. YWI="},
      {46, cat({{0xFF, 0x00, 8, 2}, Bytes(14, 0), {0}}),
       "TYPE65280 8 2 0 19700101000000 19700101000000 0 . "},
      {50,
       {1, 0, 0, 10, 0, 1, 0xFF, 0, 6, 0x20, 0, 0, 0, 0, 0x02, 1, 1, 0x80},
       "1 0 10 - VS NS RRSIG URI"},
      {256, {0, 10, 0, 1, 3, 'a', ':', 'b'}, "10 1 \"a:b\""},
      {257, {0, 5, 'i', 's', 's', 'u', 'e', 2, 'c', 'a'}, "0 issue \"ca\""},
      // Types without a layout of their own, known or not, use the generic form.
      {47, {0, 0, 1, 0x40}, "\\# 4 00000140"},
      // Service bindings.
      {64, svcb({0, 0, 0, 6, 0, 1, 0, 4, 0, 9}), "1 . mandatory=\"alpn,ipv4hint,key9\""},
      {65, svcb({0, 2, 0, 0}), "1 . no-default-alpn"},
      // The path is taken as a character-string and written once.
      {65, svcb({0, 7, 0, 4, 3, '/', 'q', '"'}), "1 . dohpath=\"/q\\\"\""},
      {65, svcb({0, 1, 0, 3, 2, 'h', '2', 0, 3, 0, 2, 0, 80}), "1 . alpn=\"h2\" port=\"80\""},
      {65, svcb({0, 3, 0, 9, 0, 80}),
       "!Parse HTTPS record data failed: Expected 9 << bytes at 40 until 42"},
  };
  for (const Case& c : cases) EXPECT_EQ(present(c.type, c.rdata), c.text) << "type " << c.type;
}

TEST(PresentRdataTest, NamesFollowTrailingDotSetting) {
  EXPECT_EQ(present(65, svcb({0, 1, 0, 3, 2, 'h', '2'}), false), "1  alpn=\"h2\"");
  EXPECT_EQ(present(45, {1, 0, 0, 0}, false), "1 0 0 0 . ");
}

}  // namespace
}  // namespace vantrelo::net::dns
