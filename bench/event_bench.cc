// Throughput of the event queue: push and pop of 100-byte events on one thread, batched pushes
// and pops, a push while a consumer sleeps in the queue's wait, and one producer feeding one
// consumer thread.
#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "event/event_queue.h"

namespace {

constexpr uint32_t kEventBytes = 100;
constexpr uint32_t kBatch = 100;  // the relay's usual batch size

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

// A receiver's read of kBatch frames in one pushBatch, a forwarder's popBatch of as many; per
// event.
void BM_BatchPushPop(benchmark::State& state) {
  vantrelo::event::queue::EventQueue queue(benchOptions());
  const std::string event(kEventBytes, 'e');
  const std::vector<vantrelo::event::queue::EventSpan> spans(
      kBatch, {reinterpret_cast<const uint8_t*>(event.data()), kEventBytes});
  std::string out;
  std::vector<uint32_t> lengths;
  out.reserve(kEventBytes * kBatch);
  lengths.reserve(kBatch);
  for (auto _ : state) {
    queue.pushBatch(spans.data(), spans.size());
    out.clear();
    lengths.clear();
    queue.popBatch(out, lengths, kBatch);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetItemsProcessed(state.iterations() * kBatch);
}
BENCHMARK(BM_BatchPushPop);

// Single pushes with no consumer asleep: no wake-up is paid. Popped in batches now and then, so
// the ring never overflows.
void BM_PushNoSleeper(benchmark::State& state) {
  vantrelo::event::queue::EventQueue queue(benchOptions());
  const std::string event(kEventBytes, 'e');
  const auto* data = reinterpret_cast<const uint8_t*>(event.data());
  std::string out;
  std::vector<uint32_t> lengths;
  uint32_t pushed = 0;
  for (auto _ : state) {
    queue.push(data, kEventBytes);
    if (++pushed == kBatch) {
      pushed = 0;
      out.clear();
      lengths.clear();
      queue.popBatch(out, lengths, kBatch);
    }
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_PushNoSleeper);

// Single pushes while a consumer sleeps in waitFor: the first push after each of its pops pays
// the wake-up; the consumer takes whatever is queued and sleeps again.
void BM_PushWithSleeper(benchmark::State& state) {
  vantrelo::event::queue::EventQueue queue(benchOptions());
  const std::string event(kEventBytes, 'e');
  const auto* data = reinterpret_cast<const uint8_t*>(event.data());
  std::atomic<bool> running{true};
  std::atomic<uint64_t> wakes{0};
  std::thread consumer([&] {
    std::string out;
    std::vector<uint32_t> lengths;
    while (running.load(std::memory_order_relaxed)) {
      out.clear();
      lengths.clear();
      if (queue.popBatch(out, lengths, kBatch) == 0) {
        queue.waitFor(std::chrono::milliseconds(50));
        wakes.fetch_add(1, std::memory_order_relaxed);
      }
    }
  });
  for (auto _ : state) queue.push(data, kEventBytes);
  running = false;
  consumer.join();
  state.SetItemsProcessed(state.iterations());
  state.counters["waits"] = static_cast<double>(wakes.load());
}
BENCHMARK(BM_PushWithSleeper)->UseRealTime();

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
    std::vector<uint32_t> lengths;
    while (producing.load(std::memory_order_relaxed) || queue.count() > 0) {
      batch.clear();
      lengths.clear();
      const uint32_t taken = queue.popBatch(batch, lengths, 64);
      local += taken;
      if (taken == 0) queue.waitFor(std::chrono::milliseconds(50));
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
