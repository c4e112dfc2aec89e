#include "format/text_writer.h"

#include <array>
#include <charconv>

namespace vantrelo::format {

namespace {

constexpr size_t kMaxDecimalDigits = 20;  // 18446744073709551615

// The escape text for each byte value, or nullptr when the byte is copied as it is.
constexpr std::array<const char*, 256> makeJsonEscapes() {
  std::array<const char*, 256> escapes{};
  escapes['\b'] = "\\b";
  escapes['\t'] = "\\t";
  escapes['\n'] = "\\n";
  escapes['\f'] = "\\f";
  escapes['\r'] = "\\r";
  escapes['"'] = "\\\"";
  escapes['/'] = "\\/";
  escapes['\\'] = "\\\\";
  return escapes;
}

constexpr std::array<const char*, 256> kJsonEscapes = makeJsonEscapes();

}  // namespace

void appendDecimal(std::string& out, uint64_t value) {
  char digits[kMaxDecimalDigits];
  const std::to_chars_result result = std::to_chars(digits, digits + sizeof digits, value);
  out.append(digits, result.ptr);
}

void appendSignedDecimal(std::string& out, int64_t value) {
  char digits[kMaxDecimalDigits + 1];
  const std::to_chars_result result = std::to_chars(digits, digits + sizeof digits, value);
  out.append(digits, result.ptr);
}

void appendJsonString(std::string& out, const char* text, size_t length) {
  out.push_back('"');
  // Copy runs of plain bytes in one append; most names have no byte to escape at all.
  size_t runStart = 0;
  for (size_t i = 0; i < length; ++i) {
    const char* escape = kJsonEscapes[static_cast<unsigned char>(text[i])];
    if (escape == nullptr) continue;
    out.append(text + runStart, i - runStart);
    out.append(escape, 2);
    runStart = i + 1;
  }
  out.append(text + runStart, length - runStart);
  out.push_back('"');
}

}  // namespace vantrelo::format
