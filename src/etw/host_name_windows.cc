#include <windows.h>

#include <string>

#include "base/error.h"
#include "etw/host_name.h"
#include "etw/windows_version.h"

namespace vantrelo::etw {

std::string localHostName() {
  // The computer name API needs no Winsock start-up, unlike gethostname, and gives the same
  // DNS host name.
  char name[MAX_COMPUTERNAME_LENGTH + 256] = {};
  DWORD size = sizeof name;
  if (!GetComputerNameExA(ComputerNameDnsHostname, name, &size)) {
    throw EtwError("GetComputerNameExA() failed: " +
                   error::systemErrorText(error::lastSystemError()));
  }
  return std::string(name, size);
}

}  // namespace vantrelo::etw
