// Protobuf wire-format primitives used by the dnstap codec.
//
// Decoders read from `data[offset..size)` and return the offset behind what they consumed; the
// value goes to an output argument, written only on success. Failures throw DnstapError (also
// when used for something other than dnstap). Appenders grow the caller's buffer in place.
#pragma once

#include <cstdint>
#include <string>

#include "base/error.h"

namespace vantrelo::encoding::dnstap {

NS_DEFINE_ERROR(DnstapError);

// Wire types of the protobuf encoding.
inline constexpr uint32_t kWireVarint = 0;
inline constexpr uint32_t kWireFixed64 = 1;
inline constexpr uint32_t kWireBytes = 2;
inline constexpr uint32_t kWireFixed32 = 5;

uint32_t decodeVarint(uint64_t& out, const uint8_t* data, uint32_t size, uint32_t offset);
uint32_t decodeFixed32(uint32_t& out, const uint8_t* data, uint32_t size, uint32_t offset);
// Reads a length varint and checks that many bytes remain; returns the offset of the content.
uint32_t decodeBytesLength(uint64_t& length, const uint8_t* data, uint32_t size, uint32_t offset);
uint32_t skipField(uint32_t wireType, const uint8_t* data, uint32_t size, uint32_t offset);

void encodeVarint(std::string& buffer, uint64_t value);
void encodeFixed32(std::string& buffer, uint32_t value);

}  // namespace vantrelo::encoding::dnstap
