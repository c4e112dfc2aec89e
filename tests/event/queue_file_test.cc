#include "event/queue_file.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

namespace vantrelo::event::queue {
namespace {

namespace fs = std::filesystem;
using Events = std::vector<std::string>;

std::string readFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Records as they stand in the file; `checksumDelta` spoils the last one's checksum.
std::string records(const Events& events, int checksumDelta = 0) {
  std::string out;
  for (const std::string& event : events) {
    unsigned sum = &event == &events.back() ? checksumDelta : 0;
    for (unsigned char c : event) sum += c;
    const auto n = static_cast<uint32_t>(event.size());
    out += {static_cast<char>(n >> 24), static_cast<char>(n >> 16), static_cast<char>(n >> 8),
            static_cast<char>(n), static_cast<char>(sum)};
    out += event;
  }
  return out;
}

class QueueFileTest : public testing::Test {
 protected:
  void SetUp() override { fs::create_directories(dir_); }
  void TearDown() override { fs::remove_all(dir_); }

  // Runs `action` (save or load) on a queue at path_ holding `events`; returns the error text
  // ("" for none) and leaves what is then in the queue in `left`.
  std::string run(void (*action)(EventQueue&), const Events& events, Events& left,
                  bool recovery = true) const {
    EventQueue queue({1 << 20, recovery, path_});
    for (const std::string& event : events) {
      queue.push(reinterpret_cast<const uint8_t*>(event.data()), uint32_t(event.size()));
    }
    std::string error;
    try {
      action(queue);
    } catch (const QueueError& e) {
      error = e.what();
    }
    for (left.clear(); queue.count() > 0;) queue.pop(left.emplace_back());
    return error;
  }

  const fs::path dir_ =
      fs::temp_directory_path() / ("vantrelo_queue_" + std::to_string(std::random_device()()));
  const std::string path_ = (dir_ / "message.queue").string();
};

TEST_F(QueueFileTest, SaveReplacesTheFileAndLoadRestoresIt) {
  const std::string old = "an older file";
  const struct {
    bool recovery;
    Events pushed, saved, left;
  } cases[] = {
      {true, {}, {}, {}},  // an empty queue still writes the magic: a 4-byte file
      {true, {"a", std::string(69001, '\xff')}, {"a", std::string(69001, '\xff')}, {}},
      {true, {"first", "", "behind"}, {"first"}, {"behind"}},  // an empty event ends the save
      {false, {"queued"}, {}, {"queued"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.pushed.size());
    std::ofstream(path_, std::ios::binary) << old;
    Events left, loaded;
    EXPECT_EQ(run(save, c.pushed, left, c.recovery), "");
    EXPECT_EQ(left, c.left);
    EXPECT_EQ(readFile(path_), c.recovery ? "sslz" + records(c.saved) : old);
    EXPECT_EQ(vantrelo::file::fileSize(path_), readFile(path_).size());
    EXPECT_EQ(run(load, {}, loaded, c.recovery), "");
    EXPECT_EQ(loaded, c.saved);
    EXPECT_EQ(fs::exists(path_), !c.recovery);
    EXPECT_EQ(std::distance(fs::directory_iterator(dir_), fs::directory_iterator()), !c.recovery);
  }
}

TEST_F(QueueFileTest, LoadReadsGoodFilesAndKeepsBadOnes) {
  const struct {
    std::string content;
    std::string error;  // "" for success; "@" stands for the path
    Events loaded;      // on failure: those pushed before it
  } cases[] = {
      // Length 2 and checksum 'a' + 'b', written out by hand.
      {"sslz" + std::string("\0\0\0\2\xc3", 5) + "ab", "", {"ab"}},
      {"sslz" + records({"", "x"}), "", {"", "x"}},
      // A head cut short by the end of the file ends the list like the end itself.
      {"sslz" + records({"one"}) + std::string("\0\0", 2), "", {"one"}},
      {"sslx" + records({"a"}), "Read magic header from @ failed: Expected 'sslz' but got ", {}},
      {"sslz" + records({"one"}) + records({"0123456789"}).substr(0, 8),
       "Read next event of 10 bytes from @ failed: Unexpected end of file",
       {"one"}},
      {"sslz" + records({"ok", "abc"}, 1),
       "Read next event of 3 bytes from @ failed: Expected checksum 38 but got 39",
       {"ok"}},
      // A huge length is read chunk by chunk, never allocated whole.
      {"sslz" + std::string("\xff\xff\xff\xff\x00xy", 7),
       "Read next event of 4294967295 bytes from @ failed: Unexpected end of file",
       {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.error);
    std::ofstream(path_, std::ios::binary) << c.content;
    std::string expected = c.error;
    if (size_t at = expected.find('@'); at != std::string::npos) expected.replace(at, 1, path_);
    Events loaded;
    EXPECT_EQ(run(load, {}, loaded), expected);
    EXPECT_EQ(loaded, c.loaded);
    EXPECT_EQ(readFile(path_), c.error.empty() ? "" : c.content);  // a failure keeps the file
  }
}

TEST_F(QueueFileTest, FailedSaveLeavesNoTemporaryFile) {
  // A directory that is not empty can neither be removed nor replaced by a file.
  fs::create_directories(fs::path(path_) / "occupied");
  Events left;
  const std::string rename = "Rename " + path_ + ".tmp to " + path_ + " failed: ";
  EXPECT_EQ(run(save, {"event"}, left).substr(0, rename.size()), rename);
  EXPECT_FALSE(fs::exists(path_ + ".tmp"));
  EXPECT_TRUE(fs::is_directory(fs::path(path_) / "occupied"));
  fs::remove_all(dir_);
  EXPECT_EQ(run(save, {"event"}, left),
            "Open " + path_ + ".tmp failed: " + vantrelo::error::cErrorText(ENOENT));
}

}  // namespace
}  // namespace vantrelo::event::queue
