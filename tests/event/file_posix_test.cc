// Failures that a POSIX file system produces on demand (root ignores permission bits, so these
// use the file type instead).
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>

#include "event/queue_file.h"

namespace ns::event::queue {
namespace {

namespace fs = std::filesystem;

class FilePosixTest : public testing::Test {
 protected:
  void SetUp() override {
    dir_ = fs::temp_directory_path() /
           ("vantrelo_file_posix_" + std::to_string(std::random_device()()));
    fs::create_directories(dir_);
  }
  void TearDown() override { fs::remove_all(dir_); }
  fs::path dir_;
};

TEST_F(FilePosixTest, StatFailureOtherThanMissingThrows) {
  const fs::path file = dir_ / "plain";
  std::ofstream(file) << "x";
  // A path through a regular file: ENOTDIR, which is not "no such file".
  const std::string below = (file / "below").string();
  for (bool sizeWanted : {false, true}) {
    try {
      if (sizeWanted) {
        ns::file::fileSize(below);
      } else {
        ns::file::fileExists(below);
      }
      ADD_FAILURE() << "stat through a file succeeded";
    } catch (const ns::file::FileError& e) {
      EXPECT_EQ(std::string(e.what()),
                "stat64(" + below + ") failed: " + ns::error::systemErrorText(ENOTDIR));
    }
  }
  // load() lets the stat failure through as it is.
  QueueOptions options;
  options.size = 64;
  options.filename = below;
  EventQueue queue(options);
  EXPECT_THROW(load(queue), ns::file::FileError);
}

TEST_F(FilePosixTest, ReadErrorCarriesTheSystemText) {
  // A directory opens for reading but every read fails with EISDIR.
  QueueOptions options;
  options.size = 64;
  options.filename = dir_.string();
  EventQueue queue(options);
  try {
    load(queue);
    ADD_FAILURE() << "loaded a directory";
  } catch (const QueueError& e) {
    EXPECT_EQ(std::string(e.what()), "Read magic header from " + dir_.string() +
                                         " failed: " + ns::error::systemErrorText(EISDIR));
  }
}

}  // namespace
}  // namespace ns::event::queue
