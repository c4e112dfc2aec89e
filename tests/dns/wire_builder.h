// Builds DNS wire messages for the tests: a header with one question for "a.b." (at offset 12,
// so 0xC0 0x0C points to it), then records appended one by one.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

namespace ns::net::dns::testing {

using Bytes = std::vector<uint8_t>;

inline void put16(Bytes& out, uint16_t value) {
  out.push_back(static_cast<uint8_t>(value >> 8));
  out.push_back(static_cast<uint8_t>(value));
}

inline void put32(Bytes& out, uint32_t value) {
  put16(out, static_cast<uint16_t>(value >> 16));
  put16(out, static_cast<uint16_t>(value));
}

// "example.com" -> 07 example 03 com 00; "" gives the root.
inline Bytes wire_name(const std::string& dotted) {
  Bytes out;
  size_t start = 0;
  while (start < dotted.size()) {
    size_t dot = dotted.find('.', start);
    if (dot == std::string::npos) dot = dotted.size();
    out.push_back(static_cast<uint8_t>(dot - start));
    out.insert(out.end(), dotted.begin() + start, dotted.begin() + dot);
    start = dot + 1;
  }
  out.push_back(0);
  return out;
}

inline Bytes cat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes& part : parts) out.insert(out.end(), part.begin(), part.end());
  return out;
}

class WireBuilder {
 public:
  // Offset of the question name, the target of the pointer 0xC0 0x0C.
  static constexpr uint16_t kQname = 12;

  explicit WireBuilder(uint16_t ancount = 0, uint16_t nscount = 0, uint16_t arcount = 0) {
    put16(bytes_, 0x1234);  // id
    put16(bytes_, 0x8180);  // response, RD, RA
    put16(bytes_, 1);
    put16(bytes_, ancount);
    put16(bytes_, nscount);
    put16(bytes_, arcount);
    Bytes qname = wire_name("a.b");
    bytes_.insert(bytes_.end(), qname.begin(), qname.end());
    put16(bytes_, 1);  // A
    put16(bytes_, 1);  // IN
  }

  // A record owned by the question name (compressed), with the given data.
  WireBuilder& record(uint16_t type, const Bytes& rdata, uint32_t ttl = 3600) {
    return record(Bytes{0xC0, 0x0C}, type, rdata, ttl);
  }

  WireBuilder& record(const Bytes& owner, uint16_t type, const Bytes& rdata, uint32_t ttl = 3600) {
    bytes_.insert(bytes_.end(), owner.begin(), owner.end());
    put16(bytes_, type);
    put16(bytes_, 1);
    put32(bytes_, ttl);
    put16(bytes_, static_cast<uint16_t>(rdata.size()));
    bytes_.insert(bytes_.end(), rdata.begin(), rdata.end());
    return *this;
  }

  const Bytes& bytes() const { return bytes_; }

 private:
  Bytes bytes_;
};

}  // namespace ns::net::dns::testing
