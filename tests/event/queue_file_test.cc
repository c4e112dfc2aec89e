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

std::string readFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void writeFile(const fs::path& path, const std::string& content) {
  std::ofstream(path, std::ios::binary) << content;
}

void push(EventQueue& queue, const std::string& event) {
  queue.push(reinterpret_cast<const uint8_t*>(event.data()), static_cast<uint32_t>(event.size()));
}

std::vector<std::string> drain(EventQueue& queue) {
  std::vector<std::string> events;
  for (;;) {
    std::string out;
    queue.pop(out);
    if (out.empty()) return events;
    events.push_back(out);
  }
}

// One record as it stands in the file.
std::string record(const std::string& event, int checksumDelta = 0) {
  unsigned sum = 0;
  for (unsigned char c : event) sum += c;
  const uint32_t n = static_cast<uint32_t>(event.size());
  std::string out = {static_cast<char>(n >> 24), static_cast<char>(n >> 16),
                     static_cast<char>(n >> 8), static_cast<char>(n),
                     static_cast<char>(sum + checksumDelta)};
  return out + event;
}

class QueueFileTest : public testing::Test {
 protected:
  void SetUp() override {
    dir_ = fs::temp_directory_path() /
           ("vantrelo_queue_file_" + std::to_string(std::random_device()()));
    fs::create_directories(dir_);
    path_ = (dir_ / "message.queue").string();
  }
  void TearDown() override { fs::remove_all(dir_); }

  QueueOptions options(uint64_t size = 4096, bool recovery = true) const {
    QueueOptions result;
    result.size = size;
    result.recovery = recovery;
    result.filename = path_;
    return result;
  }

  fs::path dir_;
  std::string path_;
};

TEST_F(QueueFileTest, SaveAndLoadRoundTrip) {
  writeFile(path_, "an older file, replaced");
  EventQueue queue(options());
  const std::vector<std::string> events = {"a", std::string(300, '\xff'), "\x01\x02\x03",
                                           std::string(2000, 'q')};
  for (const std::string& event : events) push(queue, event);
  save(queue);
  EXPECT_EQ(queue.count(), 0u);
  EXPECT_FALSE(fs::exists(path_ + ".tmp"));
  std::string expected = "sslz";
  for (const std::string& event : events) expected += record(event);
  EXPECT_EQ(readFile(path_), expected);

  EventQueue restored(options());
  load(restored);
  EXPECT_EQ(drain(restored), events);
  EXPECT_FALSE(fs::exists(path_));
}

TEST_F(QueueFileTest, ZeroLengthEventEndsTheSave) {
  EventQueue queue(options());
  for (const char* event : {"first", "", "behind"}) push(queue, event);
  save(queue);
  EXPECT_EQ(readFile(path_), "sslz" + record("first"));
  EXPECT_EQ(drain(queue), std::vector<std::string>{"behind"});
}

TEST_F(QueueFileTest, LoadHandlesWellFormedFiles) {
  struct Case {
    const char* name;
    std::string content;
    std::vector<std::string> loaded;
  };
  const std::vector<Case> cases = {
      {"magic only", "sslz", {}},
      {"two events", "sslz" + record("one") + record("two"), {"one", "two"}},
      {"empty event", "sslz" + record("") + record("x"), {"", "x"}},
      // A head cut short by the end of the file ends the list like the end itself.
      {"partial head", "sslz" + record("one") + std::string("\0\0", 2), {"one"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    writeFile(path_, c.content);
    EventQueue queue(options());
    load(queue);
    EXPECT_EQ(queue.count(), c.loaded.size());
    std::vector<std::string> popped;
    for (size_t i = 0; i < c.loaded.size(); ++i) {
      std::string out;
      queue.pop(out);
      popped.push_back(out);
    }
    EXPECT_EQ(popped, c.loaded);
    EXPECT_FALSE(fs::exists(path_));
  }
}

TEST_F(QueueFileTest, LoadFailuresKeepTheFileAndWhatWasPushed) {
  struct Case {
    const char* name;
    std::string content;
    std::string message;  // "@" stands for the path
    std::vector<std::string> loaded;
    uint64_t size = 4096;
  };
  const std::vector<Case> cases = {
      {"bad magic",
       "sslx" + record("a"),
       "Read magic header from @ failed: Expected 'sslz' but got ",
       {}},
      {"short magic", "ssl", "Read magic header from @ failed: Unexpected end of file", {}},
      {"truncated event",
       "sslz" + record("one") + record("0123456789").substr(0, 8),
       "Read next event of 10 bytes from @ failed: Unexpected end of file",
       {"one"}},
      {"bad checksum",
       "sslz" + record("ok") + record("abc", 1),
       "Read next event of 3 bytes from @ failed: Expected checksum 38 but got 39",
       {"ok"}},
      {"huge length",
       "sslz" + std::string("\xff\xff\xff\xff\x00", 5) + "xy",
       "Read next event of 4294967295 bytes from @ failed: Unexpected end of file",
       {}},
      {"event larger than the queue",
       "sslz" + record("small") + record(std::string(20, 'L')),
       "value length 20 is larger than the size of the queue 16",
       {"small"},
       16},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    writeFile(path_, c.content);
    EventQueue queue(options(c.size));
    std::string expected = c.message;
    if (size_t at = expected.find('@'); at != std::string::npos) expected.replace(at, 1, path_);
    try {
      load(queue);
      ADD_FAILURE() << "loaded";
    } catch (const QueueError& e) {
      EXPECT_EQ(std::string(e.what()), expected);
    }
    EXPECT_EQ(drain(queue), c.loaded);
    EXPECT_EQ(readFile(path_), c.content);
  }
}

TEST_F(QueueFileTest, FileLargerThanTheQueueLoadsWithDrops) {
  std::string content = "sslz";
  std::vector<std::string> events;
  for (int i = 0; i < 10; ++i) {
    events.push_back(std::string(20, static_cast<char>('a' + i)));
    content += record(events.back());
  }
  writeFile(path_, content);
  EventQueue queue(options(60));  // room for two 23-byte events
  load(queue);
  uint64_t processed = 0, queued = 0, dropped = 0;
  queue.snapshot(processed, queued, dropped);
  EXPECT_EQ(dropped, 8u);
  EXPECT_EQ(drain(queue), std::vector<std::string>(events.end() - 2, events.end()));
  EXPECT_FALSE(fs::exists(path_));
}

TEST_F(QueueFileTest, MissingFileOrRecoveryOffLoadsNothing) {
  EventQueue fresh(options());
  load(fresh);
  EXPECT_EQ(fresh.count(), 0u);

  writeFile(path_, "sslz" + record("stays"));
  EventQueue queue(options(4096, false));
  push(queue, "queued");
  load(queue);
  save(queue);
  EXPECT_EQ(queue.count(), 1u);
  EXPECT_EQ(readFile(path_), "sslz" + record("stays"));
  EXPECT_FALSE(fs::exists(path_ + ".tmp"));
  EXPECT_EQ(std::distance(fs::directory_iterator(dir_), fs::directory_iterator()), 1);
}

TEST_F(QueueFileTest, FailedRenameRemovesTheTemporaryFile) {
  // A directory that is not empty can neither be removed nor replaced by a file.
  fs::create_directories(fs::path(path_) / "occupied");
  EventQueue queue(options());
  push(queue, "event");
  try {
    save(queue);
    ADD_FAILURE() << "saved over a directory";
  } catch (const QueueError& e) {
    const std::string expected = "Rename " + path_ + ".tmp to " + path_ + " failed: ";
    EXPECT_EQ(std::string(e.what()).substr(0, expected.size()), expected);
  }
  EXPECT_FALSE(fs::exists(path_ + ".tmp"));
  EXPECT_TRUE(fs::is_directory(fs::path(path_) / "occupied"));
}

TEST_F(QueueFileTest, OpenFailureNamesTheTemporaryFile) {
  QueueOptions bad = options();
  bad.filename = (dir_ / "missing" / "message.queue").string();
  EventQueue queue(bad);
  try {
    save(queue);
    ADD_FAILURE() << "saved into a missing directory";
  } catch (const QueueError& e) {
    EXPECT_EQ(std::string(e.what()),
              "Open " + bad.filename + ".tmp failed: " + ns::error::systemErrorText(ENOENT));
  }
}

TEST(ChecksumTest, AgreesWithAPlainByteSum) {
  std::mt19937 random(7);
  std::vector<uint8_t> data(70000);
  for (uint8_t& b : data) b = static_cast<uint8_t>(random());
  const std::vector<uint8_t> ones(70000, 0xFF);  // overflows any lane that is not folded
  for (const std::vector<uint8_t>* source :
       std::vector<const std::vector<uint8_t>*>{&data, &ones}) {
    for (size_t start = 0; start < 8; ++start) {
      for (size_t length : {0, 1, 7, 8, 9, 15, 16, 17, 1023, 1024, 1031, 69000}) {
        uint8_t expected = 0;
        for (size_t i = 0; i < length; ++i) expected += (*source)[start + i];
        EXPECT_EQ(checksum(source->data() + start, length), expected)
            << "start " << start << " length " << length;
      }
    }
  }
}

TEST_F(QueueFileTest, FileExistsAndSize) {
  writeFile(path_, "12345");
  EXPECT_TRUE(ns::file::fileExists(path_));
  EXPECT_EQ(ns::file::fileSize(path_), 5u);
  EXPECT_TRUE(ns::file::fileExists(dir_.string()));
  const std::string missing = (dir_ / "nothing").string();
  EXPECT_FALSE(ns::file::fileExists(missing));
  try {
    ns::file::fileSize(missing);
    ADD_FAILURE() << "size of a missing file";
  } catch (const ns::file::FileError& e) {
    EXPECT_EQ(std::string(e.what()),
              "stat64(" + missing + ") failed: " + ns::error::systemErrorText(ENOENT));
  }
}

}  // namespace
}  // namespace ns::event::queue
