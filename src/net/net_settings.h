// Settings records of the three stream layers, filled by the listener and forwarder option
// parsers and copied by every socket, TLS session and Frame Streams stream. Plain values.
#pragma once

#include <cstdint>
#include <string>

namespace vantrelo::net {

struct SocketSettings {
  bool unix = true;  // a Unix-domain socket at `path` rather than TCP at host:port
  bool ipv6 = false;
  std::string path = "/run/morskel/vantrelo/dnstap.sock";
  std::string host = "127.0.0.1";
  uint16_t port = 514;
  uint32_t connectTimeout = 3;  // seconds, like all time-outs
  uint32_t readTimeout = 5;
  uint32_t writeTimeout = 5;
  uint32_t listenBacklog = 128;
  uint32_t maxConnections = 1000;
  uint32_t keepalive = 20;
  uint32_t sendBufferSize = 0;  // 0 leaves the system's size
  uint32_t recvBufferSize = 0;
};

// The connected peer of a socket. `port` is kept in network byte order, as the socket address
// holds it; uid, gid and pid are those of a Unix-domain peer.
struct PeerAddress {
  bool unix = false;
  bool ipv6 = false;
  std::string path;
  std::string host;
  uint16_t port = 0;
  uint32_t uid = 0;
  uint32_t gid = 0;
  uint32_t pid = 0;
};

}  // namespace vantrelo::net

namespace vantrelo::net::fstrm {

struct FstrmSettings {
  bool bidirectional = true;
  uint32_t controlFrameMaxSize = 65536;
  uint32_t dataFrameMaxSize = 262144;
};

}  // namespace vantrelo::net::fstrm

namespace vantrelo::net::tls {

struct TlsSettings {
  bool server_role = false;
  bool enabled = false;
  bool validate = true;
  std::string server_name = "127.0.0.1";
  bool client_certificate = false;
  bool client_certificate_auto = false;
  std::string store;
  std::string subject;
  std::string thumbprint;  // when not empty, used instead of the subject
};

}  // namespace vantrelo::net::tls
