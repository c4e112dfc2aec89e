// Helpers shared by the networking tests: loopback connection pairs and a log recorder.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "encoding/log.h"
#include "net/socket.h"

namespace ns::net::testing {

// Settings for a TCP socket on 127.0.0.1 with short time-outs.
SocketSettings loopbackSettings(uint16_t port = 0);

// A listening socket on an ephemeral loopback port with one connected client and the accepted
// server side.
struct LoopbackPair {
  explicit LoopbackPair(const SocketSettings& settings = loopbackSettings());
  std::unique_ptr<Socket> listener;
  std::unique_ptr<Socket> client;
  std::unique_ptr<Socket> server;
};

// Waits up to a few seconds for a pending connection and accepts it.
std::unique_ptr<Socket> acceptOne(Socket& listener);

// Records every log line while it is installed.
class LogRecorder : public log::SystemLog {
 public:
  LogRecorder() { log::setSystemLog(this); }
  ~LogRecorder() override { log::setSystemLog(nullptr); }
  bool write(log::Level level, const std::string& message) override;
  std::vector<std::string> lines() const;
  bool contains(const std::string& line) const;

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

}  // namespace ns::net::testing
