// vantrelo-loadgen: sends realistic dnstap traffic over Frame Streams, for benchmarks, demos
// and end-to-end tests of the relay.
//
// Every exchange is a client query followed by its response, both built as real DNS wire
// messages (varied names, types, EDNS, answers, NXDOMAIN with an SOA, failures) and wrapped in
// dnstap records. The stream goes to a TCP address or a Unix-domain socket, or into a Frame
// Streams file that fstrm_replay and the dnstap tool can send later.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include "base/log.h"
#include "encoding/dnstap_message.h"
#include "loadgen_traffic.h"
#include "net/fstrm_socket.h"
#include "net/net_settings.h"
#include "net/socket.h"
#include "net/tls_socket.h"

namespace {

using vantrelo::tools::loadgen::TrafficGenerator;

constexpr char kUsage[] =
    "usage: vantrelo-loadgen (--tcp HOST:PORT | --unix PATH | --write FILE) [options]\n"
    "\n"
    "Sends dnstap client queries and responses over Frame Streams.\n"
    "\n"
    "  --tcp HOST:PORT      send to a TCP address (IPv6 as [ADDRESS]:PORT)\n"
    "  --unix PATH          send to a Unix-domain socket\n"
    "  --write FILE         write a Frame Streams file instead of sending\n"
    "  --count N            number of events (default 1000)\n"
    "  --rate N             events per second (default 0: as fast as possible)\n"
    "  --seed N             random seed, for a reproducible stream (default: from the clock)\n"
    "  --start-time SEC     time stamps start at this Unix time and advance by made-up gaps\n"
    "                       (default: the real clock)\n"
    "  --identity TEXT      dnstap identity (default vantrelo-loadgen)\n"
    "  --unidirectional     open the stream with START only (no READY/ACCEPT handshake)\n"
    "  --timeout SEC        connect, read and write time-out (default 10)\n"
    "  --verbose            show the connection's log lines\n"
    "  --help               show this text\n";

// Frames are gathered and written in chunks of about this size, so that full speed costs one
// system call per chunk rather than one per event.
constexpr size_t kChunkBytes = 64 * 1024;
// At a given rate a chunk holds the events of at most this many seconds, so pacing stays smooth.
constexpr uint64_t kChunksPerSecond = 100;

class UsageError : public std::exception {
 public:
  explicit UsageError(std::string message) : message_(std::move(message)) {}
  const char* what() const noexcept override { return message_.c_str(); }

 private:
  std::string message_;
};

struct Options {
  std::string tcp;
  std::string unixPath;
  std::string writePath;
  uint64_t count = 1000;
  uint64_t rate = 0;
  uint64_t seed = 0;
  bool seedGiven = false;
  uint64_t startTime = 0;
  std::string identity = "vantrelo-loadgen";
  bool unidirectional = false;
  uint32_t timeout = 10;
  bool verbose = false;
};

uint64_t parseNumber(const std::string& option, const char* text, uint64_t max) {
  char* end = nullptr;
  errno = 0;
  const unsigned long long value = std::strtoull(text, &end, 10);
  if (*text == '\0' || *text == '-' || *end != '\0' || errno != 0 || value > max) {
    throw UsageError("invalid value for " + option + ": '" + text + "'");
  }
  return value;
}

Options parseOptions(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") throw UsageError("");
    if (arg == "--unidirectional") {
      options.unidirectional = true;
      continue;
    }
    if (arg == "--verbose") {
      options.verbose = true;
      continue;
    }
    if (arg.rfind("--", 0) != 0) throw UsageError("unexpected argument '" + arg + "'");
    if (i + 1 >= argc) throw UsageError("missing value for " + arg);
    const char* value = argv[++i];
    if (arg == "--tcp") {
      options.tcp = value;
    } else if (arg == "--unix") {
      options.unixPath = value;
    } else if (arg == "--write") {
      options.writePath = value;
    } else if (arg == "--count") {
      options.count = parseNumber(arg, value, UINT64_MAX);
    } else if (arg == "--rate") {
      options.rate = parseNumber(arg, value, 100000000);
    } else if (arg == "--seed") {
      options.seed = parseNumber(arg, value, UINT64_MAX);
      options.seedGiven = true;
    } else if (arg == "--start-time") {
      options.startTime = parseNumber(arg, value, UINT32_MAX);
      if (options.startTime == 0) throw UsageError("invalid value for --start-time: '0'");
    } else if (arg == "--identity") {
      options.identity = value;
    } else if (arg == "--timeout") {
      options.timeout = static_cast<uint32_t>(parseNumber(arg, value, 120));
      if (options.timeout == 0) throw UsageError("invalid value for --timeout: '0'");
    } else {
      throw UsageError("unknown option " + arg);
    }
  }
  const int targets = !options.tcp.empty() + !options.unixPath.empty() + !options.writePath.empty();
  if (targets != 1) throw UsageError("give exactly one of --tcp, --unix and --write");
  return options;
}

// Where the frames go. Owns its connection or file; one thread.
class FrameSink {
 public:
  virtual ~FrameSink() = default;
  virtual void open() = 0;
  // Writes data frames (each a 4-byte length and its bytes) as they stand.
  virtual void write(const std::string& frames) = 0;
  virtual void close() = 0;
};

class NetworkSink : public FrameSink {
 public:
  explicit NetworkSink(const Options& options) {
    vantrelo::net::SocketSettings settings;
    settings.connectTimeout = options.timeout;
    settings.readTimeout = options.timeout;
    settings.writeTimeout = options.timeout;
    if (!options.unixPath.empty()) {
      settings.unix = true;
      settings.path = options.unixPath;
    } else {
      settings.unix = false;
      parseAddress(options.tcp, settings);
    }
    vantrelo::net::fstrm::FstrmSettings fstrm;
    fstrm.bidirectional = !options.unidirectional;
    vantrelo::net::tls::TlsSettings tls;
    tls.enabled = false;
    socket_ = std::make_unique<vantrelo::net::Socket>(1, settings);
    tls_ = std::make_unique<vantrelo::net::tls::TlsSocket>(1, tls, *socket_);
    fstrm_ = std::make_unique<vantrelo::net::fstrm::FstrmSocket>(1, fstrm, *socket_, *tls_);
  }

  void open() override {
    vantrelo::net::startNetworking();
    socket_->connect();
    fstrm_->open();
  }
  void write(const std::string& frames) override {
    fstrm_->writeBytes(frames.data(), static_cast<uint32_t>(frames.size()));
  }
  void close() override {
    fstrm_->close();
    socket_->close();
  }

 private:
  static void parseAddress(const std::string& text, vantrelo::net::SocketSettings& settings) {
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0) {
      throw UsageError("--tcp needs HOST:PORT, got '" + text + "'");
    }
    std::string host = text.substr(0, colon);
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
      host = host.substr(1, host.size() - 2);
    }
    const uint64_t port = parseNumber("--tcp", text.c_str() + colon + 1, 65535);
    if (port == 0) throw UsageError("--tcp needs a port from 1 to 65535");
    settings.ipv6 = host.find(':') != std::string::npos;
    settings.host = host;
    settings.port = static_cast<uint16_t>(port);
  }

  std::unique_ptr<vantrelo::net::Socket> socket_;
  std::unique_ptr<vantrelo::net::tls::TlsSocket> tls_;
  std::unique_ptr<vantrelo::net::fstrm::FstrmSocket> fstrm_;
};

// A Frame Streams file: START with the content type, the data frames, STOP.
class FileSink : public FrameSink {
 public:
  explicit FileSink(std::string path) : path_(std::move(path)) {}
  ~FileSink() override {
    if (file_ != nullptr) std::fclose(file_);
  }

  void open() override {
    file_ = std::fopen(path_.c_str(), "wb");
    if (file_ == nullptr) fail("fopen");
    std::string control;
    appendControl(control, vantrelo::net::fstrm::kControlStart, true);
    put(control);
  }
  void write(const std::string& frames) override { put(frames); }
  void close() override {
    std::string control;
    appendControl(control, vantrelo::net::fstrm::kControlStop, false);
    put(control);
    FILE* file = file_;
    file_ = nullptr;
    if (std::fclose(file) != 0) fail("fclose");
  }

 private:
  static void appendUint32(std::string& out, uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<char>(value >> shift));
  }
  static void appendControl(std::string& out, uint32_t type, bool withContentType) {
    const uint32_t typeLength = sizeof(vantrelo::net::fstrm::kContentType) - 1;
    appendUint32(out, 0);  // the escape that marks a control frame
    appendUint32(out, 4 + (withContentType ? 8 + typeLength : 0));
    appendUint32(out, type);
    if (withContentType) {
      appendUint32(out, vantrelo::net::fstrm::kFieldContentType);
      appendUint32(out, typeLength);
      out.append(vantrelo::net::fstrm::kContentType, typeLength);
    }
  }
  void put(const std::string& bytes) {
    if (std::fwrite(bytes.data(), 1, bytes.size(), file_) != bytes.size()) fail("fwrite");
  }
  [[noreturn]] void fail(const char* call) const {
    throw std::runtime_error(std::string(call) + "(" + path_ + ") failed: " + std::strerror(errno));
  }

  std::string path_;
  FILE* file_ = nullptr;
};

// Shows the network layer's log lines on standard error with --verbose and keeps standard
// output for the summary; errors always show.
class StderrLog : public vantrelo::log::SystemLog {
 public:
  explicit StderrLog(bool verbose) : verbose_(verbose) {}
  bool write(vantrelo::log::Level level, const std::string& message) override {
    if (level == vantrelo::log::Level::kError || verbose_) {
      std::fprintf(stderr, "%s\n", message.c_str());
    }
    return true;
  }

 private:
  bool verbose_;
};

void appendFrame(std::string& out, const std::string& payload) {
  const uint32_t length = static_cast<uint32_t>(payload.size());
  for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<char>(length >> shift));
  out += payload;
}

int run(const Options& options) {
  uint64_t seed = options.seed;
  if (!options.seedGiven) {
    seed = static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
  }
  TrafficGenerator generator(seed, options.identity, options.startTime);
  std::unique_ptr<FrameSink> sink;
  if (!options.writePath.empty()) {
    sink = std::make_unique<FileSink>(options.writePath);
  } else {
    sink = std::make_unique<NetworkSink>(options);
  }

  uint64_t perChunk = UINT64_MAX;
  if (options.rate > 0) perChunk = std::max<uint64_t>(1, options.rate / kChunksPerSecond);

  std::string chunk;
  chunk.reserve(kChunkBytes + 4096);
  std::string payload;
  uint64_t bytes = 0;
  sink->open();
  const auto start = std::chrono::steady_clock::now();
  uint64_t sent = 0;
  while (sent < options.count) {
    if (options.rate > 0) {
      // Event n is due n / rate seconds after the start.
      const auto due = start + std::chrono::nanoseconds(sent * 1000000000ull / options.rate);
      std::this_thread::sleep_until(due);
    }
    chunk.clear();
    uint64_t inChunk = 0;
    while (sent + inChunk < options.count && inChunk < perChunk && chunk.size() < kChunkBytes) {
      generator.next(payload);
      appendFrame(chunk, payload);
      ++inChunk;
    }
    sink->write(chunk);
    sent += inChunk;
    bytes += chunk.size();
  }
  sink->close();
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const double perSecond = seconds > 0 ? static_cast<double>(sent) / seconds : 0.0;
  std::printf("Sent %llu events, %llu bytes in %.3f seconds, %.0f events/s\n",
              static_cast<unsigned long long>(sent), static_cast<unsigned long long>(bytes),
              seconds, perSecond);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  try {
    options = parseOptions(argc, argv);
  } catch (const UsageError& error) {
    if (error.what()[0] == '\0') {
      std::fputs(kUsage, stdout);
      return 0;
    }
    std::fprintf(stderr, "vantrelo-loadgen: %s\n\n%s", error.what(), kUsage);
    return 2;
  }
  StderrLog log(options.verbose);
  vantrelo::log::setSystemLog(&log);
  int code = 1;
  try {
    code = run(options);
  } catch (const UsageError& error) {
    std::fprintf(stderr, "vantrelo-loadgen: %s\n\n%s", error.what(), kUsage);
    code = 2;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "vantrelo-loadgen: %s\n", error.what());
    code = 1;
  }
  vantrelo::log::setSystemLog(nullptr);
  return code;
}
