// The thin system layer under Socket: one implementation per platform (socket_posix.cc,
// socket_windows.cc). Functions return the system's result codes and never throw; Socket turns
// failures into messages, so every message text lives in one place. Stateless and thread-safe.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "net/net_settings.h"

namespace vantrelo::net {

enum class AddressFamily { kIpv4, kIpv6, kUnix };

// A socket address of any family in opaque storage (large enough for sockaddr_storage and
// sockaddr_un on every platform).
struct SocketAddress {
  alignas(8) unsigned char bytes[128] = {};
  uint32_t length = 0;
  AddressFamily family = AddressFamily::kIpv4;
};

}  // namespace vantrelo::net

namespace vantrelo::net::sys {

extern const uintptr_t kInvalidHandle;

// 0 or the error code of the library start.
int startup();

// The calling thread's last socket error (errno or WSAGetLastError()).
int lastError();
std::string errorText(int code);
// Whether a failed non-blocking call only needs a wait (EWOULDBLOCK, EINPROGRESS...).
bool wouldBlock(int code);

// Returns kInvalidHandle on failure.
uintptr_t openSocket(AddressFamily family);
void closeSocket(uintptr_t handle);
int setNonBlocking(uintptr_t handle);
int setBufferSize(uintptr_t handle, bool send, uint32_t size);
void setReuseAddress(uintptr_t handle);

// False when `host` is not an address literal of the family.
bool makeIpAddress(SocketAddress& out, bool ipv6, const std::string& host, uint16_t port);
// False when the path does not fit a Unix-domain address.
bool makeUnixAddress(SocketAddress& out, const std::string& path);
// Resolves `host` to the addresses of the wanted family, in the resolver's order. Returns 0 or
// the resolver's code, with its message text in `errorText`.
int resolve(std::vector<SocketAddress>& out, const std::string& host, uint16_t port, bool ipv6,
            std::string& errorText);
// Numeric text of an IP address, without the port.
std::string addressText(const SocketAddress& address);

int connect(uintptr_t handle, const SocketAddress& address);
int bind(uintptr_t handle, const SocketAddress& address);
int listen(uintptr_t handle, uint32_t backlog);
// Returns kInvalidHandle on failure.
uintptr_t accept(uintptr_t handle);
// The pending error of a connecting socket in `error`; returns -1 when the query failed.
int pendingError(uintptr_t handle, int& error);

// One one-second wait for readability or writability: -1 failed, 0 nothing, >0 ready.
int waitOnce(uintptr_t handle, bool forRead);
// -1 failed, 0 orderly close, else the count.
long recv(uintptr_t handle, void* buffer, size_t size);
long send(uintptr_t handle, const void* buffer, size_t size);
size_t bytesAvailable(uintptr_t handle);
// Of the `written` bytes sent on a connected stream socket since it connected, those that the
// peer has not acknowledged yet (still queued or in flight); -1 when the system cannot tell.
int64_t unacknowledgedBytes(uintptr_t handle, uint64_t written);

// Fills the peer address; returns the name of the failed call ("getpeername", "getnameinfo") or
// nullptr on success, with the error code in `error`.
const char* peer(uintptr_t handle, bool unix, PeerAddress& out, int& error);
uint16_t localPort(uintptr_t handle);

// Removes `path` when it is a socket file (a stale one from an earlier run); anything else is
// left alone so that a wrong path never deletes a user's file.
void removeSocketFile(const std::string& path);

}  // namespace vantrelo::net::sys
