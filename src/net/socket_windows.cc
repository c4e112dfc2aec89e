// Winsock system layer of Socket. Waits use select(), which on Windows takes a set of handles
// rather than a bit map, so any handle value fits. Unix-domain sockets exist since Windows 10
// 1803; their address layout is defined here because not every SDK ships afunix.h.
#include <windows.h>
#include <winsock2.h>
#include <ws2tcpip.h>

#include <algorithm>
#include <cstring>

#include "base/error.h"
#include "net/socket_addresses.h"
#include "net/socket_platform.h"

namespace vantrelo::net::sys {

namespace {

constexpr long kPassSeconds = 1;
constexpr int kUnixFamily = 1;                 // AF_UNIX
constexpr DWORD kUnixReparseTag = 0x80000023;  // IO_REPARSE_TAG_AF_UNIX

struct UnixSocketAddress {
  ADDRESS_FAMILY sun_family;
  char sun_path[108];
};

// Indexed by AddressFamily.
constexpr int kNativeFamilies[] = {AF_INET, AF_INET6, kUnixFamily};

int nativeFamily(AddressFamily family) { return kNativeFamilies[static_cast<int>(family)]; }

SOCKET sock(uintptr_t handle) { return static_cast<SOCKET>(handle); }

const sockaddr* asSockaddr(const SocketAddress& address) {
  return reinterpret_cast<const sockaddr*>(address.bytes);
}

static_assert(sizeof(SocketAddress::bytes) >= sizeof(sockaddr_storage));
static_assert(sizeof(SocketAddress::bytes) >= sizeof(UnixSocketAddress));

}  // namespace

const uintptr_t kInvalidHandle = static_cast<uintptr_t>(INVALID_SOCKET);

int startup() {
  WSADATA data;
  return ::WSAStartup(MAKEWORD(2, 2), &data);
}

int lastError() { return WSAGetLastError(); }

std::string errorText(int code) { return error::systemErrorText(static_cast<uint32_t>(code)); }

bool wouldBlock(int code) { return code == WSAEWOULDBLOCK || code == WSAEINPROGRESS; }

uintptr_t openSocket(AddressFamily family) {
  int protocol = family == AddressFamily::kUnix ? 0 : IPPROTO_TCP;
  return static_cast<uintptr_t>(::socket(nativeFamily(family), SOCK_STREAM, protocol));
}

void closeSocket(uintptr_t handle) {
  ::shutdown(sock(handle), SD_BOTH);
  ::closesocket(sock(handle));
}

int setNonBlocking(uintptr_t handle) {
  u_long one = 1;
  return ::ioctlsocket(sock(handle), FIONBIO, &one) == SOCKET_ERROR ? -1 : 0;
}

int setBufferSize(uintptr_t handle, bool send, uint32_t size) {
  int value = static_cast<int>(size);
  return ::setsockopt(sock(handle), SOL_SOCKET, send ? SO_SNDBUF : SO_RCVBUF,
                      reinterpret_cast<const char*>(&value), sizeof value) == SOCKET_ERROR
             ? -1
             : 0;
}

void setReuseAddress(uintptr_t handle) {
  // Winsock's SO_REUSEADDR lets a second process bind the same port and take its connections
  // (a console "run" beside the service). The exclusive option refuses that second bind, and a
  // restarted agent still binds at once, as lingering connections of the old one never block it.
  int one = 1;
  ::setsockopt(sock(handle), SOL_SOCKET, SO_EXCLUSIVEADDRUSE, reinterpret_cast<const char*>(&one),
               sizeof one);
}

bool makeIpAddress(SocketAddress& out, bool ipv6, const std::string& host, uint16_t port) {
  out = SocketAddress();
  if (ipv6) {
    auto* address = reinterpret_cast<sockaddr_in6*>(out.bytes);
    address->sin6_family = AF_INET6;
    address->sin6_port = htons(port);
    if (::inet_pton(AF_INET6, host.c_str(), &address->sin6_addr) != 1) {
      ::WSASetLastError(WSAEINVAL);  // inet_pton reports "not an address" without an error code
      return false;
    }
    out.length = sizeof(sockaddr_in6);
    out.family = AddressFamily::kIpv6;
  } else {
    auto* address = reinterpret_cast<sockaddr_in*>(out.bytes);
    address->sin_family = AF_INET;
    address->sin_port = htons(port);
    if (::inet_pton(AF_INET, host.c_str(), &address->sin_addr) != 1) {
      ::WSASetLastError(WSAEINVAL);
      return false;
    }
    out.length = sizeof(sockaddr_in);
    out.family = AddressFamily::kIpv4;
  }
  return true;
}

bool makeUnixAddress(SocketAddress& out, const std::string& path) {
  out = SocketAddress();
  auto* address = reinterpret_cast<UnixSocketAddress*>(out.bytes);
  if (path.empty() || path.size() >= sizeof address->sun_path) return false;
  address->sun_family = kUnixFamily;
  std::memcpy(address->sun_path, path.data(), path.size());
  out.length = sizeof(UnixSocketAddress);
  out.family = AddressFamily::kUnix;
  return true;
}

int resolve(std::vector<SocketAddress>& out, const std::string& host, uint16_t port, bool ipv6,
            std::string& errorText) {
  const addrinfo hints = streamHints(ipv6);
  addrinfo* list = nullptr;
  int result = ::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &list);
  if (result != 0) {
    errorText = error::systemErrorText(static_cast<uint32_t>(result));
    return result;
  }
  collectAddresses(list, ipv6, port, out);
  ::freeaddrinfo(list);
  return 0;
}

std::string addressText(const SocketAddress& address) { return numericText(address); }

int connect(uintptr_t handle, const SocketAddress& address) {
  return ::connect(sock(handle), asSockaddr(address), static_cast<int>(address.length)) ==
                 SOCKET_ERROR
             ? -1
             : 0;
}

int bind(uintptr_t handle, const SocketAddress& address) {
  return ::bind(sock(handle), asSockaddr(address), static_cast<int>(address.length)) == SOCKET_ERROR
             ? -1
             : 0;
}

int listen(uintptr_t handle, uint32_t backlog) {
  return ::listen(sock(handle), static_cast<int>(backlog)) == SOCKET_ERROR ? -1 : 0;
}

uintptr_t accept(uintptr_t handle) {
  return static_cast<uintptr_t>(::accept(sock(handle), nullptr, nullptr));
}

int pendingError(uintptr_t handle, int& error) {
  int length = sizeof error;
  return ::getsockopt(sock(handle), SOL_SOCKET, SO_ERROR, reinterpret_cast<char*>(&error),
                      &length) == SOCKET_ERROR
             ? -1
             : 0;
}

int waitOnce(uintptr_t handle, bool forRead) {
  fd_set set;
  FD_ZERO(&set);
  FD_SET(sock(handle), &set);
  timeval timeout{kPassSeconds, 0};
  // A failed non-blocking connect is reported in the except set, not the write set; watch it
  // too so that a refused connection ends the wait at once and SO_ERROR tells why.
  fd_set failed;
  FD_ZERO(&failed);
  FD_SET(sock(handle), &failed);
  return ::select(0, forRead ? &set : nullptr, forRead ? nullptr : &set,
                  forRead ? nullptr : &failed, &timeout);
}

long recv(uintptr_t handle, void* buffer, size_t size) {
  int chunk = size > 0x7fffffff ? 0x7fffffff : static_cast<int>(size);
  int result = ::recv(sock(handle), static_cast<char*>(buffer), chunk, 0);
  return result == SOCKET_ERROR ? -1 : result;
}

long send(uintptr_t handle, const void* buffer, size_t size) {
  int chunk = size > 0x7fffffff ? 0x7fffffff : static_cast<int>(size);
  int result = ::send(sock(handle), static_cast<const char*>(buffer), chunk, 0);
  return result == SOCKET_ERROR ? -1 : result;
}

size_t bytesAvailable(uintptr_t handle) {
  u_long count = 0;
  if (::ioctlsocket(sock(handle), FIONREAD, &count) == SOCKET_ERROR) return 0;
  return static_cast<size_t>(count);
}

namespace {

// SIO_TCP_INFO and its version 0 answer (Windows 10 1703 and later), as the system headers
// declare them only for builds that require such a release.
constexpr DWORD kSioTcpInfo = _WSAIORW(IOC_VENDOR, 39);
struct TcpInfoV0 {
  int state;
  ULONG mss;
  ULONG64 connectionTimeMs;
  BOOLEAN timestampsEnabled;
  ULONG rttUs;
  ULONG minRttUs;
  ULONG bytesInFlight;
  ULONG cwnd;
  ULONG sndWnd;
  ULONG rcvWnd;
  ULONG rcvBuf;
  ULONG64 bytesOut;
  ULONG64 bytesIn;
  ULONG bytesReordered;
  ULONG bytesRetrans;
  ULONG fastRetrans;
  ULONG dupAcksIn;
  ULONG timeoutEpisodes;
  UCHAR synRetrans;
};

}  // namespace

int64_t unacknowledgedBytes(uintptr_t handle, uint64_t written) {
  DWORD version = 0;
  TcpInfoV0 info{};
  DWORD returned = 0;
  if (::WSAIoctl(sock(handle), kSioTcpInfo, &version, sizeof version, &info, sizeof info, &returned,
                 nullptr, nullptr) == SOCKET_ERROR ||
      returned < sizeof info) {
    return -1;  // older releases do not know the request
  }
  // Transmitted minus in flight is what the peer acknowledged; the rest of what was written
  // still waits in the send buffer or on the wire. Retransmissions are taken off in case the
  // total counts them: an estimate too low only keeps a batch longer.
  const uint64_t sent = info.bytesOut - std::min<uint64_t>(info.bytesOut, info.bytesRetrans);
  const uint64_t acknowledged = sent - std::min<uint64_t>(sent, info.bytesInFlight);
  return acknowledged >= written ? 0 : static_cast<int64_t>(written - acknowledged);
}

const char* peer(uintptr_t handle, bool unix, PeerAddress& out, int& error) {
  sockaddr_storage storage{};
  int length = sizeof storage;
  if (::getpeername(sock(handle), reinterpret_cast<sockaddr*>(&storage), &length) == SOCKET_ERROR) {
    error = WSAGetLastError();
    return "getpeername";
  }
  if (unix || storage.ss_family == kUnixFamily) {
    // Windows has no peer credentials for Unix-domain sockets; uid, gid and pid stay 0.
    out.unix = true;
    return nullptr;
  }
  char host[1025];
  if (::getnameinfo(reinterpret_cast<sockaddr*>(&storage), length, host, sizeof host, nullptr, 0,
                    NI_NUMERICHOST) != 0) {
    error = WSAGetLastError();
    return "getnameinfo";
  }
  setIpPeer(out, storage, host);
  return nullptr;
}

uint16_t localPort(uintptr_t handle) {
  sockaddr_storage storage{};
  int length = sizeof storage;
  if (::getsockname(sock(handle), reinterpret_cast<sockaddr*>(&storage), &length) == SOCKET_ERROR) {
    return 0;
  }
  return ntohs(storedPort(storage));
}

void removeSocketFile(const std::string& path) {
  // A Unix-domain socket file is a reparse point with its own tag; other files stay.
  WIN32_FIND_DATAA data;
  HANDLE find = ::FindFirstFileA(path.c_str(), &data);
  if (find == INVALID_HANDLE_VALUE) return;
  ::FindClose(find);
  if ((data.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0 &&
      data.dwReserved0 == kUnixReparseTag) {
    ::DeleteFileA(path.c_str());
  }
}

}  // namespace vantrelo::net::sys
