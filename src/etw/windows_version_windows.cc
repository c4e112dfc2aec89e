#include <windows.h>

#include "base/error.h"
#include "etw/windows_version.h"

namespace vantrelo::etw {

namespace {

// RtlGetVersion is not in the import libraries of every tool chain and, unlike GetVersionEx,
// reports the true version regardless of the program's manifest; so it is looked up at run time.
using RtlGetVersionFunction = LONG(WINAPI*)(OSVERSIONINFOW*);

constexpr LONG kStatusSuccess = 0;

}  // namespace

uint32_t detectWindowsVersion() {
  HMODULE ntdll = GetModuleHandleA("ntdll.dll");
  if (ntdll == nullptr) {
    throw EtwError("GetModuleHandle(ntdll.dll) failed: " +
                   error::systemErrorText(error::lastSystemError()));
  }
  FARPROC address = GetProcAddress(ntdll, "RtlGetVersion");
  if (address == nullptr) {
    throw EtwError("GetProcAddress(RtlGetVersion) failed: " +
                   error::systemErrorText(error::lastSystemError()));
  }
  auto rtlGetVersion = reinterpret_cast<RtlGetVersionFunction>(reinterpret_cast<void*>(address));
  OSVERSIONINFOW info{};
  info.dwOSVersionInfoSize = sizeof info;  // 276 bytes
  if (rtlGetVersion(&info) != kStatusSuccess) throw EtwError("RtlGetVersion() failed");
  OsVersion version;
  version.major = info.dwMajorVersion;
  version.minor = info.dwMinorVersion;
  version.build = info.dwBuildNumber;
  version.platform = info.dwPlatformId;
  return windowsVersionFromOs(version);
}

}  // namespace vantrelo::etw
