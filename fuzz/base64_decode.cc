// Feeds arbitrary text to the base64 decoder: it must return or throw Base64Error. Text that
// decodes is re-encoded; decoding that again must give the same bytes.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "encoding/text_encoding.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using vantrelo::encoding::base64::Base64Error;
  std::string decoded;
  try {
    vantrelo::encoding::base64::base64Decode(decoded, reinterpret_cast<const char*>(data), size);
  } catch (const Base64Error&) {
    return 0;
  }
  std::string text;
  vantrelo::encoding::base64::base64Encode(text, reinterpret_cast<const uint8_t*>(decoded.data()),
                                           decoded.size());
  std::string again;
  vantrelo::encoding::base64::base64Decode(again, text.data(), text.size());
  if (again != decoded) std::abort();
  return 0;
}
