// Failures that a POSIX file system produces on demand (root ignores permission bits, so these
// use the file type instead).
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>

#include "event/queue_file.h"

namespace vantrelo::event::queue {
namespace {

namespace fs = std::filesystem;

std::string loadError(const std::string& path) {
  try {
    EventQueue queue({64, true, path});
    load(queue);
  } catch (const std::exception& e) {
    return e.what();
  }
  return "(no error)";
}

TEST(FilePosixTest, StatAndReadFailuresCarryTheSystemText) {
  const fs::path dir =
      fs::temp_directory_path() / ("vantrelo_file_posix_" + std::to_string(::getpid()));
  fs::create_directories(dir);
  std::ofstream(dir / "plain") << "x";
  // A path through a regular file fails with ENOTDIR, which is not "no such file": the file
  // may be there, so loading must not go on as if there were none. A directory opens for
  // reading but every read fails with EISDIR, which is no end of file.
  const std::string below = (dir / "plain" / "below").string();
  EXPECT_EQ(loadError(below), "stat64(" + below + ") failed: " + error::cErrorText(ENOTDIR));
  EXPECT_EQ(loadError(dir.string()),
            "Read magic header from " + dir.string() + " failed: " + error::cErrorText(EISDIR));
  fs::remove_all(dir);
}

}  // namespace
}  // namespace vantrelo::event::queue
