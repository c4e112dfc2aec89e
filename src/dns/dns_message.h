// DNS wire-format message parser.
//
// A DnsMessage is owned by one formatter and parsed into again and again: parse() overwrites
// every field and reuses the record storage of earlier parses, so a reused message gives the same
// result as a fresh one and a steady stream allocates nothing. A parse failure never throws: it is
// recorded in `error`, which the formatters print instead of the sections. Not thread-safe.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/error.h"

namespace vantrelo::net::dns {

NS_DEFINE_ERROR(DnsError);

struct DnsRecord {
  std::string name;        // owner name in presentation form, case kept
  std::string name_lower;  // the same with ASCII A-Z lowered
  uint16_t type = 0;
  uint16_t klass = 0;  // the record's class ("class" is a keyword)
  uint32_t ttl = 0;
  std::string data;  // record data in presentation form
};

// One record section; `size` is the number of records filled by the last parse. The vector
// only grows, so the strings of earlier records keep their capacity.
struct DnsSection {
  std::vector<DnsRecord> records;
  uint32_t size = 0;

  const DnsRecord* begin() const { return records.data(); }
  const DnsRecord* end() const { return records.data() + size; }
  bool empty() const { return size == 0; }
};

struct DnsMessage {
  std::string error;  // empty after a successful parse
  uint32_t size = 0;  // length of the wire message
  uint16_t id = 0;
  uint16_t flags = 0;
  uint16_t qdcount = 0;
  uint16_t ancount = 0;
  uint16_t nscount = 0;
  uint16_t arcount = 0;  // lowered by the SIG, OPT and TSIG records left out of `additional`
  std::string qname;
  std::string qname_lower;
  uint16_t qtype = 0;
  uint16_t qclass = 0;
  DnsSection answers;
  DnsSection authority;
  DnsSection additional;
};

// Header flag bits.
inline constexpr uint16_t kFlagQr = 0x8000;
inline constexpr uint16_t kFlagAa = 0x0400;
inline constexpr uint16_t kFlagTc = 0x0200;
inline constexpr uint16_t kFlagRd = 0x0100;
inline constexpr uint16_t kFlagRa = 0x0080;
inline constexpr uint16_t kFlagAd = 0x0020;
inline constexpr uint16_t kRcodeMask = 0x000F;

// Fills `message` from `length` bytes; the outcome is message.error. With trailing_dot every
// name read ends with ".".
void parse(const uint8_t* bytes, uint32_t length, DnsMessage& message, bool trailing_dot);

// Appends the presentation form of the name at `offset` to `out_text` and returns the offset just
// after the name as it lies in the message (after the first compression pointer, if any).
// Throws DnsError or base::data::DataError.
uint32_t read_name(uint32_t offset, const uint8_t* bytes, uint32_t length, std::string& out_text,
                   bool trailing_dot);

}  // namespace vantrelo::net::dns
