// POSIX system layer of Socket. Waits use poll(), which, unlike select, has no limit on the
// descriptor's value.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#ifdef __linux__
#include <linux/sockios.h>
#endif

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/error.h"
#include "net/socket_addresses.h"
#include "net/socket_platform.h"

namespace vantrelo::net::sys {

namespace {

constexpr int kPassMilliseconds = 1000;

// Indexed by AddressFamily.
constexpr int kNativeFamilies[] = {AF_INET, AF_INET6, AF_UNIX};

int nativeFamily(AddressFamily family) { return kNativeFamilies[static_cast<int>(family)]; }

int fd(uintptr_t handle) { return static_cast<int>(handle); }

const sockaddr* asSockaddr(const SocketAddress& address) {
  return reinterpret_cast<const sockaddr*>(address.bytes);
}

static_assert(sizeof(SocketAddress::bytes) >= sizeof(sockaddr_storage));
static_assert(sizeof(SocketAddress::bytes) >= sizeof(sockaddr_un));

}  // namespace

const uintptr_t kInvalidHandle = static_cast<uintptr_t>(-1);

int startup() { return 0; }

int lastError() { return errno; }

std::string errorText(int code) { return error::systemErrorText(static_cast<uint32_t>(code)); }

bool wouldBlock(int code) {
  return code == EWOULDBLOCK || code == EAGAIN || code == EINPROGRESS || code == EINTR;
}

uintptr_t openSocket(AddressFamily family) {
  int protocol = family == AddressFamily::kUnix ? 0 : IPPROTO_TCP;
  int result = ::socket(nativeFamily(family), SOCK_STREAM | SOCK_CLOEXEC, protocol);
  return result < 0 ? kInvalidHandle : static_cast<uintptr_t>(result);
}

void closeSocket(uintptr_t handle) {
  ::shutdown(fd(handle), SHUT_RDWR);
  ::close(fd(handle));
}

int setNonBlocking(uintptr_t handle) {
  int flags = ::fcntl(fd(handle), F_GETFL, 0);
  if (flags < 0) return -1;
  return ::fcntl(fd(handle), F_SETFL, flags | O_NONBLOCK) < 0 ? -1 : 0;
}

int setBufferSize(uintptr_t handle, bool send, uint32_t size) {
  int value = static_cast<int>(size);
  return ::setsockopt(fd(handle), SOL_SOCKET, send ? SO_SNDBUF : SO_RCVBUF, &value, sizeof value);
}

void setReuseAddress(uintptr_t handle) {
  int one = 1;
  ::setsockopt(fd(handle), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
}

bool makeIpAddress(SocketAddress& out, bool ipv6, const std::string& host, uint16_t port) {
  out = SocketAddress();
  if (ipv6) {
    auto* address = reinterpret_cast<sockaddr_in6*>(out.bytes);
    address->sin6_family = AF_INET6;
    address->sin6_port = htons(port);
    if (::inet_pton(AF_INET6, host.c_str(), &address->sin6_addr) != 1) {
      errno = EINVAL;  // inet_pton reports "not an address" without an error code
      return false;
    }
    out.length = sizeof(sockaddr_in6);
    out.family = AddressFamily::kIpv6;
  } else {
    auto* address = reinterpret_cast<sockaddr_in*>(out.bytes);
    address->sin_family = AF_INET;
    address->sin_port = htons(port);
    if (::inet_pton(AF_INET, host.c_str(), &address->sin_addr) != 1) {
      errno = EINVAL;
      return false;
    }
    out.length = sizeof(sockaddr_in);
    out.family = AddressFamily::kIpv4;
  }
  return true;
}

bool makeUnixAddress(SocketAddress& out, const std::string& path) {
  out = SocketAddress();
  auto* address = reinterpret_cast<sockaddr_un*>(out.bytes);
  if (path.empty() || path.size() >= sizeof address->sun_path) return false;
  address->sun_family = AF_UNIX;
  std::memcpy(address->sun_path, path.data(), path.size());
  out.length = static_cast<uint32_t>(offsetof(sockaddr_un, sun_path) + path.size() + 1);
  out.family = AddressFamily::kUnix;
  return true;
}

int resolve(std::vector<SocketAddress>& out, const std::string& host, uint16_t port, bool ipv6,
            std::string& errorText) {
  const addrinfo hints = streamHints(ipv6);
  addrinfo* list = nullptr;
  int result = ::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &list);
  if (result != 0) {
    errorText = result == EAI_SYSTEM ? error::systemErrorText(static_cast<uint32_t>(errno))
                                     : std::string(::gai_strerror(result));
    return result;
  }
  collectAddresses(list, ipv6, port, out);
  ::freeaddrinfo(list);
  return 0;
}

std::string addressText(const SocketAddress& address) { return numericText(address); }

int connect(uintptr_t handle, const SocketAddress& address) {
  return ::connect(fd(handle), asSockaddr(address), address.length);
}

int bind(uintptr_t handle, const SocketAddress& address) {
  return ::bind(fd(handle), asSockaddr(address), address.length);
}

int listen(uintptr_t handle, uint32_t backlog) {
  return ::listen(fd(handle), static_cast<int>(backlog));
}

uintptr_t accept(uintptr_t handle) {
  int result = ::accept4(fd(handle), nullptr, nullptr, SOCK_CLOEXEC);
  return result < 0 ? kInvalidHandle : static_cast<uintptr_t>(result);
}

int pendingError(uintptr_t handle, int& error) {
  socklen_t length = sizeof error;
  return ::getsockopt(fd(handle), SOL_SOCKET, SO_ERROR, &error, &length);
}

int waitOnce(uintptr_t handle, bool forRead) {
  pollfd entry{fd(handle), static_cast<short>(forRead ? POLLIN : POLLOUT), 0};
  int result = ::poll(&entry, 1, kPassMilliseconds);
  // A signal cut the pass short; count it as an empty pass rather than a failure.
  if (result < 0 && errno == EINTR) return 0;
  return result;
}

long recv(uintptr_t handle, void* buffer, size_t size) {
  return ::recv(fd(handle), buffer, size, 0);
}

long send(uintptr_t handle, const void* buffer, size_t size) {
  // A peer that went away must give an error, not a SIGPIPE that ends the agent.
  return ::send(fd(handle), buffer, size, MSG_NOSIGNAL);
}

size_t bytesAvailable(uintptr_t handle) {
  int count = 0;
  if (::ioctl(fd(handle), FIONREAD, &count) != 0 || count < 0) return 0;
  return static_cast<size_t>(count);
}

int64_t unacknowledgedBytes(uintptr_t handle, uint64_t written) {
#ifdef SIOCOUTQ
  // The bytes of the send queue: not yet sent, or sent and not yet acknowledged.
  int queued = 0;
  if (::ioctl(fd(handle), SIOCOUTQ, &queued) != 0 || queued < 0) return -1;
  return std::min<int64_t>(queued, static_cast<int64_t>(written));
#else
  (void)handle;
  (void)written;
  return -1;
#endif
}

const char* peer(uintptr_t handle, bool unix, PeerAddress& out, int& error) {
  sockaddr_storage storage{};
  socklen_t length = sizeof storage;
  if (::getpeername(fd(handle), reinterpret_cast<sockaddr*>(&storage), &length) != 0) {
    error = errno;
    return "getpeername";
  }
  if (unix || storage.ss_family == AF_UNIX) {
    out.unix = true;
#ifdef SO_PEERCRED
    ucred credentials{};
    socklen_t credentialsLength = sizeof credentials;
    if (::getsockopt(fd(handle), SOL_SOCKET, SO_PEERCRED, &credentials, &credentialsLength) != 0) {
      error = errno;
      return "getsockopt(SO_PEERCRED)";
    }
    out.uid = credentials.uid;
    out.gid = credentials.gid;
    out.pid = static_cast<uint32_t>(credentials.pid);
#endif
    return nullptr;
  }
  char host[1025];
  int result = ::getnameinfo(reinterpret_cast<sockaddr*>(&storage), length, host, sizeof host,
                             nullptr, 0, NI_NUMERICHOST);
  if (result != 0) {
    error = result == EAI_SYSTEM ? errno : EINVAL;
    return "getnameinfo";
  }
  setIpPeer(out, storage, host);
  return nullptr;
}

uint16_t localPort(uintptr_t handle) {
  sockaddr_storage storage{};
  socklen_t length = sizeof storage;
  if (::getsockname(fd(handle), reinterpret_cast<sockaddr*>(&storage), &length) != 0) return 0;
  return ntohs(storedPort(storage));
}

void removeSocketFile(const std::string& path) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode)) ::unlink(path.c_str());
}

}  // namespace vantrelo::net::sys
