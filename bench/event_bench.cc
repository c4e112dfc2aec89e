// Throughput of the event queue: push and pop of 100-byte events on one thread, and one producer
// feeding one consumer thread.
#include <benchmark/benchmark.h>

#include <atomic>
#include <string>
#include <thread>

#include "event/event_queue.h"

namespace {

constexpr uint32_t kEventBytes = 100;

vantrelo::event::queue::QueueOptions benchOptions() {
  vantrelo::event::queue::QueueOptions options;
  options.size = 1 << 20;
  options.recovery = false;
  return options;
}

void BM_PushPopSingleThread(benchmark::State& state) {
  vantrelo::event::queue::EventQueue queue(benchOptions());
  const std::string event(kEventBytes, 'e');
  const auto* data = reinterpret_cast<const uint8_t*>(event.data());
  std::string out;
  out.reserve(kEventBytes);
  for (auto _ : state) {
    queue.push(data, kEventBytes);
    out.clear();
    queue.pop(out);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetItemsProcessed(state.iterations());
  state.SetBytesProcessed(state.iterations() * kEventBytes);
}
BENCHMARK(BM_PushPopSingleThread);

// The timed thread produces; a consumer thread pops in batches until every event is accounted
// for as popped or dropped.
void BM_ProducerConsumer(benchmark::State& state) {
  vantrelo::event::queue::EventQueue queue(benchOptions());
  const std::string event(kEventBytes, 'e');
  const auto* data = reinterpret_cast<const uint8_t*>(event.data());
  std::atomic<bool> producing{true};
  std::atomic<uint64_t> popped{0};
  std::thread consumer([&] {
    std::string batch;
    batch.reserve(kEventBytes * 64);
    uint64_t local = 0;
    while (producing.load(std::memory_order_relaxed) || queue.count() > 0) {
      batch.clear();
      for (int i = 0; i < 64; ++i) {
        const size_t before = batch.size();
        queue.pop(batch);
        if (batch.size() == before) break;
        ++local;
      }
      if (batch.empty()) std::this_thread::yield();
    }
    popped = local;
  });
  for (auto _ : state) queue.push(data, kEventBytes);
  producing = false;
  consumer.join();
  uint64_t processed = 0, queued = 0, dropped = 0;
  queue.snapshot(processed, queued, dropped);
  state.SetItemsProcessed(state.iterations());
  state.counters["popped"] = static_cast<double>(popped.load());
  state.counters["dropped"] = static_cast<double>(dropped);
}
BENCHMARK(BM_ProducerConsumer)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
