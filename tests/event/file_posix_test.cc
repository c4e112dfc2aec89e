// Failures that a POSIX file system produces on demand (root ignores permission bits, so these
// use the file type instead).
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include "event/queue_file.h"

namespace ns::event::queue {
namespace {

namespace fs = std::filesystem;

TEST(FilePosixTest, StatAndReadFailuresCarryTheSystemText) {
  const fs::path dir =
      fs::temp_directory_path() / ("vantrelo_file_posix_" + std::to_string(::getpid()));
  fs::create_directories(dir);
  std::ofstream(dir / "plain") << "x";
  // A path through a regular file fails with ENOTDIR, which is not "no such file"; a directory
  // opens for reading but every read fails with EISDIR.
  const std::string below = (dir / "plain" / "below").string(), missing = (dir / "no").string();
  auto load = [](const std::string& path) {
    EventQueue queue({64, true, path});
    queue::load(queue);
  };
  const struct {
    std::function<void()> action;
    std::string error;
  } cases[] = {
      {[&] { load(below); }, "stat64(" + below + ") failed: " + error::systemErrorText(ENOTDIR)},
      {[&] { file::fileSize(below); },
       "stat64(" + below + ") failed: " + error::systemErrorText(ENOTDIR)},
      {[&] { file::fileSize(missing); },
       "stat64(" + missing + ") failed: " + error::systemErrorText(ENOENT)},
      {[&] { load(dir.string()); },
       "Read magic header from " + dir.string() + " failed: " + error::systemErrorText(EISDIR)},
  };
  for (const auto& c : cases) {
    try {
      c.action();
      ADD_FAILURE() << "no error for " << c.error;
    } catch (const std::exception& e) {
      EXPECT_EQ(e.what(), c.error);
    }
  }
  fs::remove_all(dir);
}

}  // namespace
}  // namespace ns::event::queue
