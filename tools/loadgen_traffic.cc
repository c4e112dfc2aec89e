#include "loadgen_traffic.h"

#include <chrono>
#include <utility>

namespace vantrelo::tools::loadgen {

namespace {

// DNS wire constants.
constexpr uint16_t kTypeA = 1;
constexpr uint16_t kTypeNs = 2;
constexpr uint16_t kTypeCname = 5;
constexpr uint16_t kTypeSoa = 6;
constexpr uint16_t kTypePtr = 12;
constexpr uint16_t kTypeMx = 15;
constexpr uint16_t kTypeTxt = 16;
constexpr uint16_t kTypeAaaa = 28;
constexpr uint16_t kTypeSrv = 33;
constexpr uint16_t kTypeOpt = 41;
constexpr uint16_t kClassIn = 1;
constexpr uint16_t kFlagResponse = 0x8000;
constexpr uint16_t kFlagRecursionDesired = 0x0100;
constexpr uint16_t kFlagRecursionAvailable = 0x0080;
constexpr uint16_t kRcodeNoError = 0;
constexpr uint16_t kRcodeServFail = 2;
constexpr uint16_t kRcodeNxDomain = 3;
constexpr uint16_t kRcodeRefused = 5;
constexpr uint16_t kPointerToQuestion = 0xC00C;  // the question name right after the header
constexpr uint16_t kEdnsUdpSize = 1232;
constexpr uint32_t kEdnsDnssecOk = 0x00008000;
constexpr size_t kAncountOffset = 6;
constexpr size_t kNscountOffset = 8;
constexpr uint16_t kServerPort = 53;
constexpr uint64_t kNanosPerSecond = 1000000000;

const uint8_t kServerV4[4] = {192, 0, 2, 53};
const uint8_t kServerV6[16] = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x53};

const char* const kHosts[] = {"www", "mail",  "api",    "cdn",  "login", "static", "img",
                              "ns1", "time",  "update", "shop", "vpn",   "portal", "m",
                              "sso", "files", "auth",   "git",  "wiki",  "chat"};
// Registered domains under suffixes of one, two and three labels, so that suffix lookups see
// every depth.
const char* const kDomains[] = {
    "example.com",    "example.org",  "example.net",      "example.co.uk",
    "example.com.au", "shop.example", "example.co.jp",    "corp.example.test",
    "example.de",     "example.io",   "city.kawasaki.jp", "example.pvt.k12.ma.us",
};
const char* const kSrvServices[] = {"_sip._tcp", "_ldap._tcp", "_xmpp-client._tcp", "_imaps._tcp"};
const char* const kTxtTexts[] = {"v=spf1 include:_spf.example.net -all",
                                 "google-site-verification=loadgen", "vantrelo load test",
                                 "k=rsa; p=MIGfMA0GCSqGSIb3DQEBAQUAA4GNADCBiQKBgQC"};

template <typename T, size_t N>
const T& pick(TrafficGenerator& gen, const T (&table)[N]) {
  return table[gen.random(N)];
}

using Exchange = TrafficGenerator::Exchange;

void hostName(TrafficGenerator& gen, Exchange& ex) {
  ex.qname = pick(gen, kHosts);
  if (gen.random(4) == 0) ex.qname += "-" + std::to_string(gen.random(1000));
  ex.qname += ".";
  ex.qname += ex.domain;
}

void apexName(TrafficGenerator&, Exchange& ex) { ex.qname = ex.domain; }

void srvName(TrafficGenerator& gen, Exchange& ex) {
  ex.qname = std::string(pick(gen, kSrvServices)) + "." + ex.domain;
}

void reverseName(TrafficGenerator& gen, Exchange& ex) {
  ex.qname = std::to_string(1 + gen.random(254)) + "." + std::to_string(gen.random(256)) +
             ".51.198.in-addr.arpa";
}

// One resource record: owner as a pointer to the question name, then type, class, TTL and the
// data that `body` writes; the data length is patched in afterwards.
template <typename Body>
void record(WireWriter& w, uint16_t type, uint32_t ttl, Body body) {
  w.u16(kPointerToQuestion);
  w.u16(type);
  w.u16(kClassIn);
  w.u32(ttl);
  const size_t lengthAt = w.size();
  w.u16(0);
  body();
  w.patch16(lengthAt, static_cast<uint16_t>(w.size() - lengthAt - 2));
}

uint16_t answerA(TrafficGenerator& gen, const Exchange&, WireWriter& w) {
  const uint16_t count = static_cast<uint16_t>(1 + gen.random(3));
  for (uint16_t i = 0; i < count; ++i) {
    record(w, kTypeA, 300, [&] {
      const uint8_t address[4] = {203, 0, 113, static_cast<uint8_t>(1 + gen.random(254))};
      w.raw(address, sizeof address);
    });
  }
  return count;
}

uint16_t answerAaaa(TrafficGenerator& gen, const Exchange&, WireWriter& w) {
  record(w, kTypeAaaa, 300, [&] {
    uint8_t address[16] = {0x20, 0x01, 0x0d, 0xb8, 0, 0x10};
    address[14] = static_cast<uint8_t>(gen.random(256));
    address[15] = static_cast<uint8_t>(1 + gen.random(255));
    w.raw(address, sizeof address);
  });
  return 1;
}

// An A query answered through an alias: the CNAME, then the A record of its target written in
// full (the target name is not in the message before).
uint16_t answerCnameChain(TrafficGenerator& gen, const Exchange& ex, WireWriter& w) {
  const std::string target = "edge-" + std::to_string(ex.serial % 97) + ".cdn.example.net";
  record(w, kTypeCname, 3600, [&] { w.name(target); });
  w.name(target);
  w.u16(kTypeA);
  w.u16(kClassIn);
  w.u32(60);
  w.u16(4);
  const uint8_t address[4] = {198, 51, 100, static_cast<uint8_t>(1 + gen.random(254))};
  w.raw(address, sizeof address);
  return 2;
}

uint16_t answerMx(TrafficGenerator& gen, const Exchange& ex, WireWriter& w) {
  const uint16_t count = static_cast<uint16_t>(1 + gen.random(2));
  for (uint16_t i = 0; i < count; ++i) {
    record(w, kTypeMx, 3600, [&] {
      w.u16(static_cast<uint16_t>(10 * (i + 1)));
      w.name("mx" + std::to_string(i + 1) + "." + ex.domain);
    });
  }
  return count;
}

uint16_t answerTxt(TrafficGenerator& gen, const Exchange&, WireWriter& w) {
  record(w, kTypeTxt, 300, [&] {
    const std::string text = pick(gen, kTxtTexts);
    w.u8(static_cast<uint8_t>(text.size()));
    w.raw(text.data(), text.size());
  });
  return 1;
}

uint16_t answerNs(TrafficGenerator&, const Exchange& ex, WireWriter& w) {
  for (int i = 1; i <= 2; ++i) {
    record(w, kTypeNs, 86400, [&] { w.name("ns" + std::to_string(i) + "." + ex.domain); });
  }
  return 2;
}

uint16_t answerPtr(TrafficGenerator& gen, const Exchange&, WireWriter& w) {
  record(w, kTypePtr, 3600,
         [&] { w.name("host-" + std::to_string(gen.random(10000)) + ".example.net"); });
  return 1;
}

uint16_t answerSrv(TrafficGenerator& gen, const Exchange& ex, WireWriter& w) {
  record(w, kTypeSrv, 600, [&] {
    w.u16(10);
    w.u16(static_cast<uint16_t>(gen.random(100)));
    w.u16(static_cast<uint16_t>(5000 + gen.random(1000)));
    w.name("srv" + std::to_string(1 + gen.random(4)) + "." + ex.domain);
  });
  return 1;
}

void soaData(WireWriter& w, const std::string& domain, uint64_t serial) {
  w.name("ns1." + domain);
  w.name("hostmaster." + domain);
  w.u32(static_cast<uint32_t>(2024010100 + serial % 100));
  w.u32(7200);
  w.u32(900);
  w.u32(1209600);
  w.u32(300);
}

uint16_t answerSoa(TrafficGenerator&, const Exchange& ex, WireWriter& w) {
  record(w, kTypeSoa, 3600, [&] { soaData(w, ex.domain, ex.serial); });
  return 1;
}

struct QueryKind {
  uint16_t qtype;
  uint32_t weight;
  void (*name)(TrafficGenerator&, Exchange&);
  uint16_t (*answer)(TrafficGenerator&, const Exchange&, WireWriter&);
};

// Roughly the mix a busy recursive server sees.
const QueryKind kQueryKinds[] = {
    {kTypeA, 38, hostName, answerA},          {kTypeAaaa, 22, hostName, answerAaaa},
    {kTypeA, 12, hostName, answerCnameChain}, {kTypeMx, 5, apexName, answerMx},
    {kTypeTxt, 5, apexName, answerTxt},       {kTypeNs, 3, apexName, answerNs},
    {kTypePtr, 8, reverseName, answerPtr},    {kTypeSrv, 4, srvName, answerSrv},
    {kTypeSoa, 3, apexName, answerSoa},
};

struct RcodeShare {
  uint16_t rcode;
  uint32_t weight;
};

const RcodeShare kRcodes[] = {
    {kRcodeNoError, 88}, {kRcodeNxDomain, 8}, {kRcodeServFail, 3}, {kRcodeRefused, 1}};

template <typename T, size_t N>
size_t weighted(TrafficGenerator& gen, const T (&table)[N]) {
  uint32_t total = 0;
  for (const T& entry : table) total += entry.weight;
  uint32_t roll = gen.random(total);
  for (size_t i = 0; i < N; ++i) {
    if (roll < table[i].weight) return i;
    roll -= table[i].weight;
  }
  return N - 1;
}

}  // namespace

void WireWriter::u16(uint16_t value) {
  out_.push_back(static_cast<char>(value >> 8));
  out_.push_back(static_cast<char>(value));
}

void WireWriter::u32(uint32_t value) {
  u16(static_cast<uint16_t>(value >> 16));
  u16(static_cast<uint16_t>(value));
}

void WireWriter::raw(const void* data, size_t size) {
  out_.append(static_cast<const char*>(data), size);
}

void WireWriter::name(const std::string& dotted) {
  size_t begin = 0;
  while (begin < dotted.size()) {
    size_t end = dotted.find('.', begin);
    if (end == std::string::npos) end = dotted.size();
    u8(static_cast<uint8_t>(end - begin));
    out_.append(dotted, begin, end - begin);
    begin = end + 1;
  }
  u8(0);
}

void WireWriter::patch16(size_t offset, uint16_t value) {
  out_[offset] = static_cast<char>(value >> 8);
  out_[offset + 1] = static_cast<char>(value);
}

TrafficGenerator::TrafficGenerator(uint64_t seed, std::string identity, uint64_t startTime)
    : rng_(seed), identity_(std::move(identity)), clockNanos_(startTime * kNanosPerSecond) {
  record_.identity = identity_;
  record_.version = "vantrelo-loadgen 1";
}

void TrafficGenerator::next(std::string& out) {
  if (responseDue_) {
    buildResponse();
  } else {
    newExchange();
    buildQuery();
  }
  responseDue_ = !responseDue_;
  out.clear();
  record_.encode(out);
}

void TrafficGenerator::stamp(uint64_t& sec, uint32_t& nsec, uint64_t extraNanos) {
  uint64_t nanos = clockNanos_;
  if (nanos == 0) {
    nanos = static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                      std::chrono::system_clock::now().time_since_epoch())
                                      .count());
  }
  nanos += extraNanos;
  sec = nanos / kNanosPerSecond;
  nsec = static_cast<uint32_t>(nanos % kNanosPerSecond);
}

void TrafficGenerator::newExchange() {
  ++serial_;
  if (clockNanos_ != 0) clockNanos_ += 1000 * (1 + random(2000));  // up to 2 ms apart
  exchange_.serial = serial_;
  exchange_.domain = pick(*this, kDomains);
  kind_ = weighted(*this, kQueryKinds);
  exchange_.qtype = kQueryKinds[kind_].qtype;
  kQueryKinds[kind_].name(*this, exchange_);
  id_ = static_cast<uint16_t>(random(65536));
  recursionDesired_ = random(20) != 0;
  edns_ = random(10) < 7;
  dnssecOk_ = edns_ && random(4) == 0;
  rcode_ = kRcodes[weighted(*this, kRcodes)].rcode;
  // Mostly cache hits of tens of microseconds, some recursions of tens of milliseconds.
  latencyNanos_ = random(5) == 0 ? 1000000ull * (5 + random(80)) : 1000ull * (20 + random(400));

  record_.clear(false);
  const bool ipv6 = random(5) == 0;
  record_.socket_family = ipv6 ? encoding::dnstap::kFamilyInet6 : encoding::dnstap::kFamilyInet;
  record_.socket_protocol =
      random(10) == 0 ? encoding::dnstap::kProtocolTcp : encoding::dnstap::kProtocolUdp;
  if (ipv6) {
    uint8_t client[16] = {0x20, 0x01, 0x0d, 0xb8, 0x0a, 0x0b};
    client[13] = static_cast<uint8_t>(random(256));
    client[14] = static_cast<uint8_t>(random(256));
    client[15] = static_cast<uint8_t>(1 + random(255));
    record_.query_address.assign(reinterpret_cast<const char*>(client), sizeof client);
    record_.response_address.assign(reinterpret_cast<const char*>(kServerV6), sizeof kServerV6);
  } else {
    const uint8_t client[4] = {10, static_cast<uint8_t>(random(4)),
                               static_cast<uint8_t>(random(256)),
                               static_cast<uint8_t>(1 + random(254))};
    record_.query_address.assign(reinterpret_cast<const char*>(client), sizeof client);
    record_.response_address.assign(reinterpret_cast<const char*>(kServerV4), sizeof kServerV4);
  }
  record_.query_port = 1024 + random(64512);
  record_.response_port = kServerPort;
}

void TrafficGenerator::buildQuery() {
  wire_.clear();
  wire_.u16(id_);
  wire_.u16(recursionDesired_ ? kFlagRecursionDesired : 0);
  wire_.u16(1);  // one question
  wire_.u16(0);
  wire_.u16(0);
  wire_.u16(edns_ ? 1 : 0);
  wire_.name(exchange_.qname);
  wire_.u16(exchange_.qtype);
  wire_.u16(kClassIn);
  if (edns_) {
    wire_.u8(0);  // root owner
    wire_.u16(kTypeOpt);
    wire_.u16(kEdnsUdpSize);
    wire_.u32(dnssecOk_ ? kEdnsDnssecOk : 0);
    wire_.u16(0);
  }
  record_.type = encoding::dnstap::kClientQuery;
  stamp(record_.query_time_sec, record_.query_time_nsec, 0);
  record_.query_message = wire_.bytes();
}

void TrafficGenerator::buildResponse() {
  wire_.clear();
  wire_.u16(id_);
  const uint16_t flags = kFlagResponse | (recursionDesired_ ? kFlagRecursionDesired : 0) |
                         kFlagRecursionAvailable | rcode_;
  wire_.u16(flags);
  wire_.u16(1);
  wire_.u16(0);  // answer and authority counts, patched below
  wire_.u16(0);
  wire_.u16(edns_ ? 1 : 0);
  wire_.name(exchange_.qname);
  wire_.u16(exchange_.qtype);
  wire_.u16(kClassIn);
  uint16_t answers = 0;
  uint16_t authority = 0;
  if (rcode_ == kRcodeNoError) {
    answers = kQueryKinds[kind_].answer(*this, exchange_, wire_);
  } else if (rcode_ == kRcodeNxDomain) {
    // The negative answer carries the zone's SOA, owned by the zone apex, written in full.
    wire_.name(exchange_.domain);
    wire_.u16(kTypeSoa);
    wire_.u16(kClassIn);
    wire_.u32(300);
    const size_t lengthAt = wire_.size();
    wire_.u16(0);
    soaData(wire_, exchange_.domain, exchange_.serial);
    wire_.patch16(lengthAt, static_cast<uint16_t>(wire_.size() - lengthAt - 2));
    authority = 1;
  }
  if (edns_) {
    wire_.u8(0);
    wire_.u16(kTypeOpt);
    wire_.u16(kEdnsUdpSize);
    wire_.u32(dnssecOk_ ? kEdnsDnssecOk : 0);
    wire_.u16(0);
  }
  wire_.patch16(kAncountOffset, answers);
  wire_.patch16(kNscountOffset, authority);
  record_.type = encoding::dnstap::kClientResponse;
  stamp(record_.response_time_sec, record_.response_time_nsec, latencyNanos_);
  record_.query_message.clear();
  record_.response_message = wire_.bytes();
}

}  // namespace vantrelo::tools::loadgen
