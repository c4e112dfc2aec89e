#include <sys/stat.h>
#include <sys/types.h>

#include "base/error.h"
#include "event/file_platform.h"

namespace vantrelo::file::platform {

// _stat64 gives 64-bit sizes.
uint32_t statSize(const std::string& path, uint64_t& size) {
  struct _stat64 info;
  if (_stat64(path.c_str(), &info) != 0) return vantrelo::error::lastCError();
  size = static_cast<uint64_t>(info.st_size);
  return 0;
}

}  // namespace vantrelo::file::platform
