// Address helpers that read the same on POSIX and Winsock, shared by socket_posix.cc and
// socket_windows.cc. Include after the platform's socket headers (netdb.h and arpa/inet.h, or
// winsock2.h and ws2tcpip.h), which declare addrinfo, sockaddr_in6 and inet_ntop on both.
#pragma once

#include <cstring>
#include <string>
#include <vector>

#include "net/net_settings.h"
#include "net/socket_platform.h"

namespace vantrelo::net::sys {

inline addrinfo streamHints(bool ipv6) {
  addrinfo hints{};
  hints.ai_flags = AI_NUMERICSERV;
  hints.ai_family = ipv6 ? AF_INET6 : AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_protocol = IPPROTO_TCP;
  return hints;
}

// Appends the entries of `list` of the wanted family, in the resolver's order, with `port` set.
inline void collectAddresses(const addrinfo* list, bool ipv6, uint16_t port,
                             std::vector<SocketAddress>& out) {
  const int family = ipv6 ? AF_INET6 : AF_INET;
  for (const addrinfo* entry = list; entry != nullptr; entry = entry->ai_next) {
    if (entry->ai_family != family || entry->ai_addrlen > sizeof(SocketAddress::bytes)) continue;
    SocketAddress address;
    std::memcpy(address.bytes, entry->ai_addr, entry->ai_addrlen);
    address.length = static_cast<uint32_t>(entry->ai_addrlen);
    address.family = ipv6 ? AddressFamily::kIpv6 : AddressFamily::kIpv4;
    if (ipv6) {
      reinterpret_cast<sockaddr_in6*>(address.bytes)->sin6_port = htons(port);
    } else {
      reinterpret_cast<sockaddr_in*>(address.bytes)->sin_port = htons(port);
    }
    out.push_back(address);
  }
}

// The numeric text of an IPv4 or IPv6 address.
inline std::string numericText(const SocketAddress& address) {
  char text[INET6_ADDRSTRLEN] = {};
  if (address.family == AddressFamily::kIpv6) {
    ::inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6*>(address.bytes)->sin6_addr, text,
                sizeof text);
  } else {
    ::inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(address.bytes)->sin_addr, text,
                sizeof text);
  }
  return text;
}

// The port of an IPv4 or IPv6 address as it is stored (network byte order); 0 for others.
inline uint16_t storedPort(const sockaddr_storage& storage) {
  if (storage.ss_family == AF_INET6) {
    return reinterpret_cast<const sockaddr_in6*>(&storage)->sin6_port;
  }
  if (storage.ss_family == AF_INET) return reinterpret_cast<const sockaddr_in*>(&storage)->sin_port;
  return 0;
}

// Fills the IP fields of a peer from its address and the address's numeric host text.
inline void setIpPeer(PeerAddress& out, const sockaddr_storage& storage, const char* host) {
  out.host = host;
  out.ipv6 = storage.ss_family == AF_INET6;
  // A link-local peer carries its scope ("%eth0"); the address text never does.
  if (out.ipv6) out.host = out.host.substr(0, out.host.find('%'));
  out.port = storedPort(storage);
}

}  // namespace vantrelo::net::sys
