#include "net_test_support.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace ns::net::testing {

namespace {

// Winsock must be started once per process before the first socket.
class NetworkEnvironment : public ::testing::Environment {
 public:
  void SetUp() override { startNetworking(); }
};

const auto* const environment = ::testing::AddGlobalTestEnvironment(new NetworkEnvironment);

const char* levelName(log::Level level) {
  switch (level) {
    case log::Level::kError:
      return "E ";
    case log::Level::kWarning:
      return "W ";
    case log::Level::kInformation:
      return "I ";
  }
  return "? ";
}

}  // namespace

SocketSettings loopbackSettings(uint16_t port) {
  SocketSettings settings;
  settings.unix = false;
  settings.host = "127.0.0.1";
  settings.port = port;
  settings.connectTimeout = 2;
  settings.readTimeout = 2;
  settings.writeTimeout = 2;
  return settings;
}

std::unique_ptr<Socket> acceptOne(Socket& listener) {
  for (int attempt = 0; attempt < 5; ++attempt) {
    if (auto accepted = listener.accept()) return accepted;
    listener.wait(true, 1);
  }
  throw SocketError("test: nothing to accept");
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
  std::lock_guard<std::mutex> lock(mutex_);
  lines_.push_back(levelName(level) + message);
  return true;
}

std::vector<std::string> LogRecorder::lines() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return lines_;
}

bool LogRecorder::contains(const std::string& line) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return std::find(lines_.begin(), lines_.end(), line) != lines_.end();
}

}  // namespace ns::net::testing
