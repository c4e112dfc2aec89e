// TLS over a connected Socket, in the client role (forwarders) or the server role (listeners).
//
// One interface for every platform; each build links one implementation. When the settings
// leave TLS disabled, read() and write() pass straight through to the Socket, so callers can
// use one code path; handshake() and shutdown() then do nothing. Failures throw TlsError;
// socket failures pass through as SocketError, except inside handshake(), where every failure
// becomes "TLS handshake failed: " and the first message.
//
// Ownership: the Socket is borrowed and must outlive the TlsSocket; the session, credentials and
// certificates are owned and freed on destruction. Not thread-safe: one worker thread uses it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "base/error.h"
#include "net/net_settings.h"
#include "net/socket.h"

namespace vantrelo::net::tls {

NS_DEFINE_ERROR(TlsError);

class TlsSocket {
 public:
  TlsSocket(const std::string& name, const TlsSettings& settings, Socket& socket);
  TlsSocket(uint32_t id, const TlsSettings& settings, Socket& socket);
  ~TlsSocket();
  TlsSocket(const TlsSocket&) = delete;
  TlsSocket& operator=(const TlsSocket&) = delete;

  bool enabled() const { return settings_.enabled; }
  // Runs the client or server handshake; a previous session is shut down first.
  void handshake();
  // Encrypts and sends all `length` bytes.
  void write(const void* bytes, uint32_t length);
  // Waits for at least one plaintext byte and returns up to `length` of them.
  uint32_t read(void* buffer, uint32_t length);
  // True when bytes already taken from the socket wait to be read, so that a caller which
  // waits on the socket before reading would wait for nothing.
  bool hasBufferedData() const;
  // Sends the close alert when a handshake had completed; never throws.
  void shutdown();

  // The platform's session state; opaque outside the implementation file.
  struct Session;

 private:
  std::string prefix() const { return "TlsSocket[" + name_ + "]: "; }

  std::string name_;
  TlsSettings settings_;
  Socket& socket_;
  std::unique_ptr<Session> session_;
};

}  // namespace vantrelo::net::tls
