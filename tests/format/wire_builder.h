// Builds DNS wire messages and dnstap records for the format tests.
#pragma once

#include <algorithm>
#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "encoding/dnstap_message.h"
#include "encoding/ip.h"

namespace vantrelo::format::testing {

class Wire {
 public:
  Wire& u8(uint8_t v) { return raw(std::string(1, static_cast<char>(v))); }
  Wire& u16(uint16_t v) { return u8(v >> 8).u8(v & 0xFF); }
  Wire& raw(const std::string& data) {
    bytes_ += data;
    return *this;
  }
  Wire& header(uint16_t id, uint16_t flags, uint16_t qd, uint16_t an, uint16_t ns, uint16_t ar) {
    return u16(id).u16(flags).u16(qd).u16(an).u16(ns).u16(ar);
  }
  // A name from dot-separated labels (a label may hold any byte but '.'), root-terminated.
  Wire& name(const std::string& dotted) {
    for (size_t start = 0, end = 0; start < dotted.size(); start = end + 1) {
      end = std::min(dotted.find('.', start), dotted.size());
      u8(static_cast<uint8_t>(end - start)).raw(dotted.substr(start, end - start));
    }
    return u8(0);
  }
  // Record fields after the owner name.
  Wire& rr(uint16_t type, uint16_t klass, uint32_t ttl, const std::string& rdata) {
    u16(type).u16(klass).u16(ttl >> 16).u16(ttl & 0xFFFF).u16(static_cast<uint16_t>(rdata.size()));
    return raw(rdata);
  }
  const std::string& bytes() const { return bytes_; }

 private:
  std::string bytes_;
};

inline std::string ipBytes(const std::string& text) {
  std::string out;
  if (!text.empty()) encoding::ip::parseIp(out, text.data(), text.size());
  return out;
}

constexpr uint64_t kSec = 1709622542;  // 2024-03-05 07:09:02 UTC
constexpr uint32_t kNsec = 5000;

// A record whose query and response times are both set, with `wire` as the message of its
// direction (query message for odd types, response message for even types).
inline encoding::dnstap::DnstapMessage makeRecord(uint64_t type, uint64_t family, uint64_t protocol,
                                                  const std::string& client,
                                                  const std::string& server, uint64_t port,
                                                  const std::string& wire, uint64_t sec = kSec,
                                                  uint32_t nsec = kNsec) {
  encoding::dnstap::DnstapMessage r;
  r.type = type;
  r.socket_family = family;
  r.socket_protocol = protocol;
  r.query_address = ipBytes(client);
  r.response_address = ipBytes(server);
  r.query_port = port;
  r.response_port = 53;
  r.query_time_sec = r.response_time_sec = sec;
  r.query_time_nsec = r.response_time_nsec = nsec;
  ((type & 1) != 0 ? r.query_message : r.response_message) = wire;
  return r;
}

// Every JSON text the tests produce, each ending in a line feed, goes to a file for the strict
// parser that ctest runs after format_test.
std::ostream& jsonLines();

}  // namespace vantrelo::format::testing
