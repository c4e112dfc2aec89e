#include "base/data.h"

#include <string>

namespace vantrelo::base::data {

namespace {

// Builds the failure text only on the cold path, so successful reads never allocate.
[[noreturn]] void throwOutOfBounds(const char* typeName, uint32_t width, uint32_t size,
                                   uint32_t offset) {
  throw DataError(std::string("Read ") + typeName + " failed: Offset " + std::to_string(offset) +
                  " + " + std::to_string(width) + " is out of bounds for data of " +
                  std::to_string(size) + " bytes");
}

}  // namespace

uint32_t readUint8(uint8_t& out, const uint8_t* data, uint32_t size, uint32_t offset) {
  if (offset + 1 > size) throwOutOfBounds("uint8_t", 1, size, offset);
  out = data[offset];
  return offset + 1;
}

uint32_t readUint16(uint16_t& out, const uint8_t* data, uint32_t size, uint32_t offset) {
  if (offset + 2 > size) throwOutOfBounds("uint16_t", 2, size, offset);
  out = static_cast<uint16_t>((data[offset] << 8) | data[offset + 1]);
  return offset + 2;
}

uint32_t readUint32(uint32_t& out, const uint8_t* data, uint32_t size, uint32_t offset) {
  if (offset + 4 > size) throwOutOfBounds("uint32_t", 4, size, offset);
  out = (static_cast<uint32_t>(data[offset]) << 24) |
        (static_cast<uint32_t>(data[offset + 1]) << 16) |
        (static_cast<uint32_t>(data[offset + 2]) << 8) | static_cast<uint32_t>(data[offset + 3]);
  return offset + 4;
}

}  // namespace vantrelo::base::data
