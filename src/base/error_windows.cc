#include <windows.h>

#include <cerrno>

#include "base/error.h"

namespace vantrelo::error {

namespace {

// FormatMessageA needs a buffer that outlives the call's result; one per function, as the
// callers only use these texts while building an exception message.
char systemBuffer[8192];
char ntBuffer[8192];

}  // namespace

std::string systemErrorText(uint32_t code) {
  DWORD length = FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM, nullptr, code, 0, systemBuffer,
                                sizeof systemBuffer, nullptr);
  if (length == 0) return "Unknown error " + std::to_string(code);
  return std::string(systemBuffer, length);
}

std::string ntStatusText(uint32_t status) {
  HMODULE ntdll = LoadLibraryA("NTDLL.DLL");
  DWORD length = 0;
  if (ntdll != nullptr) {
    length = FormatMessageA(FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_FROM_SYSTEM, ntdll, status,
                            0, ntBuffer, sizeof ntBuffer, nullptr);
    FreeLibrary(ntdll);
  }
  if (length == 0) return "Unknown error " + std::to_string(status);
  return std::string(ntBuffer, length);
}

uint32_t lastCError() { return static_cast<uint32_t>(errno); }

uint32_t lastSystemError() { return static_cast<uint32_t>(GetLastError()); }

}  // namespace vantrelo::error
