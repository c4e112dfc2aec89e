#include "encoding/dnstap_message.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

namespace ns::encoding::dnstap {
namespace {

// Byte strings from literals with NULs inside.
template <size_t N>
std::string b(const char (&text)[N]) {
  return std::string(text, N - 1);
}

using Bytes = std::vector<uint8_t>;

std::string str(const Bytes& bytes) { return std::string(bytes.begin(), bytes.end()); }

// A client response with every modelled field set, in encoder order.
const Bytes kFullFrame = {
    0x0a, 0x03, 'n',  's',  '1',         // identity "ns1"
    0x12, 0x02, 'v',  '2',               // version "v2"
    0x1a, 0x01, 'x',                     // extra "x"
    0x78, 0x01,                          // type MESSAGE
    0x72, 0x36,                          // message, 54 bytes:
    0x08, 0x06,                          // type CLIENT_RESPONSE
    0x10, 0x01,                          // socket_family INET
    0x18, 0x01,                          // socket_protocol UDP
    0x22, 0x04, 0xc0, 0x00, 0x02, 0x01,  // query_address 192.0.2.1
    0x2a, 0x04, 0xc0, 0x00, 0x02, 0x35,  // response_address 192.0.2.53
    0x30, 0xb9, 0x60,                    // query_port 12345
    0x40, 0x8e, 0x8a, 0x9b, 0xaf, 0x06,  // query_time_sec 1709622542
    0x4d, 0x88, 0x13, 0x00, 0x00,        // query_time_nsec 5000
    0x52, 0x03, 0xaa, 0xbb, 0xcc,        // query_message
    0x38, 0x35,                          // response_port 53, behind query_message
    0x60, 0x8f, 0x8a, 0x9b, 0xaf, 0x06,  // response_time_sec 1709622543
    0x6d, 0x3f, 0x42, 0x0f, 0x00,        // response_time_nsec 999999
    0x72, 0x02, 0xdd, 0xee,              // response_message
};

DnstapMessage fullRecord() {
  DnstapMessage m;
  m.identity = "ns1";
  m.version = "v2";
  m.extra = "x";
  m.type = kClientResponse;
  m.socket_family = kFamilyInet;
  m.socket_protocol = kProtocolUdp;
  m.query_address = b("\xc0\x00\x02\x01");
  m.response_address = b("\xc0\x00\x02\x35");
  m.query_port = 12345;
  m.response_port = 53;
  m.query_time_sec = 1709622542;
  m.query_time_nsec = 5000;
  m.query_message = "\xaa\xbb\xcc";
  m.response_time_sec = 1709622543;
  m.response_time_nsec = 999999;
  m.response_message = "\xdd\xee";
  return m;
}

// Every field, for comparing whole records.
auto fields(const DnstapMessage& m) {
  return std::tie(m.identity, m.version, m.extra, m.type, m.socket_family, m.socket_protocol,
                  m.query_address, m.response_address, m.query_port, m.response_port,
                  m.query_time_sec, m.query_time_nsec, m.query_message, m.response_time_sec,
                  m.response_time_nsec, m.response_message);
}

void expectSameRecord(const DnstapMessage& a, const DnstapMessage& b) {
  EXPECT_TRUE(fields(a) == fields(b));
}

TEST(DnstapMessageTest, EveryFieldRoundTripsByteForByte) {
  DnstapMessage record = fullRecord();
  std::string out = "prefix";  // encode appends
  record.encode(out);
  EXPECT_EQ(out, "prefix" + str(kFullFrame));

  DnstapMessage decoded;
  decoded.query_port = 7;  // stale values are cleared
  EXPECT_EQ(decoded.decode(kFullFrame.data(), kFullFrame.size(), 0), kFullFrame.size());
  expectSameRecord(decoded, fullRecord());

  // Decoding starts at the given offset.
  Bytes shifted = {0xff, 0xff};
  shifted.insert(shifted.end(), kFullFrame.begin(), kFullFrame.end());
  EXPECT_EQ(decoded.decode(shifted.data(), shifted.size(), 2), shifted.size());
  expectSameRecord(decoded, fullRecord());
}

TEST(DnstapMessageTest, EmptyRecordAndReuse) {
  DnstapMessage record;
  std::string out;
  record.encode(out);
  EXPECT_EQ(out, str({0x78, 0x01, 0x72, 0x02, 0x08, 0x00}));

  // Empty input, and a frame holding only its type, decode to the empty record.
  DnstapMessage decoded = fullRecord();
  EXPECT_EQ(decoded.decode(nullptr, 0, 0), 0u);
  expectSameRecord(decoded, DnstapMessage());
  decoded = fullRecord();
  const uint8_t typeOnly[] = {0x78, 0x01};
  EXPECT_EQ(decoded.decode(typeOnly, 2, 0), 2u);
  expectSameRecord(decoded, DnstapMessage());

  // clear(false) keeps the header that a listener sets once.
  decoded = fullRecord();
  decoded.clear(false);
  DnstapMessage headerOnly;
  headerOnly.identity = "ns1";
  headerOnly.version = "v2";
  headerOnly.extra = "x";
  expectSameRecord(decoded, headerOnly);
}

// An unknown Message field (query_zone, 11) sends the outer offset to the skip's result,
// counted within the Message, while the inner parse reads the skipped value as tags.
TEST(DnstapMessageTest, UnknownInnerFieldRedirectsTheOuterParse) {
  const Bytes frame = {
      0x72, 0x12,  // message, 18 bytes:
      0x5a, 0x10,  // query_zone, 16 bytes; the length 0x10 is read next as socket_family's tag
      0x02,        // -> socket_family 2
      0x18, 0x01,  // -> socket_protocol 1
      0x30, 0xb9, 0x60,                    // -> query_port 12345
      0x38, 0x35,                          // -> response_port 53
      0x60, 0x8f, 0x8a, 0x9b, 0xaf, 0x06,  // -> response_time_sec
      0x72, 0x00,  // response_message; also where the outer parse resumes (offset 18): an
                   // empty message field that ends the frame
  };
  DnstapMessage decoded;
  EXPECT_EQ(decoded.decode(frame.data(), frame.size(), 0), frame.size());
  DnstapMessage expected;
  expected.socket_family = 2;
  expected.socket_protocol = 1;
  expected.query_port = 12345;
  expected.response_port = 53;
  expected.response_time_sec = 1709622543;
  expectSameRecord(decoded, expected);
}

TEST(DnstapMessageTest, MalformedFramesFailWithTheirMessage) {
  struct Case {
    Bytes frame;
    std::string message;
  };
  const Case cases[] = {
      {{0x78, 0x02}, "Expected type field to be 1 but got 2"},
      {{0x7a, 0x00}, "Expected type field to use varint type but got 2"},
      {{0x08, 0x01}, "Expected identity field to use bytes type but got 0"},
      {{0x10, 0x01}, "Expected version field to use bytes type but got 0"},
      {{0x1d, 0, 0, 0, 0}, "Expected extra field to use bytes type but got 5"},
      {{0x0b}, "Expected identity field to use bytes type but got 3"},
      {{0x70, 0x00}, "Expected message field to use bytes type but got 0"},
      {{0x72, 0x02, 0x0a, 0x00}, "Expected message type field to use varint type but got 2"},
      {{0x72, 0x02, 0x20, 0x00},
       "Expected message query_address field to use bytes type but got 0"},
      {{0x72, 0x02, 0x48, 0x00},
       "Expected message query_time_nsec field to use fixed32 type but got 0"},
      {{0x72, 0x02, 0x6a, 0x00},
       "Expected message response_time_nsec field to use fixed32 type but got 2"},
      {{0x72, 0x03, 0x4d, 0x01, 0x02}, "Not enough bytes to decode fixed32 field"},
      {{0x72, 0x05, 0x08, 0x01}, "Invalid length 5 for bytes field with only 2 bytes remaining"},
      {{0x0a, 0x05, 'a'}, "Invalid length 5 for bytes field with only 1 bytes remaining"},
      // Inner offsets count within the Message.
      {{0x78, 0x01, 0x72, 0x02, 0x08, 0x80},
       "Read variable length encoded uint failed: Offset 2 is out of bounds for data of 2 bytes"},
      {{0x80},
       "Read variable length encoded uint failed: Offset 1 is out of bounds for data of 1 "
       "bytes"},
      {{0x23}, "Decode dnstap failed: Unknown top-level field type 3"},
      {{0x72, 0x01, 0x5b}, "Decode dnstap failed: Unknown top-level field type 3"},
      // The skip of query_zone sends the outer parse back to the message field for ever.
      {{0x0a, 0x00, 0x72, 0x03, 0x58, 0x08, 0x01},
       "Decode dnstap failed: Parsing loops back to offset 2"},
  };
  DnstapMessage decoded;
  for (const Case& c : cases) {
    try {
      decoded.decode(c.frame.data(), c.frame.size(), 0);
      ADD_FAILURE() << "no exception for " << c.message;
    } catch (const DnstapError& e) {
      EXPECT_EQ(e.what(), c.message);
    }
  }
}

}  // namespace
}  // namespace ns::encoding::dnstap
