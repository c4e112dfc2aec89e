// Feeds arbitrary text to the hex decoder: it must return or throw HexError. Text that decodes
// re-encodes to the same text up to letter case.
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "encoding/text_encoding.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using vantrelo::encoding::hex::HexError;
  std::string decoded;
  try {
    vantrelo::encoding::hex::hexDecode(decoded, reinterpret_cast<const char*>(data), size);
  } catch (const HexError&) {
    return 0;
  }
  if (decoded.size() * 2 != size) std::abort();
  std::string text;
  vantrelo::encoding::hex::hexEncode(text, reinterpret_cast<const uint8_t*>(decoded.data()),
                                     decoded.size());
  for (size_t i = 0; i < size; ++i) {
    if (text[i] != std::toupper(data[i])) std::abort();
  }
  return 0;
}
