#include "event/queue_file.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace vantrelo::event::queue {

namespace {

// Bytes read at a time for one event, so a corrupt length field costs no more memory than the
// file really holds.
constexpr size_t kReadChunk = size_t{1} << 20;
// The text for a short read that hit the end of the file: there is no system error behind it.
constexpr char kUnexpectedEnd[] = "Unexpected end of file";

std::string cErrorText() { return vantrelo::error::cErrorText(vantrelo::error::lastCError()); }

// Owns one C stdio stream; closes it on destruction unless closed explicitly before.
class StdioFile {
 public:
  explicit StdioFile(std::FILE* file) : file_(file) {}
  ~StdioFile() { close(); }
  StdioFile(const StdioFile&) = delete;
  StdioFile& operator=(const StdioFile&) = delete;

  std::FILE* get() const { return file_; }
  explicit operator bool() const { return file_ != nullptr; }
  // False when flushing the buffered data failed.
  bool close() {
    if (file_ == nullptr) return true;
    const bool ok = std::fclose(file_) == 0;
    file_ = nullptr;
    return ok;
  }

 private:
  std::FILE* file_;
};

void putBigEndian32(char* out, uint32_t value) {
  out[0] = static_cast<char>(value >> 24);
  out[1] = static_cast<char>(value >> 16);
  out[2] = static_cast<char>(value >> 8);
  out[3] = static_cast<char>(value);
}

uint32_t getBigEndian32(const uint8_t* in) {
  return uint32_t{in[0]} << 24 | uint32_t{in[1]} << 16 | uint32_t{in[2]} << 8 | in[3];
}

// Writes the magic and every event popped from the queue into an open file; throws on failure.
void writeRecords(EventQueue& queue, std::FILE* file, const std::string& tmpPath) {
  if (std::fwrite(kQueueFileMagic, 1, sizeof kQueueFileMagic, file) != sizeof kQueueFileMagic) {
    throw QueueError("Write magic header to " + tmpPath + " failed: " + cErrorText());
  }
  // One buffer for every record: the head is filled in front of the popped event, so head and
  // data go out in a single write.
  std::string record;
  for (;;) {
    record.assign(kRecordHeadBytes, '\0');
    queue.pop(record);
    // Nothing popped, or an empty event: either ends the file.
    if (record.size() <= kRecordHeadBytes) break;
    const size_t length = record.size() - kRecordHeadBytes;
    putBigEndian32(record.data(), static_cast<uint32_t>(length));
    record[4] = static_cast<char>(
        checksum(reinterpret_cast<const uint8_t*>(record.data()) + kRecordHeadBytes, length));
    if (std::fwrite(record.data(), 1, record.size(), file) != record.size()) {
      throw QueueError("Write next event to " + tmpPath + " failed: " + cErrorText());
    }
  }
}

// Reads exactly `length` bytes into `out`, growing it chunk by chunk. Returns false on a short
// read; the caller tells an end of file from a read error by the stream's flags.
bool readExactly(std::FILE* file, uint32_t length, std::string& out) {
  out.clear();
  size_t done = 0;
  while (done < length) {
    const size_t chunk = std::min<size_t>(length - done, kReadChunk);
    out.resize(done + chunk);
    const size_t got = std::fread(out.data() + done, 1, chunk, file);
    done += got;
    if (got != chunk) return false;
  }
  return true;
}

// The reason of a short read: the system's text for a read error, a fixed text for end of file.
std::string shortReadText(std::FILE* file) {
  if (std::ferror(file) == 0 && std::feof(file) != 0) return kUnexpectedEnd;
  return cErrorText();
}

// Pushes every record of an open file into the queue; throws on failure.
void readRecords(EventQueue& queue, std::FILE* file, const std::string& path) {
  char magic[sizeof kQueueFileMagic];
  if (std::fread(magic, 1, sizeof magic, file) != sizeof magic) {
    throw QueueError("Read magic header from " + path + " failed: " + shortReadText(file));
  }
  if (std::memcmp(magic, kQueueFileMagic, sizeof magic) != 0) {
    throw QueueError("Read magic header from " + path + " failed: Expected 'sslz' but got ");
  }
  std::string event;
  uint8_t head[kRecordHeadBytes];
  for (;;) {
    if (std::fread(head, 1, sizeof head, file) != sizeof head) {
      if (std::ferror(file) != 0) {
        throw QueueError("Read from " + path + " failed: " + cErrorText());
      }
      if (std::feof(file) != 0) return;
      throw QueueError("Read next length of 4 bytes from " + path + " failed: " + cErrorText());
    }
    const uint32_t length = getBigEndian32(head);
    const std::string prefix =
        "Read next event of " + std::to_string(length) + " bytes from " + path + " failed: ";
    if (!readExactly(file, length, event)) throw QueueError(prefix + shortReadText(file));
    const auto* data = reinterpret_cast<const uint8_t*>(event.data());
    const uint8_t computed = checksum(data, event.size());
    if (computed != head[4]) {
      throw QueueError(prefix + "Expected checksum " + std::to_string(computed) + " but got " +
                       std::to_string(head[4]));
    }
    queue.push(data, length);
  }
}

}  // namespace

uint8_t checksum(const uint8_t* data, size_t length) {
  // Eight bytes at a time: the odd and even bytes of each word are added into four 16-bit lanes.
  // A lane grows by at most 2 * 255 per word, so folding every 128 words keeps it below 65536.
  constexpr uint64_t kLaneMask = 0x00FF00FF00FF00FFull;
  constexpr size_t kWordsPerFold = 128;
  uint32_t sum = 0;
  size_t i = 0;
  while (length - i >= 8) {
    uint64_t lanes = 0;
    for (size_t words = 0; words < kWordsPerFold && length - i >= 8; ++words, i += 8) {
      uint64_t word;
      std::memcpy(&word, data + i, sizeof word);
      lanes += (word & kLaneMask) + ((word >> 8) & kLaneMask);
    }
    sum += static_cast<uint32_t>((lanes & 0xFFFF) + ((lanes >> 16) & 0xFFFF) +
                                 ((lanes >> 32) & 0xFFFF) + (lanes >> 48));
  }
  for (; i < length; ++i) sum += data[i];
  return static_cast<uint8_t>(sum);
}

void save(EventQueue& queue) {
  const QueueOptions& options = queue.options();
  if (!options.recovery) return;
  const std::string tmpPath = options.filename + ".tmp";
  StdioFile file(std::fopen(tmpPath.c_str(), "wb"));
  if (!file) throw QueueError("Open " + tmpPath + " failed: " + cErrorText());
  try {
    writeRecords(queue, file.get(), tmpPath);
    // Closing flushes the stream's buffer, so a full disk may only show up here.
    if (!file.close()) throw QueueError("Close " + tmpPath + " failed: " + cErrorText());
    // Some platforms refuse to rename over an existing file; the old one goes first.
    std::remove(options.filename.c_str());
    if (std::rename(tmpPath.c_str(), options.filename.c_str()) != 0) {
      throw QueueError("Rename " + tmpPath + " to " + options.filename +
                       " failed: " + cErrorText());
    }
  } catch (...) {
    // The message is built; now leave no half-written file behind.
    file.close();
    std::remove(tmpPath.c_str());
    throw;
  }
}

void load(EventQueue& queue) {
  const QueueOptions& options = queue.options();
  if (!options.recovery || !vantrelo::file::fileExists(options.filename)) return;
  {
    StdioFile file(std::fopen(options.filename.c_str(), "rb"));
    if (!file) throw QueueError("Open " + options.filename + " failed: " + cErrorText());
    readRecords(queue, file.get(), options.filename);
  }
  // Closed before removing: an open file cannot be removed on every platform.
  if (std::remove(options.filename.c_str()) != 0) {
    throw QueueError("Remove " + options.filename + " failed: " + cErrorText());
  }
}

}  // namespace vantrelo::event::queue
