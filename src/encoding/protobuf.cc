#include "encoding/protobuf.h"

#include <string>

namespace vantrelo::encoding::dnstap {

namespace {

constexpr uint8_t kContinuationBit = 0x80;
constexpr uint8_t kPayloadBits = 0x7F;
constexpr uint32_t kFixed32Bytes = 4;
constexpr uint32_t kFixed64Bytes = 8;
// The tenth byte of a varint may hold only bit 63 of the value.
constexpr uint8_t kTenthByteValueMask = 0x01;

[[noreturn]] void throwVarintOutOfBounds(uint32_t offset, uint32_t size) {
  throw DnstapError("Read variable length encoded uint failed: Offset " + std::to_string(offset) +
                    " is out of bounds for data of " + std::to_string(size) + " bytes");
}

// One step of the unrolled decoder: bounds test, add the byte's payload at its place; true when
// the byte ends the varint.
inline bool varintStep(uint64_t& value, const uint8_t* data, uint32_t size, uint32_t& offset,
                       unsigned index) {
  if (offset >= size) throwVarintOutOfBounds(offset, size);
  uint8_t byte = data[offset++];
  value |= static_cast<uint64_t>(byte & kPayloadBits) << (7 * index);
  return (byte & kContinuationBit) == 0;
}

}  // namespace

uint32_t decodeVarint(uint64_t& out, const uint8_t* data, uint32_t size, uint32_t offset) {
  uint64_t value = 0;
  // Unrolled: each step makes its own bounds test, so there is no loop counter.
  if (varintStep(value, data, size, offset, 0) || varintStep(value, data, size, offset, 1) ||
      varintStep(value, data, size, offset, 2) || varintStep(value, data, size, offset, 3) ||
      varintStep(value, data, size, offset, 4) || varintStep(value, data, size, offset, 5) ||
      varintStep(value, data, size, offset, 6) || varintStep(value, data, size, offset, 7) ||
      varintStep(value, data, size, offset, 8)) {
    out = value;
    return offset;
  }
  if (offset >= size) throwVarintOutOfBounds(offset, size);
  uint8_t last = data[offset++];
  // The 64-bit test comes first, so a tenth byte with its continuation bit set is reported as
  // exceeding 64 bits; the ten-byte text can therefore never be the one raised.
  if ((last & ~kTenthByteValueMask) != 0) {
    throw DnstapError("Variable length encoded uint exceeds 64 bits");
  }
  if ((last & kContinuationBit) != 0) {
    throw DnstapError("Variable length encoded uint exceeds 10 bytes");
  }
  out = value | (static_cast<uint64_t>(last) << 63);
  return offset;
}

uint32_t decodeFixed32(uint32_t& out, const uint8_t* data, uint32_t size, uint32_t offset) {
  if (offset + kFixed32Bytes > size) throw DnstapError("Not enough bytes to decode fixed32 field");
  out = static_cast<uint32_t>(data[offset]) | (static_cast<uint32_t>(data[offset + 1]) << 8) |
        (static_cast<uint32_t>(data[offset + 2]) << 16) |
        (static_cast<uint32_t>(data[offset + 3]) << 24);
  return offset + kFixed32Bytes;
}

uint32_t decodeBytesLength(uint64_t& length, const uint8_t* data, uint32_t size, uint32_t offset) {
  uint64_t value;
  uint32_t content = decodeVarint(value, data, size, offset);
  uint32_t remaining = size - content;
  if (value > remaining) {
    throw DnstapError("Invalid length " + std::to_string(value) + " for bytes field with only " +
                      std::to_string(remaining) + " bytes remaining");
  }
  length = value;
  return content;
}

uint32_t skipField(uint32_t wireType, const uint8_t* data, uint32_t size, uint32_t offset) {
  switch (wireType) {
    case kWireVarint:
      // Any number of continuation bytes is stepped over: skipping has no ten-byte limit.
      while (true) {
        if (offset >= size) {
          throw DnstapError("Skip " + std::to_string(offset) + " is out of bounds for data of " +
                            std::to_string(size) + " bytes");
        }
        if ((data[offset++] & kContinuationBit) == 0) return offset;
      }
    case kWireFixed64:
      if (offset + kFixed64Bytes > size)
        throw DnstapError("Not enough bytes to skip fixed64 field");
      return offset + kFixed64Bytes;
    case kWireBytes: {
      uint64_t length;
      uint32_t content = decodeBytesLength(length, data, size, offset);
      return content + static_cast<uint32_t>(length);
    }
    case kWireFixed32:
      if (offset + kFixed32Bytes > size)
        throw DnstapError("Not enough bytes to skip fixed32 field");
      return offset + kFixed32Bytes;
    default:
      // Groups (3, 4) are not supported; 6 and 7 are not wire types at all.
      throw DnstapError("Decode dnstap failed: Unknown top-level field type " +
                        std::to_string(wireType));
  }
}

void encodeVarint(std::string& buffer, uint64_t value) {
  while (value >= kContinuationBit) {
    buffer.push_back(static_cast<char>((value & kPayloadBits) | kContinuationBit));
    value >>= 7;
  }
  buffer.push_back(static_cast<char>(value));
}

void encodeFixed32(std::string& buffer, uint32_t value) {
  char bytes[kFixed32Bytes] = {static_cast<char>(value), static_cast<char>(value >> 8),
                               static_cast<char>(value >> 16), static_cast<char>(value >> 24)};
  buffer.append(bytes, kFixed32Bytes);
}

}  // namespace vantrelo::encoding::dnstap
