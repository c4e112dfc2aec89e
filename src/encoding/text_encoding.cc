#include "encoding/text_encoding.h"

#include <array>
#include <string>

namespace vantrelo::encoding {

namespace {

constexpr char kBase32HexAlphabet[] = "0123456789ABCDEFGHIJKLMNOPQRSTUV";
constexpr char kBase64Alphabet[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr char kHexAlphabet[] = "0123456789ABCDEF";
constexpr char kBase64Pad = '=';
constexpr int8_t kNotInAlphabet = -1;

// Characters that base64 text may carry between its groups (line breaks of PEM and of DNS
// presentation text).
constexpr bool isBase64Space(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

// Reverse tables, computed at compile time so that no thread ever sees a half-filled table.
constexpr std::array<int8_t, 256> makeBase64Reverse() {
  std::array<int8_t, 256> table{};
  for (auto& value : table) value = kNotInAlphabet;
  for (int i = 0; i < 64; ++i)
    table[static_cast<uint8_t>(kBase64Alphabet[i])] = static_cast<int8_t>(i);
  return table;
}

constexpr std::array<int8_t, 256> makeHexReverse() {
  std::array<int8_t, 256> table{};
  for (auto& value : table) value = kNotInAlphabet;
  for (int i = 0; i < 10; ++i) table['0' + i] = static_cast<int8_t>(i);
  for (int i = 0; i < 6; ++i) {
    table['A' + i] = static_cast<int8_t>(10 + i);
    table['a' + i] = static_cast<int8_t>(10 + i);
  }
  return table;
}

constexpr std::array<int8_t, 256> kBase64Reverse = makeBase64Reverse();
constexpr std::array<int8_t, 256> kHexReverse = makeHexReverse();

}  // namespace

namespace base32 {

void base32HexEncode(std::string& out, const uint8_t* data, size_t length) {
  // Characters per final group of 0..4 bytes: ceil(8 * r / 5).
  static constexpr size_t kTailChars[] = {0, 2, 4, 5, 7};
  size_t position = out.size();
  out.resize(position + (length / 5) * 8 + kTailChars[length % 5]);
  char* dest = out.data() + position;
  for (size_t i = 0; i < length; i += 5) {
    size_t take = length - i < 5 ? length - i : 5;
    uint64_t group = 0;
    for (size_t j = 0; j < 5; ++j) group = (group << 8) | (j < take ? data[i + j] : 0);
    size_t chars = take == 5 ? 8 : kTailChars[take];
    for (size_t j = 0; j < chars; ++j) *dest++ = kBase32HexAlphabet[(group >> (35 - 5 * j)) & 0x1F];
  }
}

}  // namespace base32

namespace base64 {

void base64Encode(std::string& out, const uint8_t* data, size_t length) {
  size_t position = out.size();
  out.resize(position + (length + 2) / 3 * 4);
  char* dest = out.data() + position;
  size_t i = 0;
  for (; i + 3 <= length; i += 3) {
    uint32_t group = (uint32_t{data[i]} << 16) | (uint32_t{data[i + 1]} << 8) | data[i + 2];
    *dest++ = kBase64Alphabet[(group >> 18) & 0x3F];
    *dest++ = kBase64Alphabet[(group >> 12) & 0x3F];
    *dest++ = kBase64Alphabet[(group >> 6) & 0x3F];
    *dest++ = kBase64Alphabet[group & 0x3F];
  }
  if (i < length) {
    bool two = length - i == 2;
    uint32_t group = (uint32_t{data[i]} << 16) | (two ? uint32_t{data[i + 1]} << 8 : 0);
    *dest++ = kBase64Alphabet[(group >> 18) & 0x3F];
    *dest++ = kBase64Alphabet[(group >> 12) & 0x3F];
    *dest++ = two ? kBase64Alphabet[(group >> 6) & 0x3F] : kBase64Pad;
    *dest++ = kBase64Pad;
  }
}

void base64Decode(std::string& out, const char* text, size_t length) {
  if (text == nullptr || length == 0) return;
  size_t count = 0;
  for (size_t i = 0; i < length; ++i) {
    if (!isBase64Space(text[i])) ++count;
  }
  if (count % 4 != 0) throw Base64Error("Invalid base64 length: " + std::to_string(count));

  out.reserve(out.size() + count / 4 * 3);
  uint32_t bits = 0;
  int bitCount = 0;
  size_t padding = 0;
  for (size_t i = 0; i < length; ++i) {
    char c = text[i];
    if (isBase64Space(c)) continue;
    if (c == kBase64Pad) {
      ++padding;
      continue;
    }
    if (padding > 0) throw Base64Error("Invalid base64 padding");
    uint8_t byte = static_cast<uint8_t>(c);
    int8_t value = kBase64Reverse[byte];
    if (value == kNotInAlphabet) {
      throw Base64Error("Invalid base64 character: " + std::to_string(unsigned{byte}));
    }
    bits = (bits << 6) | static_cast<uint32_t>(value);
    bitCount += 6;
    if (bitCount >= 8) {
      bitCount -= 8;
      out.push_back(static_cast<char>((bits >> bitCount) & 0xFF));
    }
  }
  if (padding > 2) throw Base64Error("Invalid base64 padding");
}

}  // namespace base64

namespace hex {

void hexEncode(std::string& out, const uint8_t* data, size_t length) {
  size_t position = out.size();
  out.resize(position + 2 * length);
  char* dest = out.data() + position;
  for (size_t i = 0; i < length; ++i) {
    *dest++ = kHexAlphabet[data[i] >> 4];
    *dest++ = kHexAlphabet[data[i] & 0x0F];
  }
}

void hexDecode(std::string& out, const char* text, size_t length) {
  if (length % 2 != 0) throw HexError("Hex string length must be even");
  size_t position = out.size();
  out.resize(position + length / 2);
  for (size_t i = 0; i < length; i += 2) {
    uint8_t high = static_cast<uint8_t>(text[i]);
    uint8_t low = static_cast<uint8_t>(text[i + 1]);
    for (uint8_t c : {high, low}) {
      if (kHexReverse[c] == kNotInAlphabet) {
        throw HexError("Invalid character in hex string: " + std::to_string(unsigned{c}));
      }
    }
    out[position + i / 2] = static_cast<char>((kHexReverse[high] << 4) | kHexReverse[low]);
  }
}

}  // namespace hex

}  // namespace vantrelo::encoding
