// Builds DNS wire messages and dnstap records for the format tests.
#pragma once

#include <cstdint>
#include <string>

#include "encoding/dnstap_message.h"
#include "encoding/ip.h"

namespace ns::format::testing {

class Wire {
 public:
  Wire& u8(uint8_t v) {
    bytes_.push_back(static_cast<char>(v));
    return *this;
  }
  Wire& u16(uint16_t v) { return u8(v >> 8).u8(v & 0xFF); }
  Wire& u32(uint32_t v) { return u16(v >> 16).u16(v & 0xFFFF); }
  Wire& raw(const std::string& data) {
    bytes_ += data;
    return *this;
  }
  Wire& header(uint16_t id, uint16_t flags, uint16_t qd, uint16_t an, uint16_t ns, uint16_t ar) {
    return u16(id).u16(flags).u16(qd).u16(an).u16(ns).u16(ar);
  }
  // A name from dot-separated labels (a label may hold any byte but '.'), root-terminated.
  Wire& name(const std::string& dotted) {
    size_t start = 0;
    while (start < dotted.size()) {
      size_t end = dotted.find('.', start);
      if (end == std::string::npos) end = dotted.size();
      u8(static_cast<uint8_t>(end - start)).raw(dotted.substr(start, end - start));
      start = end + 1;
    }
    return u8(0);
  }
  Wire& pointer(uint16_t offset) { return u16(0xC000 | offset); }
  Wire& question(const std::string& qname, uint16_t type, uint16_t klass) {
    return name(qname).u16(type).u16(klass);
  }
  // Record fields after the owner name.
  Wire& rr(uint16_t type, uint16_t klass, uint32_t ttl, const std::string& rdata) {
    return u16(type).u16(klass).u32(ttl).u16(static_cast<uint16_t>(rdata.size())).raw(rdata);
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

inline std::string nameBytes(const std::string& dotted) { return Wire().name(dotted).bytes(); }

// A record whose query and response times are both set, with `wire` as the message of its
// direction (query message for odd types, response message for even types).
inline encoding::dnstap::DnstapMessage makeRecord(uint64_t type, uint64_t family, uint64_t protocol,
                                                  const std::string& client,
                                                  const std::string& server, uint64_t port,
                                                  const std::string& wire, uint64_t sec,
                                                  uint32_t nsec) {
  encoding::dnstap::DnstapMessage record;
  record.type = type;
  record.socket_family = family;
  record.socket_protocol = protocol;
  record.query_address = ipBytes(client);
  record.response_address = ipBytes(server);
  record.query_port = port;
  record.response_port = 53;
  record.query_time_sec = sec;
  record.query_time_nsec = nsec;
  record.response_time_sec = sec;
  record.response_time_nsec = nsec;
  ((type & 1) != 0 ? record.query_message : record.response_message) = wire;
  return record;
}

}  // namespace ns::format::testing
