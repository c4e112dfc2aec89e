#include "encoding/protobuf.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace ns::encoding::dnstap {
namespace {

using Bytes = std::vector<uint8_t>;

// Every varint length from one to ten bytes, each decoded and re-encoded byte for byte.
TEST(ProtobufTest, VarintsOfEveryLengthRoundTrip) {
  struct Case {
    Bytes wire;
    uint64_t value;
  };
  const Case cases[] = {
      {{0x00}, 0},
      {{0x7F}, 127},
      {{0xAC, 0x02}, 300},                                 // 0x2C | 0x02 << 7
      {{0xFF, 0x7F}, 16383},                               // largest two-byte value
      {{0x80, 0x80, 0x01}, 16384},                         // smallest three-byte value
      {{0xFF, 0xFF, 0xFF, 0x7F}, (1u << 28) - 1},          // four bytes
      {{0x80, 0x80, 0x80, 0x80, 0x01}, 1ull << 28},        // five bytes
      {{0x8E, 0x8A, 0x9B, 0xAF, 0x06}, 1709622542},        // a 2024 time stamp
      {{0x80, 0x80, 0x80, 0x80, 0x80, 0x01}, 1ull << 35},  // six bytes
      {{0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x01}, 1ull << 42},
      {{0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x01}, 1ull << 49},
      {{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x7F}, (1ull << 63) - 1},  // nine bytes
      {{0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x01}, 1ull << 63},  // ten bytes
      {{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x01}, UINT64_MAX},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.value);
    Bytes framed = {0xEE};  // decoding starts behind a leading byte
    framed.insert(framed.end(), c.wire.begin(), c.wire.end());
    uint64_t value = 0;
    EXPECT_EQ(decodeVarint(value, framed.data(), framed.size(), 1), framed.size());
    EXPECT_EQ(value, c.value);
    std::string encoded = "x";
    encodeVarint(encoded, c.value);
    EXPECT_EQ(encoded, "x" + std::string(c.wire.begin(), c.wire.end()));
  }
}

// Runs `decode` and returns the DnstapError text, or "" when it succeeded.
template <typename F>
std::string failure(F decode) {
  try {
    decode();
  } catch (const DnstapError& e) {
    return e.what();
  }
  return "";
}

TEST(ProtobufTest, MalformedVarintsFailWithTheirMessageAndKeepTheOutput) {
  const std::string kExceeds = "Variable length encoded uint exceeds 64 bits";
  struct Case {
    Bytes wire;
    std::string message;
  };
  const Case cases[] = {
      {{},
       "Read variable length encoded uint failed: Offset 0 is out of bounds for data of 0 bytes"},
      // Continuation bit on the buffer's last byte: the missing byte's offset equals the size.
      {{0x80, 0x80},
       "Read variable length encoded uint failed: Offset 2 is out of bounds for "
       "data of 2 bytes"},
      {{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF},
       "Read variable length encoded uint failed: Offset 9 is out of bounds for data of 9 bytes"},
      // A tenth byte may hold bit 63 only; with its continuation bit set it is still reported
      // as exceeding 64 bits, since that test comes first.
      {{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x02}, kExceeds},
      {{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x81}, kExceeds},
      {{0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x00}, kExceeds},
  };
  for (const Case& c : cases) {
    uint64_t value = 42;
    EXPECT_EQ(failure([&] { decodeVarint(value, c.wire.data(), c.wire.size(), 0); }), c.message);
    EXPECT_EQ(value, 42u);
  }
}

TEST(ProtobufTest, Fixed32IsLittleEndian) {
  const uint8_t bytes[] = {0x01, 0x02, 0x03, 0x04};
  uint32_t value = 0;
  EXPECT_EQ(decodeFixed32(value, bytes, 4, 0), 4u);
  EXPECT_EQ(value, 0x04030201u);
  EXPECT_EQ(failure([&] { decodeFixed32(value, bytes, 4, 1); }),
            "Not enough bytes to decode fixed32 field");
  std::string encoded;
  encodeFixed32(encoded, 0x04030201u);
  EXPECT_EQ(encoded, "\x01\x02\x03\x04");
}

TEST(ProtobufTest, BytesLengthMustFitTheRemainingBytes) {
  // Length 3, then three content bytes.
  const uint8_t exact[] = {0x03, 0xAA, 0xBB, 0xCC};
  uint64_t length = 0;
  EXPECT_EQ(decodeBytesLength(length, exact, 4, 0), 1u);
  EXPECT_EQ(length, 3u);
  // Length 4 with three bytes behind it.
  const uint8_t overlong[] = {0x04, 0xAA, 0xBB, 0xCC};
  EXPECT_EQ(failure([&] { decodeBytesLength(length, overlong, 4, 0); }),
            "Invalid length 4 for bytes field with only 3 bytes remaining");
  // The largest 64-bit length is printed unsigned.
  const uint8_t huge[] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x01};
  EXPECT_EQ(failure([&] { decodeBytesLength(length, huge, 10, 0); }),
            "Invalid length 18446744073709551615 for bytes field with only 0 bytes remaining");
  EXPECT_EQ(length, 3u);
}

TEST(ProtobufTest, SkipFieldByWireType) {
  struct Case {
    uint32_t wireType;
    Bytes wire;
    uint32_t next;        // offset after the skip, when it succeeds
    std::string message;  // failure text otherwise
  };
  const Case cases[] = {
      {kWireVarint, {0xAC, 0x02, 0xEE}, 2, ""},
      // Eleven continuation bytes: skipping knows no ten-byte limit.
      {kWireVarint,
       {0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x00},
       12,
       ""},
      {kWireVarint, {0x80, 0x80}, 0, "Skip 2 is out of bounds for data of 2 bytes"},
      {kWireVarint, {}, 0, "Skip 0 is out of bounds for data of 0 bytes"},
      {kWireFixed64, {1, 2, 3, 4, 5, 6, 7, 8}, 8, ""},
      {kWireFixed64, {1, 2, 3, 4, 5, 6, 7}, 0, "Not enough bytes to skip fixed64 field"},
      {kWireBytes, {0x02, 0xAA, 0xBB}, 3, ""},
      {kWireBytes,
       {0x03, 0xAA, 0xBB},
       0,
       "Invalid length 3 for bytes field with only 2 bytes remaining"},
      {kWireFixed32, {1, 2, 3, 4}, 4, ""},
      {kWireFixed32, {1, 2, 3}, 0, "Not enough bytes to skip fixed32 field"},
      {3, {0x00}, 0, "Decode dnstap failed: Unknown top-level field type 3"},
      {4, {0x00}, 0, "Decode dnstap failed: Unknown top-level field type 4"},
      {6, {0x00}, 0, "Decode dnstap failed: Unknown top-level field type 6"},
      {7, {0x00}, 0, "Decode dnstap failed: Unknown top-level field type 7"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.wireType);
    uint32_t next = 0;
    EXPECT_EQ(failure([&] { next = skipField(c.wireType, c.wire.data(), c.wire.size(), 0); }),
              c.message);
    EXPECT_EQ(next, c.next);
  }
}

}  // namespace
}  // namespace ns::encoding::dnstap
