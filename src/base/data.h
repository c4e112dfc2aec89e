// Bounds-checked big-endian reads from a byte buffer.
//
// Each read takes the buffer, its size and an offset, stores the value in `out` and returns the
// offset just behind it. The bound test is `offset + N <= size` in 32-bit arithmetic; on failure
// DataError names the offset and the size and `out` is left untouched. No allocation on success.
#pragma once

#include <cstdint>

#include "base/error.h"

namespace vantrelo::base::data {

NS_DEFINE_ERROR(DataError);

uint32_t readUint8(uint8_t& out, const uint8_t* data, uint32_t size, uint32_t offset);
uint32_t readUint16(uint16_t& out, const uint8_t* data, uint32_t size, uint32_t offset);
uint32_t readUint32(uint32_t& out, const uint8_t* data, uint32_t size, uint32_t offset);

}  // namespace vantrelo::base::data
