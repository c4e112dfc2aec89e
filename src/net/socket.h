// Non-blocking stream sockets with time-outs counted in whole seconds.
//
// A Socket is either a listening socket or a connected one, over TCP (IPv4 or IPv6) or, when
// settings.unix is set, over a Unix-domain socket at settings.path. Every wait is a series of
// one-second passes, so a time-out of N seconds may overrun by the length of one pass, and a
// time-out of 0 counts as already expired. Every failure throws SocketError naming the failed
// call and the system's message text.
//
// Ownership: a Socket owns its handle and closes it on destruction; accept() hands the caller a
// new heap Socket that the caller owns. A listening Unix-domain socket also owns its socket file
// and removes it on close(). Not thread-safe: one worker thread uses a Socket at a time.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "base/error.h"
#include "net/net_settings.h"

namespace vantrelo::net {

NS_DEFINE_ERROR(SocketError);

// The text of the SocketError that a wait throws once its owner has asked to stop.
inline constexpr char kStopRequested[] = "Stop requested";

// When a stop request ends a socket's waits: kAtOnce at the next wait, whatever the peer does
// (a receiver, which owes its sender nothing); kWhenBlocked only after a pass that found the
// socket not ready, so an orderly close with a responsive peer still completes (a forwarder).
enum class StopMode { kAtOnce, kWhenBlocked };

struct SocketAddress;

// Starts the system's socket library (Winsock 2.2 on Windows; nothing elsewhere). Call once
// before the first Socket is made; throws SocketError when the library cannot start.
void startNetworking();

class Socket {
 public:
  Socket(uint32_t id, const SocketSettings& settings);
  ~Socket();
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  uint32_t id() const { return id_; }
  uint32_t readTimeout() const { return settings_.readTimeout; }
  const SocketSettings& settings() const { return settings_; }
  bool isOpen() const;

  // Makes every wait (and so every connect, recv and send, also those of the TLS and Frame
  // Streams layers above) throw SocketError kStopRequested once *flag is set, within one pass.
  // The flag is borrowed and must outlive the socket's use; null turns this off.
  void stopOn(const std::atomic<bool>* flag, StopMode mode) {
    stop_ = flag;
    stopMode_ = mode;
  }

  // Opens and connects a client socket; does nothing when already open. A host that is an
  // address literal is tried alone and its failure thrown; a name is resolved and every address
  // of the wanted family is tried in turn, each failure logged as a warning.
  void connect();
  // Opens, binds and listens; does nothing when already open. TCP listeners need an address
  // literal; Unix-domain listeners replace a stale socket file left by an earlier run.
  void listen();
  // One pending connection as a new Socket, or null when none is pending. Never waits.
  std::unique_ptr<Socket> accept();
  // Reads at least 1 and at most `size` bytes, waiting up to readTimeout seconds.
  size_t recv(void* buffer, size_t size);
  // Writes all `size` bytes, waiting up to writeTimeout seconds before every system write.
  void send(const void* buffer, size_t size);
  // True when `seconds` one-second passes ran out; false once the socket is readable
  // (forRead) or writable.
  bool wait(bool forRead, uint32_t seconds);
  // Bytes that can be read without blocking; 0 when closed or when the query fails.
  size_t bytesAvailable() const;
  // Bytes handed to the system by send() since the socket connected (every layer's: TLS
  // records, Frame Streams framing), and how many of them the peer has not acknowledged yet;
  // -1 when the system cannot tell.
  uint64_t bytesWritten() const { return bytesWritten_; }
  int64_t unacknowledgedBytes() const;
  PeerAddress peer() const;
  // The local port in host byte order (useful after listening on port 0); 0 for Unix sockets.
  uint16_t localPort() const;
  // Shuts both directions down and closes; removes the socket file of a Unix-domain listener.
  // Safe to call any number of times.
  void close();

 private:
  Socket(uint32_t id, const SocketSettings& settings, uintptr_t handle);
  [[noreturn]] void fail(const char* call) const;
  [[noreturn]] void failParse() const;
  void applyOptions();
  void connectAddress(const SocketAddress& address);
  void connectUnix();
  void listenUnix();
  bool stopRequested() const { return stop_ != nullptr && stop_->load(); }

  uint32_t id_;
  SocketSettings settings_;
  uintptr_t handle_;
  uint32_t acceptCount_ = 0;
  bool ownsSocketFile_ = false;
  uint64_t bytesWritten_ = 0;
  const std::atomic<bool>* stop_ = nullptr;
  StopMode stopMode_ = StopMode::kAtOnce;
};

}  // namespace vantrelo::net
