// Parse and present a typical response (two answers, EDNS OPT record) and look up a domain.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>
#include <vector>

#include "dns/dns_message.h"
#include "dns/public_suffix.h"

namespace {

// www.example.com A IN: CNAME to web.example.net, then its A record, then OPT.
std::vector<uint8_t> typical_response() {
  std::vector<uint8_t> m = {0x12, 0x34, 0x81, 0x80, 0, 1, 0, 2, 0, 0, 0, 1};
  auto name = [&m](std::initializer_list<const char*> labels) {
    for (const char* label : labels) {
      m.push_back(static_cast<uint8_t>(std::string(label).size()));
      m.insert(m.end(), label, label + std::string(label).size());
    }
    m.push_back(0);
  };
  auto fixed = [&m](uint16_t type, uint16_t klass, uint32_t ttl, uint16_t rdlength) {
    for (uint16_t v : {type, klass}) m.insert(m.end(), {uint8_t(v >> 8), uint8_t(v)});
    m.insert(m.end(), {uint8_t(ttl >> 24), uint8_t(ttl >> 16), uint8_t(ttl >> 8), uint8_t(ttl)});
    m.insert(m.end(), {uint8_t(rdlength >> 8), uint8_t(rdlength)});
  };
  name({"www", "Example", "com"});
  m.insert(m.end(), {0, 1, 0, 1});
  m.insert(m.end(), {0xC0, 0x0C});
  fixed(5, 1, 300, 17);
  size_t target = m.size();
  name({"web", "example", "net"});
  m.insert(m.end(), {0xC0, uint8_t(target)});
  fixed(1, 1, 60, 4);
  m.insert(m.end(), {192, 0, 2, 80});
  m.push_back(0);
  fixed(41, 1232, 0x8000, 0);
  return m;
}

void BM_ParseTypicalResponse(benchmark::State& state) {
  std::vector<uint8_t> bytes = typical_response();
  vantrelo::net::dns::DnsMessage message;
  for (auto _ : state) {
    vantrelo::net::dns::parse(bytes.data(), static_cast<uint32_t>(bytes.size()), message, true);
    benchmark::DoNotOptimize(message.answers.size);
  }
  if (!message.error.empty() || message.answers.size != 2) state.SkipWithError("bad parse");
}
BENCHMARK(BM_ParseTypicalResponse);

void BM_DomainOffset(benchmark::State& state) {
  vantrelo::net::dns::DomainSuffixes suffixes;
  suffixes.build_builtin_set(true);
  const std::string name = "host.mail.example.co.uk.";
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        suffixes.domain_offset(name.data(), static_cast<uint32_t>(name.size()), true, true));
  }
}
BENCHMARK(BM_DomainOffset);

}  // namespace

BENCHMARK_MAIN();
