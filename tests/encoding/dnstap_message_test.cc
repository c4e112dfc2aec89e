#include "encoding/dnstap_message.h"

#include <gtest/gtest.h>

#include <string>

#include "encoding/text_encoding.h"
#include "test_helpers.h"

namespace vantrelo::encoding::dnstap {
namespace {

using test::b;

// Every field: the header texts, the byte fields in hex, then the numbers.
std::string describe(const DnstapMessage& m) {
  std::string out = m.identity + "|" + m.version + "|" + m.extra;
  for (const std::string* bytes :
       {&m.query_address, &m.response_address, &m.query_message, &m.response_message}) {
    out += '|';
    hex::hexEncode(out, reinterpret_cast<const uint8_t*>(bytes->data()), bytes->size());
  }
  for (uint64_t n :
       {m.type, m.socket_family, m.socket_protocol, m.query_port, m.response_port, m.query_time_sec,
        uint64_t{m.query_time_nsec}, m.response_time_sec, uint64_t{m.response_time_nsec}}) {
    out += ' ' + std::to_string(n);
  }
  return out;
}

// A client response with every field set, in encoder order.
const std::string kFullFrame =
    b("\x0a\x03ns1\x12\x02v2\x1a\x01x"                    // identity, version, extra
      "\x78\x01\x72\x36"                                  // type MESSAGE; message of 54 bytes:
      "\x08\x06\x10\x01\x18\x01"                          // CLIENT_RESPONSE, INET, UDP
      "\x22\x04\xc0\x00\x02\x01\x2a\x04\xc0\x00\x02\x35"  // query/response address
      "\x30\xb9\x60"                                      // query_port 12345
      "\x40\x8e\x8a\x9b\xaf\x06\x4d\x88\x13\x00\x00"      // query_time_sec, query_time_nsec
      "\x52\x03\xaa\xbb\xcc\x38\x35"                      // query_message, response_port 53
      "\x60\x8f\x8a\x9b\xaf\x06\x6d\x3f\x42\x0f\x00"      // response_time_sec, response_time_nsec
      "\x72\x02\xdd\xee");                                // response_message
const std::string kFullText =
    "ns1|v2|x|C0000201|C0000235|AABBCC|DDEE 6 1 1 12345 53 1709622542 5000 1709622543 999999";
const std::string kEmptyText = "|||| 0 0 0 0 0 0 0 0 0";

uint32_t decodeAt(DnstapMessage& m, const std::string& frame, uint32_t offset) {
  return m.decode(reinterpret_cast<const uint8_t*>(frame.data()), frame.size(), offset);
}

TEST(DnstapMessageTest, EveryFieldRoundTripsByteForByte) {
  DnstapMessage decoded;
  EXPECT_EQ(decodeAt(decoded, "\xff\xff" + kFullFrame, 2), kFullFrame.size() + 2);
  EXPECT_EQ(describe(decoded), kFullText);
  std::string out = "prefix";  // encode appends
  decoded.encode(out);
  EXPECT_EQ(out, "prefix" + kFullFrame);

  decoded.clear(false);  // keeps the header that a listener sets once
  EXPECT_EQ(describe(decoded), "ns1|v2|x" + kEmptyText);
  out.clear();
  DnstapMessage().encode(out);
  EXPECT_EQ(out, b("\x78\x01\x72\x02\x08\x00"));
}

// Each frame decoded into a record that held the full frame: the record text, or the failure.
// Header fields share one layout table, and skipping has its own tests: one row each here.
TEST(DnstapMessageTest, DecodeClearsThenFillsOrFailsWithTheMessage) {
  const std::pair<std::string, std::string> cases[] = {
      {"", "||" + kEmptyText},
      // Unknown Message fields of every wire type are stepped over: query_zone (11), policy
      // (15), http_protocol (16, a two-byte tag), then fixed64 and fixed32 fields 20 and 21.
      {b("\x72\x2a\x08\x02\x5a\x09\x07"
         "example"
         "\x00\x10\x01\x7a\x04\x08\x01\x10\x02"
         "\x80\x01\x02\xa1\x01\x01\x02\x03\x04\x05\x06\x07\x08\xad\x01\x01\x02\x03\x04"
         "\x38\x35"),
       "|||||| 2 1 0 0 53 0 0 0 0"},
      {"\x78\x02", "Expected type field to be 1 but got 2"},
      {b("\x7a\x00"), "Expected type field to use varint type but got 2"},
      {"\x08\x01", "Expected identity field to use bytes type but got 0"},
      {b("\x70\x00"), "Expected message field to use bytes type but got 0"},
      {b("\x72\x02\x20\x00"), "Expected message query_address field to use bytes type but got 0"},
      {"\x72\x03\x4d\x01\x02", "Not enough bytes to decode fixed32 field"},
      {"\x72\x05\x08\x01", "Invalid length 5 for bytes field with only 2 bytes remaining"},
      // Inner offsets count within the Message.
      {"\x78\x01\x72\x02\x08\x80",
       "Read variable length encoded uint failed: Offset 2 is out of bounds for data of 2 bytes"},
      {"\x23", "Decode dnstap failed: Unknown top-level field type 3"}};
  for (const auto& [frame, expected] : cases) {
    SCOPED_TRACE(expected);
    DnstapMessage decoded;
    decodeAt(decoded, kFullFrame, 0);
    uint32_t end = 0;
    const std::string error =
        test::errorOf<DnstapError>([&] { end = decodeAt(decoded, frame, 0); });
    EXPECT_EQ(error.empty() ? describe(decoded) : error, expected);
    EXPECT_EQ(end, error.empty() ? frame.size() : 0);
  }
}

}  // namespace
}  // namespace vantrelo::encoding::dnstap
