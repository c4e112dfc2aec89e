#include "encoding/protobuf.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "test_helpers.h"

namespace vantrelo::encoding::dnstap {
namespace {

using Bytes = std::vector<uint8_t>;
using test::errorOf;

// The edges of the one, two, three, five, nine and ten byte varints, decoded and re-encoded.
TEST(ProtobufTest, VarintsOfEveryLengthRoundTrip) {
  const std::pair<Bytes, uint64_t> cases[] = {
      {{0x00}, 0},
      {{0x7F}, 127},
      {{0xFF, 0x7F}, 16383},
      {{0x80, 0x80, 0x01}, 16384},
      {{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x7F}, (1ull << 63) - 1},
      {{0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x01}, 1ull << 63},
      {{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x01}, UINT64_MAX}};
  for (const auto& [wire, expected] : cases) {
    SCOPED_TRACE(expected);
    Bytes framed = {0xEE};  // decoding starts behind a leading byte
    framed.insert(framed.end(), wire.begin(), wire.end());
    uint64_t value = 0;
    EXPECT_EQ(decodeVarint(value, framed.data(), framed.size(), 1), framed.size());
    EXPECT_EQ(value, expected);
    std::string encoded = "x";
    encodeVarint(encoded, expected);
    EXPECT_EQ(encoded, "x" + std::string(wire.begin(), wire.end()));
  }
}

// The offset behind a varint, a fixed32 or a bytes length with the value read, or behind a
// skipped field of each wire type; or the failure, which leaves the value untouched.
TEST(ProtobufTest, FixedWidthLengthsAndSkips) {
  constexpr int kVarint = -1, kFixed32 = -2, kLength = -3;  // others: skip that wire type
  const std::string kExceeds = "Variable length encoded uint exceeds 64 bits";
  const std::string kRead = "Read variable length encoded uint failed: Offset ";
  const std::tuple<int, Bytes, std::string> cases[] = {
      // Continuation bit on the last byte: the missing byte's offset equals the size.
      {kVarint, Bytes(9, 0xFF), kRead + "9 is out of bounds for data of 9 bytes"},
      // A tenth byte may hold bit 63 only; that test comes before its continuation bit.
      {kVarint, {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x02}, kExceeds},
      {kVarint, {0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x00}, kExceeds},
      {kFixed32, {0x01, 0x02, 0x03, 0x04}, "4 67305985"},  // 0x04030201
      {kLength, {0x03, 0xAA, 0xBB, 0xCC}, "1 3"},
      {kLength,
       {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x01},
       "Invalid length 18446744073709551615 for bytes field with only 0 bytes remaining"},
      {kWireVarint, {0xAC, 0x02, 0xEE}, "2"},
      // Eleven continuation bytes: skipping knows no ten-byte limit.
      {kWireVarint, {0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0}, "12"},
      {kWireVarint, {0x80, 0x80}, "Skip 2 is out of bounds for data of 2 bytes"},
      {kWireFixed64, {1, 2, 3, 4, 5, 6, 7, 8}, "8"},
      {kWireFixed64, {1, 2, 3, 4, 5, 6, 7}, "Not enough bytes to skip fixed64 field"},
      {kWireFixed32, {1, 2, 3}, "Not enough bytes to skip fixed32 field"},
      {7, {0x00}, "Decode dnstap failed: Unknown top-level field type 7"}};
  for (const auto& [op, wire, expected] : cases) {
    uint32_t next = 0, fixed = 42;
    uint64_t value = 42;
    const std::string error = errorOf<DnstapError>([&] {
      next = op == kVarint    ? decodeVarint(value, wire.data(), wire.size(), 0)
             : op == kFixed32 ? decodeFixed32(fixed, wire.data(), wire.size(), 0)
             : op == kLength  ? decodeBytesLength(value, wire.data(), wire.size(), 0)
                              : skipField(op, wire.data(), wire.size(), 0);
    });
    const std::string read = op == kFixed32 ? " " + std::to_string(fixed)
                             : op < 0       ? " " + std::to_string(value)
                                            : "";
    EXPECT_EQ(error.empty() ? std::to_string(next) + read : error, expected) << op;
    EXPECT_TRUE(error.empty() || value + fixed == 84) << expected;
  }
}

}  // namespace
}  // namespace vantrelo::encoding::dnstap
