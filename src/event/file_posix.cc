#include <sys/stat.h>

#include "base/error.h"
#include "event/file_platform.h"

namespace vantrelo::file::platform {

// stat64, so sizes above 2 GiB are reported whole.
uint32_t statSize(const std::string& path, uint64_t& size) {
  struct stat64 info;
  if (stat64(path.c_str(), &info) != 0) return vantrelo::error::lastCError();
  size = static_cast<uint64_t>(info.st_size);
  return 0;
}

}  // namespace vantrelo::file::platform
