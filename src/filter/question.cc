#include "filter/question.h"

namespace vantrelo::filter {

namespace {

constexpr size_t kHeaderBytes = 12;
constexpr size_t kQuestionCountOffset = 4;
// The same bound on compression pointers as the message parser: it also ends pointer loops.
constexpr int kMaxPointers = 127;
constexpr uint8_t kPointerBits = 0xC0;

inline uint16_t read16(const uint8_t* at) { return static_cast<uint16_t>(at[0] << 8 | at[1]); }

}  // namespace

bool readQuestion(std::string_view wire, Question& question) {
  const auto* bytes = reinterpret_cast<const uint8_t*>(wire.data());
  const size_t size = wire.size();
  question.present = false;
  question.nameLength = 0;
  question.id = size >= 2 ? read16(bytes) : 0;
  if (size < kHeaderBytes || read16(bytes + kQuestionCountOffset) == 0) return false;

  size_t at = kHeaderBytes;
  size_t after = 0;  // where the question goes on after the first pointer
  int pointers = 0;
  size_t length = 0;
  for (;;) {
    if (at >= size) return false;
    const uint8_t b = bytes[at];
    if ((b & kPointerBits) != 0) {
      if (++pointers > kMaxPointers || at + 1 >= size) return false;
      if (after == 0) after = at + 2;
      at = static_cast<size_t>((b ^ kPointerBits) << 8 | bytes[at + 1]);
      continue;
    }
    if (b == 0) {
      if (after == 0) after = at + 1;
      break;
    }
    if (at + 1 + b >= size) return false;
    // A wire name is at most 255 bytes, so its text (without the root's dot) fits in 254.
    if (length + (length != 0 ? 1 : 0) + b > sizeof question.name - 2) return false;
    if (length != 0) question.name[length++] = '.';
    for (size_t i = 0; i < b; ++i) {
      const uint8_t c = bytes[at + 1 + i];
      question.name[length++] = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
    }
    at += 1 + b;
  }
  if (after + 2 > size) return false;
  question.type = read16(bytes + after);
  question.nameLength = length;
  question.present = true;
  return true;
}

uint64_t transactionHash(std::string_view clientAddress, uint16_t clientPort, uint16_t id) {
  uint64_t h = 0xcbf29ce484222325ULL;
  auto mix = [&h](uint8_t c) { h = (h ^ c) * 0x100000001b3ULL; };
  for (char c : clientAddress) mix(static_cast<uint8_t>(c));
  mix(static_cast<uint8_t>(clientPort >> 8));
  mix(static_cast<uint8_t>(clientPort));
  mix(static_cast<uint8_t>(id >> 8));
  mix(static_cast<uint8_t>(id));
  h ^= h >> 33;
  h *= 0xff51afd7ed558ccdULL;
  h ^= h >> 33;
  h *= 0xc4ceb9fe1a85ec53ULL;
  h ^= h >> 33;
  return h;
}

}  // namespace vantrelo::filter
