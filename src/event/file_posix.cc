#include <sys/stat.h>

#include <cerrno>

#include "event/queue_file.h"

namespace ns::file {

namespace {

// Large-file stat, so sizes above 2 GiB are reported whole. Returns false only for a path that
// does not exist; every other failure throws.
bool statPath(const std::string& path, uint64_t& size) {
  struct stat64 info;
  if (stat64(path.c_str(), &info) == 0) {
    size = static_cast<uint64_t>(info.st_size);
    return true;
  }
  const uint32_t code = ns::error::lastCError();
  if (code == ENOENT) return false;
  throw FileError("stat64(" + path + ") failed: " + ns::error::systemErrorText(code));
}

}  // namespace

bool fileExists(const std::string& path) {
  uint64_t size = 0;
  return statPath(path, size);
}

uint64_t fileSize(const std::string& path) {
  uint64_t size = 0;
  if (!statPath(path, size)) {
    throw FileError("stat64(" + path + ") failed: " + ns::error::systemErrorText(ENOENT));
  }
  return size;
}

}  // namespace ns::file
