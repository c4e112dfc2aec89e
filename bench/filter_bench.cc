// The cost of the edge filters per record: a lookup in a 100,000-name drop list, and the whole
// path of one relayed frame (decode, lists, sampling, truncation, re-encode).
#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <vector>

#include "encoding/dnstap_message.h"
#include "filter/domain_set.h"
#include "filter/edge_filter.h"

namespace {

using vantrelo::filter::DomainSet;

constexpr int kListNames = 100000;

// A list shaped like a real one: CDN and tracker names two to four labels deep.
const DomainSet& bigList() {
  static const DomainSet set = [] {
    DomainSet built;
    for (int i = 0; i < kListNames; ++i) {
      const std::string n = std::to_string(i);
      built.add(i % 3 == 0   ? "cdn" + n + ".example.net"
                : i % 3 == 1 ? "edge.t" + n + ".example.org"
                             : "host" + n + ".corp.example");
    }
    return built;
  }();
  return set;
}

// Names as a resolver sees them: mostly not listed, some under a listed name.
std::vector<std::string> askedNames() {
  std::vector<std::string> names;
  for (int i = 0; i < 1024; ++i) {
    const std::string n = std::to_string(i * 97);
    names.push_back(i % 4 == 0 ? "img.cdn" + n + ".example.net" : "www.shop" + n + ".example.com");
  }
  return names;
}

void BM_DomainListLookup(benchmark::State& state) {
  const DomainSet& set = bigList();
  const std::vector<std::string> names = askedNames();
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(set.covers(names[i++ & 1023]));
  }
}
BENCHMARK(BM_DomainListLookup);

std::string queryWire(const std::string& dotted, uint16_t id) {
  std::string wire = {
      static_cast<char>(id >> 8), static_cast<char>(id), 1, 0, 0, 1, 0, 0, 0, 0, 0, 0};
  for (size_t start = 0, end; start < dotted.size(); start = end + 1) {
    end = std::min(dotted.find('.', start), dotted.size());
    wire += static_cast<char>(end - start);
    wire += dotted.substr(start, end - start);
  }
  wire += std::string("\0\0\1\0\1", 5);
  return wire;
}

void BM_RelayedFrame(benchmark::State& state) {
  auto settings = std::make_shared<vantrelo::filter::FilterSettings>();
  settings->dropDomains = bigList();
  settings->sampleOneIn = static_cast<uint32_t>(state.range(0));
  settings->privacy.mode = vantrelo::filter::AddressMode::kTruncate;
  vantrelo::filter::EdgeFilter filter(settings);
  vantrelo::filter::FrameFilter frames(&filter);
  std::vector<std::string> encoded;
  for (int i = 0; i < 256; ++i) {
    vantrelo::encoding::dnstap::DnstapMessage record;
    record.type = 5;
    record.socket_family = 1;
    record.socket_protocol = 1;
    record.query_address = {10, 1, static_cast<char>(i), static_cast<char>(i * 7)};
    record.response_address = {10, 0, 0, 53};
    record.query_port = 1024 + i;
    record.query_time_sec = 1700000000;
    record.query_message =
        queryWire("www.shop" + std::to_string(i) + ".example.com", static_cast<uint16_t>(i * 31));
    record.encode(encoded.emplace_back());
  }
  size_t i = 0;
  for (auto _ : state) {
    std::string_view frame = encoded[i++ & 255];
    benchmark::DoNotOptimize(frames.admit(frame));
  }
}
BENCHMARK(BM_RelayedFrame)->Arg(1)->Arg(10);

}  // namespace

BENCHMARK_MAIN();
