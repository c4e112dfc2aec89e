// Byte-to-text codecs for record data and dnstap fields: base32 (extended-hex alphabet, encode
// only), base64 and hexadecimal. Encoders append to `out` and never fail; decoders append to
// `out` and throw Base64Error or HexError with the offending value in the message.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "base/error.h"

namespace vantrelo::encoding::base32 {

// Upper-case "0123456789ABCDEFGHIJKLMNOPQRSTUV", no padding.
void base32HexEncode(std::string& out, const uint8_t* data, size_t length);

}  // namespace vantrelo::encoding::base32

namespace vantrelo::encoding::base64 {

NS_DEFINE_ERROR(Base64Error);

void base64Encode(std::string& out, const uint8_t* data, size_t length);
void base64Decode(std::string& out, const char* text, size_t length);

}  // namespace vantrelo::encoding::base64

namespace vantrelo::encoding::hex {

NS_DEFINE_ERROR(HexError);

// Upper case, high nibble first.
void hexEncode(std::string& out, const uint8_t* data, size_t length);
void hexDecode(std::string& out, const char* text, size_t length);

}  // namespace vantrelo::encoding::hex
