// Made-up but realistic DNS traffic as serialised dnstap records, for the load generator.
//
// Each exchange is a CLIENT_QUERY record followed by its CLIENT_RESPONSE: real DNS wire
// messages over UDP or TCP, IPv4 or IPv6 clients, a weighted mix of query types (A, AAAA, MX,
// TXT, NS, PTR, SRV, SOA, and A answered through a CNAME), EDNS on most queries, and answers,
// NXDOMAIN with the zone's SOA, SERVFAIL or REFUSED. The same seed and start time give the same
// byte stream; without a start time the records carry the real clock.
//
// Ownership: the generator owns its random state and scratch buffers and reuses them, so a
// steady stream allocates nothing once they have grown. Not thread-safe.
#pragma once

#include <cstdint>
#include <random>
#include <string>

#include "encoding/dnstap_message.h"

namespace vantrelo::tools::loadgen {

// Builds a DNS wire message into a reused byte string.
class WireWriter {
 public:
  void clear() { out_.clear(); }
  const std::string& bytes() const { return out_; }
  size_t size() const { return out_.size(); }

  void u8(uint8_t value) { out_.push_back(static_cast<char>(value)); }
  void u16(uint16_t value);
  void u32(uint32_t value);
  void raw(const void* data, size_t size);
  // A name given in dotted form without the final dot ("" is the root), uncompressed.
  void name(const std::string& dotted);
  // Overwrites two bytes at `offset`, e.g. a record's data length once it is known.
  void patch16(size_t offset, uint16_t value);

 private:
  std::string out_;
};

class TrafficGenerator {
 public:
  // startTime 0 stamps records with the real clock; any other value starts the records' time
  // there and advances it by made-up gaps, so that the output depends on the seed alone.
  TrafficGenerator(uint64_t seed, std::string identity, uint64_t startTime);

  // Replaces `out` with the next serialised Dnstap frame.
  void next(std::string& out);

  // State of the exchange being built; used by the answer builders.
  struct Exchange {
    uint16_t qtype = 0;
    std::string qname;   // dotted, no final dot
    std::string domain;  // the registered domain the name belongs to
    uint64_t serial = 0;
  };

  uint32_t random(uint32_t bound) { return static_cast<uint32_t>(rng_() % bound); }
  uint64_t exchanges() const { return serial_; }

 private:
  void newExchange();
  void buildQuery();
  void buildResponse();
  void stamp(uint64_t& sec, uint32_t& nsec, uint64_t extraNanos);

  std::mt19937_64 rng_;
  std::string identity_;
  uint64_t clockNanos_;  // made-up clock in nanoseconds since 1970; 0: the real clock
  uint64_t serial_ = 0;
  bool responseDue_ = false;

  Exchange exchange_;
  size_t kind_ = 0;
  uint16_t id_ = 0;
  bool recursionDesired_ = true;
  bool edns_ = false;
  bool dnssecOk_ = false;
  uint16_t rcode_ = 0;
  uint64_t latencyNanos_ = 0;

  WireWriter wire_;
  encoding::dnstap::DnstapMessage record_;
};

}  // namespace vantrelo::tools::loadgen
