// Dnstap codec cost per record for the two records a DNS server produces most: a client query
// and its response, each about 100 bytes encoded. Records and buffers are reused across
// iterations, as the listener and forwarder loops reuse theirs.
#include <benchmark/benchmark.h>

#include <string>

#include "encoding/dnstap_message.h"

namespace {

using vantrelo::encoding::dnstap::DnstapMessage;

// www.example.com. IN A, with an EDNS OPT record: 44 bytes.
const char kQuery[] =
    "\x12\x34\x01\x20\x00\x01\x00\x00\x00\x00\x00\x01\x03www\x07"
    "example\x03"
    "com\x00\x00\x01"
    "\x00\x01\x00\x00\x29\x04\xd0\x00\x00\x00\x00\x00\x00";
// The same with one A record answer: 60 bytes.
const char kResponse[] =
    "\x12\x34\x81\x80\x00\x01\x00\x01\x00\x00\x00\x01\x03www\x07"
    "example\x03"
    "com\x00\x00\x01"
    "\x00\x01\xc0\x0c\x00\x01\x00\x01\x00\x00\x0e\x10\x00\x04\x5d\xb8\xd8\x22\x00\x00\x29\x04\xd0"
    "\x00\x00\x00\x00\x00\x00";

DnstapMessage makeRecord(bool response) {
  DnstapMessage m;
  m.identity = "dns01";
  m.version = "2.4.4";
  m.type = response ? vantrelo::encoding::dnstap::kClientResponse
                    : vantrelo::encoding::dnstap::kClientQuery;
  m.socket_family = vantrelo::encoding::dnstap::kFamilyInet;
  m.socket_protocol = vantrelo::encoding::dnstap::kProtocolUdp;
  m.query_address = std::string("\xc0\x00\x02\x0a", 4);
  m.response_address = std::string("\xc0\x00\x02\x35", 4);
  m.query_port = 53124;
  m.response_port = 53;
  m.query_time_sec = 1709622542;
  m.query_time_nsec = 123456789;
  m.query_message.assign(kQuery, sizeof kQuery - 1);
  if (response) {
    m.query_message.clear();
    m.response_time_sec = 1709622542;
    m.response_time_nsec = 124456789;
    m.response_message.assign(kResponse, sizeof kResponse - 1);
  }
  return m;
}

void BM_DnstapEncode(benchmark::State& state) {
  DnstapMessage record = makeRecord(state.range(0) != 0);
  std::string out;
  for (auto _ : state) {
    out.clear();
    record.encode(out);
    benchmark::DoNotOptimize(out.data());
  }
  state.counters["bytes"] = static_cast<double>(out.size());
}

void BM_DnstapDecode(benchmark::State& state) {
  std::string frame;
  makeRecord(state.range(0) != 0).encode(frame);
  const auto* data = reinterpret_cast<const uint8_t*>(frame.data());
  DnstapMessage record;
  for (auto _ : state) {
    benchmark::DoNotOptimize(record.decode(data, static_cast<uint32_t>(frame.size()), 0));
  }
  state.counters["bytes"] = static_cast<double>(frame.size());
}

// Argument 0: client query; 1: client response.
BENCHMARK(BM_DnstapEncode)->Arg(0)->Arg(1);
BENCHMARK(BM_DnstapDecode)->Arg(0)->Arg(1);

}  // namespace

BENCHMARK_MAIN();
