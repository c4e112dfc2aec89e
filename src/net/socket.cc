#include "net/socket.h"

#include <string>
#include <vector>

#include "base/log.h"
#include "net/socket_platform.h"

namespace vantrelo::net {

namespace {

std::string prefix(uint32_t id) { return "Socket[" + std::to_string(id) + "]: "; }

bool isAddressLiteral(const std::string& host) {
  SocketAddress probe;
  return sys::makeIpAddress(probe, false, host, 0) || sys::makeIpAddress(probe, true, host, 0);
}

}  // namespace

void startNetworking() {
  if (int code = sys::startup(); code != 0) {
    throw SocketError("WSAStartup() failed: " + sys::errorText(code));
  }
}

Socket::Socket(uint32_t id, const SocketSettings& settings)
    : Socket(id, settings, sys::kInvalidHandle) {}

Socket::Socket(uint32_t id, const SocketSettings& settings, uintptr_t handle)
    : id_(id), settings_(settings), handle_(handle) {}

Socket::~Socket() { close(); }

bool Socket::isOpen() const { return handle_ != sys::kInvalidHandle; }

void Socket::fail(const char* call) const {
  throw SocketError(std::string(call) + "() failed: " + sys::errorText(sys::lastError()));
}

void Socket::failParse() const {
  throw SocketError(std::string(settings_.ipv6 ? "Parse IPv6 address" : "Parse IPv4 address") +
                    " failed: " + sys::errorText(sys::lastError()));
}

void Socket::applyOptions() {
  if (settings_.sendBufferSize != 0 &&
      sys::setBufferSize(handle_, true, settings_.sendBufferSize) != 0) {
    fail("setsockopt(SO_SNDBUF)");
  }
  if (settings_.recvBufferSize != 0 &&
      sys::setBufferSize(handle_, false, settings_.recvBufferSize) != 0) {
    fail("setsockopt(SO_RCVBUF)");
  }
  if (sys::setNonBlocking(handle_) != 0) fail("ioctlsocket(FIONBIO)");
}

bool Socket::wait(bool forRead, uint32_t seconds) {
  for (uint32_t pass = 0; pass < seconds; ++pass) {
    if (stopMode_ == StopMode::kAtOnce && stopRequested()) throw SocketError(kStopRequested);
    int result = sys::waitOnce(handle_, forRead);
    if (result < 0) fail("select");
    if (result > 0) return false;
    if (stopRequested()) throw SocketError(kStopRequested);
  }
  return true;
}

void Socket::connectAddress(const SocketAddress& address) {
  handle_ = sys::openSocket(address.family);
  if (handle_ == sys::kInvalidHandle) fail("socket");
  applyOptions();
  if (sys::connect(handle_, address) != 0) {
    int error = sys::lastError();
    if (!sys::wouldBlock(error)) throw SocketError("connect() failed: " + sys::errorText(error));
  }
  if (wait(false, settings_.connectTimeout)) {
    throw SocketError("connect() failed: wait() timed out");
  }
  int pending = 0;
  if (sys::pendingError(handle_, pending) != 0) fail("getsockopt(SO_ERROR)");
  if (pending != 0) throw SocketError("connect() failed: " + sys::errorText(pending));
}

void Socket::connect() {
  if (isOpen()) return;
  if (settings_.unix) {
    connectUnix();
    return;
  }
  const std::string& host = settings_.host;
  const std::string port = std::to_string(settings_.port);
  if (isAddressLiteral(host)) {
    SocketAddress address;
    if (!sys::makeIpAddress(address, settings_.ipv6, host, settings_.port)) {
      failParse();
    }
    connectAddress(address);
    log::info(prefix(id_) + "Connected to " + host + ":" + port);
    return;
  }
  std::vector<SocketAddress> addresses;
  std::string resolveError;
  if (sys::resolve(addresses, host, settings_.port, settings_.ipv6, resolveError) != 0) {
    throw SocketError("getaddrinfo(" + host + "/" + (settings_.ipv6 ? "AAAA" : "A") +
                      ") failed: " + resolveError);
  }
  for (const SocketAddress& address : addresses) {
    const std::string text = sys::addressText(address);
    try {
      connectAddress(address);
      log::info(prefix(id_) + "Connected to " + text);
      return;
    } catch (const std::exception& e) {
      close();
      log::warning(prefix(id_) + "Connect to " + text + ":" + port + " failed: " + e.what());
    }
  }
  throw SocketError("Failed to connect to any host");
}

void Socket::connectUnix() {
  SocketAddress address;
  if (!sys::makeUnixAddress(address, settings_.path)) {
    throw SocketError("Unix socket path '" + settings_.path + "' is too long");
  }
  connectAddress(address);
  log::info(prefix(id_) + "Connected to " + settings_.path);
}

void Socket::listen() {
  if (isOpen()) return;
  if (settings_.unix) {
    listenUnix();
    return;
  }
  SocketAddress address;
  if (!sys::makeIpAddress(address, settings_.ipv6, settings_.host, settings_.port)) {
    failParse();
  }
  handle_ = sys::openSocket(address.family);
  if (handle_ == sys::kInvalidHandle) fail("socket");
  if (sys::setNonBlocking(handle_) != 0) fail("ioctlsocket(FIONBIO)");
  sys::setReuseAddress(handle_);
  if (sys::bind(handle_, address) != 0) fail("bind");
  if (sys::listen(handle_, settings_.listenBacklog) != 0) fail("listen");
  log::info(prefix(id_) + "Listening on " + settings_.host + ":" + std::to_string(settings_.port));
}

void Socket::listenUnix() {
  SocketAddress address;
  if (!sys::makeUnixAddress(address, settings_.path)) {
    throw SocketError("Unix socket path '" + settings_.path + "' is too long");
  }
  handle_ = sys::openSocket(AddressFamily::kUnix);
  if (handle_ == sys::kInvalidHandle) fail("socket");
  if (sys::setNonBlocking(handle_) != 0) fail("ioctlsocket(FIONBIO)");
  // A socket file left by a process that did not close cleanly would make bind fail.
  sys::removeSocketFile(settings_.path);
  if (sys::bind(handle_, address) != 0) fail("bind");
  ownsSocketFile_ = true;
  if (sys::listen(handle_, settings_.listenBacklog) != 0) fail("listen");
  log::info(prefix(id_) + "Listening on " + settings_.path);
}

std::unique_ptr<Socket> Socket::accept() {
  uintptr_t handle = sys::accept(handle_);
  if (handle == sys::kInvalidHandle) {
    int error = sys::lastError();
    if (sys::wouldBlock(error)) return nullptr;
    throw SocketError("accept() failed: " + sys::errorText(error));
  }
  std::unique_ptr<Socket> accepted(new Socket(acceptCount_++, settings_, handle));
  accepted->applyOptions();
  return accepted;
}

size_t Socket::recv(void* buffer, size_t size) {
  if (wait(true, settings_.readTimeout)) throw SocketError("recv() failed: wait() timed out");
  long count = sys::recv(handle_, buffer, size);
  if (count < 0) fail("recv");
  if (count == 0) throw SocketError("recv() failed: socket closed");
  return static_cast<size_t>(count);
}

void Socket::send(const void* buffer, size_t size) {
  const char* next = static_cast<const char*>(buffer);
  while (size > 0) {
    if (wait(false, settings_.writeTimeout)) throw SocketError("send() failed: wait() timed out");
    long count = sys::send(handle_, next, size);
    if (count < 0) {
      int error = sys::lastError();
      // A wait that reported writability can still meet a full buffer; wait again.
      if (sys::wouldBlock(error)) continue;
      throw SocketError("send() failed: " + sys::errorText(error));
    }
    if (count == 0) throw SocketError("send() failed: socket closed");
    next += count;
    size -= static_cast<size_t>(count);
    bytesWritten_ += static_cast<uint64_t>(count);
  }
}

size_t Socket::bytesAvailable() const { return isOpen() ? sys::bytesAvailable(handle_) : 0; }

int64_t Socket::unacknowledgedBytes() const {
  return isOpen() ? sys::unacknowledgedBytes(handle_, bytesWritten_) : -1;
}

PeerAddress Socket::peer() const {
  PeerAddress result;
  int error = 0;
  if (const char* call = sys::peer(handle_, settings_.unix, result, error)) {
    throw SocketError(std::string(call) + "() failed: " + sys::errorText(error));
  }
  return result;
}

uint16_t Socket::localPort() const { return isOpen() ? sys::localPort(handle_) : 0; }

void Socket::close() {
  if (!isOpen()) return;
  sys::closeSocket(handle_);
  handle_ = sys::kInvalidHandle;
  bytesWritten_ = 0;
  if (ownsSocketFile_) {
    sys::removeSocketFile(settings_.path);
    ownsSocketFile_ = false;
  }
}

}  // namespace vantrelo::net
