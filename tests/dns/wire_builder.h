// Builds DNS wire messages for the tests: a header with one question for "a.b." (at offset 12,
// so 0xC0 0x0C points to it), then records of class IN and TTL 3600 appended one by one.
#pragma once

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "dns/dns_message.h"

namespace vantrelo::net::dns::testing {

using Bytes = std::vector<uint8_t>;

inline Bytes cat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes& part : parts) out.insert(out.end(), part.begin(), part.end());
  return out;
}

inline Bytes be16(size_t value) { return {uint8_t(value >> 8), uint8_t(value)}; }

// "example.com" -> 07 example 03 com 00; "" gives the root.
inline Bytes wire_name(const std::string& dotted) {
  Bytes out;
  for (size_t start = 0, dot = 0; start < dotted.size(); start = dot + 1) {
    dot = std::min(dotted.find('.', start), dotted.size());
    out.push_back(static_cast<uint8_t>(dot - start));
    out.insert(out.end(), dotted.begin() + start, dotted.begin() + dot);
  }
  out.push_back(0);
  return out;
}

class WireBuilder {
 public:
  explicit WireBuilder(uint16_t ancount = 0, uint16_t nscount = 0, uint16_t arcount = 0)
      : bytes_(cat({{0x12, 0x34, 0x81, 0x80, 0, 1},
                    be16(ancount),
                    be16(nscount),
                    be16(arcount),
                    wire_name("a.b"),
                    {0, 1, 0, 1}})) {}

  // A record owned by the question name (compressed).
  WireBuilder& record(uint16_t type, const Bytes& rdata) {
    return record({0xC0, 0x0C}, type, rdata);
  }
  WireBuilder& record(const Bytes& owner, uint16_t type, const Bytes& rdata) {
    bytes_ = cat({bytes_, owner, be16(type), {0, 1, 0, 0, 0x0E, 0x10}, be16(rdata.size()), rdata});
    return *this;
  }
  const Bytes& bytes() const { return bytes_; }

 private:
  Bytes bytes_;
};

inline DnsMessage parsed(const Bytes& bytes, bool trailing_dot = true) {
  DnsMessage message;
  parse(bytes.data(), static_cast<uint32_t>(bytes.size()), message, trailing_dot);
  return message;
}

}  // namespace vantrelo::net::dns::testing
