#include <cerrno>
#include <cstring>

#include "base/error.h"

namespace vantrelo::error {

std::string systemErrorText(uint32_t code) {
  // strerror_r (GNU form) never fails: it returns a static text or fills the buffer.
  char buffer[256];
  const char* text = strerror_r(static_cast<int>(code), buffer, sizeof buffer);
  return text != nullptr ? std::string(text) : "Unknown error " + std::to_string(code);
}

std::string cErrorText(uint32_t code) { return systemErrorText(code); }

std::string ntStatusText(uint32_t status) { return "Unknown error " + std::to_string(status); }

uint32_t lastCError() { return static_cast<uint32_t>(errno); }

uint32_t lastSystemError() { return static_cast<uint32_t>(errno); }

}  // namespace vantrelo::error
