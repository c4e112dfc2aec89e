// The forwarder's cost per event in each output format, end to end on one host: the load
// generator's realistic events are pushed into the queue a read's worth at a time, and a real
// Forwarder pops, checks or formats and writes them to a loopback collector that drains its
// socket. Items per second is the forwarding rate; "cpu-us/event" is the CPU time of the whole
// process per event (forwarder, pushing thread and collector); "allocs/event" is what the
// steady state allocates.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "allocation_counter.h"
#include "event/event_queue.h"
#include "format/message_settings.h"
#include "loadgen_traffic.h"
#include "net/socket.h"
#include "worker/forwarder.h"
#include "worker/forwarder_settings.h"

namespace {

using vantrelo::event::queue::EventQueue;
using vantrelo::event::queue::EventSpan;
using vantrelo::format::MessageFormat;

constexpr uint32_t kDistinctEvents = 2000;  // cycled through, a client query and response each
constexpr uint32_t kReadEvents = 100;       // events per push, as one receiver read gives
constexpr uint32_t kPerIteration = 2000;

// The events of a run, generated once and kept back to back.
struct Events {
  Events() {
    vantrelo::tools::loadgen::TrafficGenerator traffic(1, "bench", 1700000000);
    std::string record;
    std::vector<uint32_t> lengths;
    for (uint32_t i = 0; i < kDistinctEvents; ++i) {
      traffic.next(record);
      bytes += record;
      lengths.push_back(static_cast<uint32_t>(record.size()));
    }
    const auto* at = reinterpret_cast<const uint8_t*>(bytes.data());
    for (uint32_t length : lengths) {
      spans.push_back({at, length});
      at += length;
    }
  }
  std::string bytes;
  std::vector<EventSpan> spans;
};

// Accepts the forwarder's connection and reads until it closes.
class Collector {
 public:
  Collector() : listener_(90, settings(0)) {
    listener_.listen();
    thread_ = std::thread([this] {
      std::unique_ptr<vantrelo::net::Socket> connection;
      while (!(connection = listener_.accept())) listener_.wait(true, 1);
      std::vector<char> buffer(1 << 20);
      try {
        while (connection->recv(buffer.data(), buffer.size()) > 0) {
        }
      } catch (const std::exception&) {
        // The forwarder closed the connection: the run is over.
      }
    });
  }
  ~Collector() { thread_.join(); }
  uint16_t port() const { return listener_.localPort(); }

  static vantrelo::net::SocketSettings settings(uint16_t port) {
    vantrelo::net::SocketSettings settings;
    settings.unix = false;
    settings.port = port;
    settings.readTimeout = 30;
    return settings;
  }

 private:
  vantrelo::net::Socket listener_;
  std::thread thread_;
};

void forwardEvents(benchmark::State& state, MessageFormat format) {
  static const Events events;
  EventQueue queue({uint64_t{64} << 20, false, ""});
  vantrelo::format::MessageSettings messages;
  messages.format = format;
  messages.hostname = "bench";
  messages.suffixes.build_builtin_set(true);
  Collector collector;
  auto settings =
      vantrelo::worker::forwarder::parse("ipv4 127.0.0.1 " + std::to_string(collector.port()) +
                                         " batch-size=100 fstrm-mode=unidirectional");
  vantrelo::worker::forwarder::Forwarder forwarder(1, settings, queue, messages);
  forwarder.start();

  uint64_t pushed = 0;
  size_t next = 0;
  const auto forwardSome = [&] {
    for (uint32_t done = 0; done < kPerIteration; done += kReadEvents) {
      const size_t count = std::min<size_t>(kReadEvents, events.spans.size() - next);
      queue.pushBatch(events.spans.data() + next, count);
      next = (next + count) % events.spans.size();
      pushed += count;
    }
    while (forwarder.eventsSent() + forwarder.dnstapErrors() < pushed) {
      std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
  };
  // One warm-up round, so buffers and the ring's pages are in place before counting.
  forwardSome();
  const uint64_t allocationsBefore = vantrelo::bench::allocations();
  const std::clock_t cpuBefore = std::clock();
  for (auto _ : state) forwardSome();
  const double cpuSeconds = static_cast<double>(std::clock() - cpuBefore) / CLOCKS_PER_SEC;
  const double forwarded = static_cast<double>(state.iterations()) * kPerIteration;
  state.counters["cpu-us/event"] = cpuSeconds * 1e6 / forwarded;
  state.counters["allocs/event"] =
      static_cast<double>(vantrelo::bench::allocations() - allocationsBefore) / forwarded;
  state.counters["errors"] = static_cast<double>(forwarder.dnstapErrors());
  state.SetItemsProcessed(state.iterations() * kPerIteration);
  forwarder.stop();
  forwarder.join();
}

BENCHMARK_CAPTURE(forwardEvents, dnstap, MessageFormat::kDnstap)->UseRealTime();
BENCHMARK_CAPTURE(forwardEvents, querylog, MessageFormat::kQuerylog)->UseRealTime();
BENCHMARK_CAPTURE(forwardEvents, json, MessageFormat::kJson)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
