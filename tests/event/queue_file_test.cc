#include "event/queue_file.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

namespace ns::event::queue {
namespace {

namespace fs = std::filesystem;
using Events = std::vector<std::string>;

std::string readFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

Events drain(EventQueue& queue) {
  Events events;
  while (queue.count() > 0) queue.pop(events.emplace_back());
  return events;
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

std::string errorOf(void (*action)(EventQueue&), EventQueue& queue) {
  try {
    action(queue);
  } catch (const QueueError& e) {
    return e.what();
  }
  return "";
}

class QueueFileTest : public testing::Test {
 protected:
  void SetUp() override { fs::create_directories(dir_); }
  void TearDown() override { fs::remove_all(dir_); }
  QueueOptions options(uint64_t size = 1 << 20, bool recovery = true) const {
    return {size, recovery, path_};
  }

  const fs::path dir_ =
      fs::temp_directory_path() / ("vantrelo_queue_" + std::to_string(std::random_device()()));
  const std::string path_ = (dir_ / "message.queue").string();
};

TEST_F(QueueFileTest, SaveReplacesTheFileAndLoadRestoresIt) {
  const std::string old = "an older file";
  const Events many = {"a", std::string(300, '\xff'), "\x01\x02\x03", std::string(69001, '\xff')};
  const struct {
    bool recovery;
    Events pushed, saved, left;
  } cases[] = {
      {true, {}, {}, {}},  // an empty queue still writes the magic: a 4-byte file
      {true, many, many, {}},
      {true, {"first", "", "behind"}, {"first"}, {"behind"}},  // an empty event ends the save
      {false, {"queued"}, {}, {"queued"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.pushed.size());
    std::ofstream(path_, std::ios::binary) << old;
    EventQueue queue(options(1 << 20, c.recovery));
    for (const std::string& event : c.pushed) {
      queue.push(reinterpret_cast<const uint8_t*>(event.data()), uint32_t(event.size()));
    }
    save(queue);
    EXPECT_EQ(drain(queue), c.left);
    EXPECT_EQ(readFile(path_), c.recovery ? "sslz" + records(c.saved) : old);
    EXPECT_EQ(ns::file::fileSize(path_), readFile(path_).size());
    EventQueue restored(options(1 << 20, c.recovery));
    load(restored);
    load(restored);  // the file is gone now, or recovery is off: nothing more
    EXPECT_EQ(drain(restored), c.saved);
    EXPECT_EQ(fs::exists(path_), !c.recovery);
    EXPECT_EQ(std::distance(fs::directory_iterator(dir_), fs::directory_iterator()), !c.recovery);
  }
}

TEST_F(QueueFileTest, LoadReadsGoodFilesAndKeepsBadOnes) {
  Events ten;
  for (char c = 'a'; c < 'k'; ++c) ten.push_back(std::string(20, c));
  const struct {
    std::string content;
    std::string error;  // "" for success; "@" stands for the path
    Events loaded;      // on failure: those pushed before it
    uint64_t size = 1 << 20;
  } cases[] = {
      {"sslz", "", {}},
      {std::string("sslz\0\0\0\2\xc3"
                   "ab",
                   11),
       "",
       {"ab"}},
      {"sslz" + records({"", "x"}), "", {"", "x"}},
      // A head cut short by the end of the file ends the list like the end itself.
      {"sslz" + records({"one"}) + std::string("\0\0", 2), "", {"one"}},
      // Room for two 23-byte records: the older ones are dropped on the way.
      {"sslz" + records(ten), "", {ten[8], ten[9]}, 60},
      {"sslx" + records({"a"}), "Read magic header from @ failed: Expected 'sslz' but got ", {}},
      {"ssl", "Read magic header from @ failed: Unexpected end of file", {}},
      {"sslz" + records({"one"}) + records({"0123456789"}).substr(0, 8),
       "Read next event of 10 bytes from @ failed: Unexpected end of file",
       {"one"}},
      {"sslz" + records({"ok", "abc"}, 1),
       "Read next event of 3 bytes from @ failed: Expected checksum 38 but got 39",
       {"ok"}},
      {"sslz" + std::string("\xff\xff\xff\xff\x00xy", 7),
       "Read next event of 4294967295 bytes from @ failed: Unexpected end of file",
       {}},
      {"sslz" + records({"small", std::string(20, 'L')}),
       "value length 20 is larger than the size of the queue 16",
       {"small"},
       16},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.error);
    std::ofstream(path_, std::ios::binary) << c.content;
    EventQueue queue(options(c.size));
    std::string expected = c.error;
    if (size_t at = expected.find('@'); at != std::string::npos) expected.replace(at, 1, path_);
    EXPECT_EQ(errorOf(load, queue), expected);
    EXPECT_EQ(drain(queue), c.loaded);
    EXPECT_EQ(readFile(path_), c.error.empty() ? "" : c.content);  // a failure keeps the file
  }
}

TEST_F(QueueFileTest, FailedSaveLeavesNoTemporaryFile) {
  // A directory that is not empty can neither be removed nor replaced by a file.
  fs::create_directories(fs::path(path_) / "occupied");
  EventQueue queue(options());
  queue.push(reinterpret_cast<const uint8_t*>("event"), 5);
  const std::string rename = "Rename " + path_ + ".tmp to " + path_ + " failed: ";
  EXPECT_EQ(errorOf(save, queue).substr(0, rename.size()), rename);
  EXPECT_FALSE(fs::exists(path_ + ".tmp"));
  EXPECT_TRUE(fs::is_directory(fs::path(path_) / "occupied"));

  QueueOptions missing = options();
  missing.filename = (dir_ / "missing" / "message.queue").string();
  EventQueue orphan(missing);
  EXPECT_EQ(errorOf(save, orphan),
            "Open " + missing.filename + ".tmp failed: " + ns::error::systemErrorText(ENOENT));
}

}  // namespace
}  // namespace ns::event::queue
