#include "event/event_queue.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstring>
#include <deque>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace vantrelo::event::queue {
namespace {

using Counts = std::array<uint64_t, 3>;  // processed, queued, dropped

void push(EventQueue& queue, const std::string& event) {
  queue.push(reinterpret_cast<const uint8_t*>(event.data()), static_cast<uint32_t>(event.size()));
}

Counts snapshot(EventQueue& queue) {
  Counts counts{};
  queue.snapshot(counts[0], counts[1], counts[2]);
  return counts;
}

// The queue without the ring: whole events, the oldest dropped until the new one fits. Also
// records where each event's length would start in the ring, to prove every wrap was hit.
struct Model {
  explicit Model(uint64_t ringSize) : size(ringSize) {}
  uint64_t size, used = 0, popped = 0, dropped = 0, at = 0;
  std::deque<std::string> events;
  std::set<uint64_t> starts;

  bool push(const std::string& event) {
    const uint64_t needed = event.size() + kLengthBytes;
    if (needed > size) return false;
    for (; size - used < needed; ++dropped) pop(nullptr);
    starts.insert(at);
    at = (at + needed) % size;
    used += needed;
    events.push_back(event);
    return true;
  }
  void pop(std::string* out) {
    if (events.empty()) return;
    if (out != nullptr) {
      out->append(events.front());
      ++popped;
    }
    used -= events.front().size() + kLengthBytes;
    events.pop_front();
  }
};

TEST(EventQueueTest, MatchesTheModelOverRandomTraffic) {
  std::mt19937 random(20240611);
  for (uint64_t size = 3; size <= 48; ++size) {
    SCOPED_TRACE("size " + std::to_string(size));
    EventQueue queue({size});
    Model model(size);
    Counts last{};
    for (int step = 0; step < 3000; ++step) {
      if (random() % 5 < 3) {
        // Mostly events that fit, sometimes one byte too long.
        std::string event(random() % (size - 1), '\0');
        for (char& c : event) c = static_cast<char>(random());
        if (model.push(event)) {
          push(queue, event);
        } else {
          EXPECT_THROW(push(queue, event), QueueError);
        }
      } else {
        // pop() appends: a non-empty buffer must keep its bytes in front.
        std::string expected(random() % 3, 'p'), actual = expected;
        model.pop(&expected);
        queue.pop(actual);
        ASSERT_EQ(actual, expected) << "step " << step;
      }
      ASSERT_EQ(queue.count(), model.events.size()) << "step " << step;
      if (step % 97 == 0) {
        const Counts now{model.popped, model.events.size(), model.dropped};
        EXPECT_EQ(snapshot(queue), (Counts{now[0] - last[0], now[1], now[2] - last[2]}));
        last = now;
      }
    }
    // Lengths and data have straddled the end in every possible way (a 3-byte ring only holds
    // empty events, all at 0).
    EXPECT_EQ(model.starts.size(), size == kLengthBytes ? 1u : size);
  }
}

// Exact fits, the 3-byte ring and a refused push leaving the queue alone are the model's; here
// the exact refusals at the limits.
TEST(EventQueueTest, RefusesWhatCanNeverFit) {
  const struct {
    uint64_t size;
    uint32_t length;
    std::string error;
  } cases[] = {
      {10, 8, "value length 8 is larger than the size of the queue 10"},
      {10, 4294967295u, "value length 4294967295 is larger than the size of the queue 10"},
      {16777220, 16777216, "value length 16777216 is larger than the maximum allowed of 16777215"},
      {0, 0, "value length 0 is larger than the size of the queue 0"},
      {uint64_t{1} << 62, 0,
       "malloc(4611686018427387904) failed: " + vantrelo::error::cErrorText(ENOMEM)},
  };
  static const std::string big(16777216, 'b');
  for (const auto& c : cases) {
    try {
      EventQueue queue({c.size});
      queue.push(reinterpret_cast<const uint8_t*>(big.data()), c.length);
      ADD_FAILURE() << "accepted " << c.length << " bytes into " << c.size;
    } catch (const QueueError& e) {
      EXPECT_EQ(e.what(), c.error);
    }
  }
}

TEST(EventQueueTest, ConcurrentProducersAndConsumersLoseNothingUncounted) {
  constexpr uint32_t kProducers = 4, kConsumers = 3, kPerProducer = 20000;
  constexpr uint32_t kTotal = kProducers * kPerProducer;
  // Each event carries its id and a pattern derived from it, so a torn or mixed-up event shows.
  auto makeEvent = [](uint32_t id) {
    std::string event(8 + id % 61, '\0');
    std::memcpy(event.data(), &id, sizeof id);
    for (size_t i = sizeof id; i < event.size(); ++i) event[i] = static_cast<char>(id * 31 + i);
    return event;
  };
  EventQueue queue({2048});  // small, so the producers overrun it now and then
  std::vector<std::atomic<int>> seen(kTotal);
  std::atomic<uint32_t> producing{kProducers}, bad{0}, consumed{0};
  std::vector<std::thread> threads;
  for (uint32_t p = 0; p < kProducers + kConsumers; ++p) {
    threads.emplace_back([&, p] {
      for (uint32_t i = 0; p < kProducers && i < kPerProducer; ++i) {
        push(queue, makeEvent(p * kPerProducer + i));
      }
      if (p < kProducers) --producing;
      for (std::string event; p >= kProducers; event.clear()) {
        queue.pop(event);
        if (event.empty() && producing == 0 && queue.count() == 0) return;
        if (event.empty()) {
          std::this_thread::yield();
          continue;
        }
        uint32_t id = 0;
        std::memcpy(&id, event.data(), sizeof id);
        if (id >= kTotal || event != makeEvent(id) || seen[id].fetch_add(1) != 0) ++bad;
        ++consumed;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(bad, 0u);
  EXPECT_EQ(snapshot(queue), (Counts{consumed, 0, kTotal - consumed}));
}

}  // namespace
}  // namespace vantrelo::event::queue
