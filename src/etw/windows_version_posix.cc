#include "etw/windows_version.h"

namespace vantrelo::etw {

// There is no DNS Server event provider to trace outside Windows, so an ETW listener cannot be
// configured here; the message says what to do instead.
uint32_t detectWindowsVersion() {
  throw EtwError(
      "ETW capture needs Windows: the etw listener reads the Windows DNS Server's events and "
      "is not available on this system; use an ipv4, ipv6 or unix listener instead");
}

}  // namespace vantrelo::etw
