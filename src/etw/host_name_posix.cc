#include <unistd.h>

#include <climits>
#include <cstring>
#include <string>

#include "base/error.h"
#include "etw/host_name.h"
#include "etw/windows_version.h"

namespace vantrelo::etw {

std::string localHostName() {
  // POSIX allows a truncated name without a terminator; the extra byte keeps it terminated.
  char name[HOST_NAME_MAX + 2] = {};
  if (gethostname(name, sizeof name - 1) != 0) {
    throw EtwError("gethostname() failed: " + error::cErrorText(error::lastCError()));
  }
  return std::string(name, strnlen(name, sizeof name));
}

}  // namespace vantrelo::etw
