#include <windows.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "base/error.h"

namespace vantrelo::error {

namespace {

struct LocalFreeDeleter {
  void operator()(char* text) const { LocalFree(text); }
};

// The system's text for a message of `module`'s table (or the system's). The text is allocated
// per call, so threads never share a buffer; inserts are left as they stand ("%1"), since no
// caller has arguments for them and without the flag a message that has inserts fails.
std::string formatMessage(DWORD flags, HMODULE module, uint32_t code) {
  char* text = nullptr;
  const DWORD length =
      FormatMessageA(flags | FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_IGNORE_INSERTS, module,
                     code, 0, reinterpret_cast<char*>(&text), 0, nullptr);
  std::unique_ptr<char, LocalFreeDeleter> owner(text);
  if (length == 0 || text == nullptr) return "Unknown error " + std::to_string(code);
  return std::string(text, length);
}

}  // namespace

std::string systemErrorText(uint32_t code) {
  return formatMessage(FORMAT_MESSAGE_FROM_SYSTEM, nullptr, code);
}

std::string cErrorText(uint32_t code) {
  // errno values overlap the Windows codes (ENOSPC is ERROR_OUT_OF_PAPER), so they never go
  // through the system's message table.
  char buffer[256] = {};
  if (strerror_s(buffer, sizeof buffer, static_cast<int>(code)) != 0 || buffer[0] == '\0') {
    return "Unknown error " + std::to_string(code);
  }
  return buffer;
}

std::string ntStatusText(uint32_t status) {
  HMODULE ntdll = LoadLibraryA("NTDLL.DLL");
  if (ntdll == nullptr) return "Unknown error " + std::to_string(status);
  std::string text =
      formatMessage(FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_FROM_SYSTEM, ntdll, status);
  FreeLibrary(ntdll);
  return text;
}

uint32_t lastCError() { return static_cast<uint32_t>(errno); }

uint32_t lastSystemError() { return static_cast<uint32_t>(GetLastError()); }

}  // namespace vantrelo::error
