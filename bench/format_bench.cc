// Formatting throughput of one forwarder thread: a typical client response (one A answer) with
// the domain suffix lookup on, as a query-log line, as a JSON object and checked for dnstap
// output; with the heap allocations each event costs once the buffers have grown.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>

#include "allocation_counter.h"
#include "encoding/dnstap_message.h"
#include "format/message_formatter.h"

namespace {

using vantrelo::encoding::dnstap::DnstapMessage;
using vantrelo::format::MessageFormat;
using vantrelo::format::MessageFormatter;
using vantrelo::format::MessageSettings;
using vantrelo::format::MessageView;

std::string responseWire() {
  // id 0x1234, QR RD RA, one question www.example.com A IN, one answer by pointer.
  const uint8_t bytes[] = {0x12, 0x34, 0x81, 0x80, 0x00, 0x01, 0x00, 0x01, 0x00, 0x00,
                           0x00, 0x00, 3,    'w',  'w',  'w',  7,    'e',  'x',  'a',
                           'm',  'p',  'l',  'e',  3,    'c',  'o',  'm',  0,    0x00,
                           0x01, 0x00, 0x01, 0xC0, 0x0C, 0x00, 0x01, 0x00, 0x01, 0x00,
                           0x00, 0x01, 0x2C, 0x00, 0x04, 192,  0,    2,    80};
  return std::string(reinterpret_cast<const char*>(bytes), sizeof bytes);
}

DnstapMessage clientResponse() {
  DnstapMessage record;
  record.type = 6;
  record.socket_family = 1;
  record.socket_protocol = 1;
  record.query_address = std::string("\xC0\x00\x02\x07", 4);
  record.response_address = std::string("\xC0\x00\x02\x35", 4);
  record.query_port = 53124;
  record.response_port = 53;
  record.query_time_sec = 1709622542;
  record.query_time_nsec = 123456000;
  record.response_time_sec = 1709622542;
  record.response_time_nsec = 123789000;
  record.response_message = responseWire();
  return record;
}

const MessageSettings& settings(MessageFormat format) {
  static MessageSettings querylog;
  static MessageSettings json;
  static MessageSettings dnstap;
  static bool built = false;
  if (!built) {
    for (MessageSettings* s : {&querylog, &json, &dnstap}) {
      s->hostname = "dnsbox";
      s->process_id = 4242;
      s->syslog_priority = 134;
      s->suffixes.build_builtin_set(true);
    }
    querylog.format = MessageFormat::kQuerylog;
    json.format = MessageFormat::kJson;
    dnstap.format = MessageFormat::kDnstap;
    built = true;
  }
  if (format == MessageFormat::kDnstap) return dnstap;
  return format == MessageFormat::kJson ? json : querylog;
}

// format() alone, on a view built once: what the text layout and the DNS parse cost.
void formatView(benchmark::State& state, MessageFormat format) {
  MessageFormatter formatter(settings(format));
  const DnstapMessage record = clientResponse();
  MessageView view;
  vantrelo::format::make_view(record, view);
  std::string out;
  for (auto _ : state) {
    out.clear();
    formatter.format(view, out);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetItemsProcessed(state.iterations());
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(out.size()));
}

// The forwarder's whole path for one event: dnstap decode, view, format.
void formatEncodedEvent(benchmark::State& state, MessageFormat format) {
  MessageFormatter formatter(settings(format));
  DnstapMessage record = clientResponse();
  std::string encoded;
  record.encode(encoded);
  DnstapMessage scratch;
  std::string out;
  const auto once = [&] {
    out.clear();
    formatter.formatEvent(reinterpret_cast<const uint8_t*>(encoded.data()),
                          static_cast<uint32_t>(encoded.size()), scratch, out);
  };
  once();  // the buffers grow here, not in the loop
  const uint64_t allocationsBefore = vantrelo::bench::allocations();
  for (auto _ : state) {
    once();
    benchmark::DoNotOptimize(out.data());
  }
  state.counters["allocs/event"] =
      static_cast<double>(vantrelo::bench::allocations() - allocationsBefore) /
      static_cast<double>(state.iterations());
  state.SetItemsProcessed(state.iterations());
}

BENCHMARK_CAPTURE(formatView, querylog, MessageFormat::kQuerylog);
BENCHMARK_CAPTURE(formatView, json, MessageFormat::kJson);
BENCHMARK_CAPTURE(formatEncodedEvent, querylog, MessageFormat::kQuerylog);
BENCHMARK_CAPTURE(formatEncodedEvent, json, MessageFormat::kJson);
BENCHMARK_CAPTURE(formatEncodedEvent, dnstap, MessageFormat::kDnstap);

}  // namespace

BENCHMARK_MAIN();
