// Helpers shared by the networking tests: loopback connections, a log recorder and, on POSIX,
// child processes for the command-line peers.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "base/log.h"
#include "net/socket.h"

namespace vantrelo::net::testing {

// Settings for a TCP socket on 127.0.0.1 with short time-outs.
SocketSettings loopbackSettings(uint16_t port = 0, uint32_t timeout = 2);
// A loopback port nobody listens on: that of a listener just closed.
uint16_t unusedPort();
// Waits up to a few seconds for a pending connection and accepts it.
std::unique_ptr<Socket> acceptOne(Socket& listener);
// Connects to a peer that may still be starting, retrying for about five seconds.
void connectWithRetry(Socket& socket);
// The text of what `action` throws, or "(no error)".
std::string errorOf(const std::function<void()>& action);
// A 32-bit big-endian number, as Frame Streams lengths travel.
std::string be32(uint32_t value);

// A listener on an ephemeral loopback port (or at the Unix path), a connected client and the
// accepted server side.
struct LoopbackPair {
  explicit LoopbackPair(const SocketSettings& settings = loopbackSettings());
  std::unique_ptr<Socket> listener, client, server;
};

// Records every log line, prefixed "E ", "W " or "I ", while it is installed.
class LogRecorder : public log::SystemLog {
 public:
  LogRecorder() { log::setSystemLog(this); }
  ~LogRecorder() override { log::setSystemLog(nullptr); }
  bool write(log::Level level, const std::string& message) override;
  // Whether some line starts with `prefix`.
  bool contains(const std::string& prefix) const;
  // A copy of every line so far.
  std::vector<std::string> lines() const;

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

#ifndef _WIN32
// A fresh directory under /tmp.
std::string makeTempDirectory(const std::string& tag);
#endif
// The whole file; empty when it cannot be read.
std::string readFile(const std::string& path);

}  // namespace vantrelo::net::testing
