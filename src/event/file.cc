#include <cerrno>

#include "event/file_platform.h"
#include "event/queue_file.h"

namespace vantrelo::file {

namespace {

// Returns false only for a path that does not exist; every other failure throws.
bool statPath(const std::string& path, uint64_t& size) {
  const uint32_t code = platform::statSize(path, size);
  if (code == 0) return true;
  if (code == ENOENT) return false;
  throw FileError("stat64(" + path + ") failed: " + vantrelo::error::cErrorText(code));
}

}  // namespace

bool fileExists(const std::string& path) {
  uint64_t size = 0;
  return statPath(path, size);
}

uint64_t fileSize(const std::string& path) {
  uint64_t size = 0;
  if (!statPath(path, size)) {
    throw FileError("stat64(" + path + ") failed: " + vantrelo::error::cErrorText(ENOENT));
  }
  return size;
}

}  // namespace vantrelo::file
