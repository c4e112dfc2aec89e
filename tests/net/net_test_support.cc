#include "net_test_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <iterator>
#include <thread>

#ifndef _WIN32
#include <stdlib.h>
#endif

namespace vantrelo::net::testing {

namespace {

// Winsock must be started once per process before the first socket.
class NetworkEnvironment : public ::testing::Environment {
 public:
  void SetUp() override { startNetworking(); }
};

const auto* const environment = ::testing::AddGlobalTestEnvironment(new NetworkEnvironment);

}  // namespace

SocketSettings loopbackSettings(uint16_t port, uint32_t timeout) {
  SocketSettings settings;
  settings.unix = false;
  settings.port = port;
  settings.connectTimeout = settings.readTimeout = settings.writeTimeout = timeout;
  return settings;
}

uint16_t unusedPort() {
  Socket probe(1, loopbackSettings());
  probe.listen();
  return probe.localPort();
}

std::unique_ptr<Socket> acceptOne(Socket& listener) {
  for (int attempt = 0; attempt < 5; ++attempt) {
    if (auto accepted = listener.accept()) return accepted;
    listener.wait(true, 1);
  }
  throw SocketError("test: nothing to accept");
}

void connectWithRetry(Socket& socket) {
  for (int attempt = 0;; ++attempt) {
    try {
      return socket.connect();
    } catch (const SocketError&) {
      socket.close();
      if (attempt == 50) throw;
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
  }
}

std::string errorOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const std::exception& e) {
    return e.what();
  }
  return "(no error)";
}

std::string be32(uint32_t value) {
  return {static_cast<char>(value >> 24), static_cast<char>(value >> 16),
          static_cast<char>(value >> 8), static_cast<char>(value)};
}

LoopbackPair::LoopbackPair(const SocketSettings& settings) {
  listener = std::make_unique<Socket>(100, settings);
  listener->listen();
  SocketSettings clientSettings = settings;
  if (!settings.unix) clientSettings.port = listener->localPort();
  client = std::make_unique<Socket>(200, clientSettings);
  client->connect();
  server = acceptOne(*listener);
}

bool LogRecorder::write(log::Level level, const std::string& message) {
  static const char* const kPrefixes[] = {"E ", "I ", "W "};  // in the order of log::Level
  std::lock_guard<std::mutex> lock(mutex_);
  lines_.push_back(kPrefixes[static_cast<int>(level)] + message);
  return true;
}

bool LogRecorder::contains(const std::string& prefix) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return std::any_of(lines_.begin(), lines_.end(),
                     [&](const std::string& line) { return line.rfind(prefix, 0) == 0; });
}

std::vector<std::string> LogRecorder::lines() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return lines_;
}

#ifndef _WIN32
std::string makeTempDirectory(const std::string& tag) {
  std::string pattern = "/tmp/vantrelo-" + tag + "-XXXXXX";
  if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  return pattern;
}
#endif

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace vantrelo::net::testing
