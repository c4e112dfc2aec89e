#include "event/event_queue.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstring>
#include <deque>
#include <random>
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

// The queue without the ring: whole events, the oldest dropped until the new one fits.
struct Model {
  explicit Model(uint64_t ringSize) : size(ringSize) {}
  uint64_t size, used = 0, popped = 0, dropped = 0;
  std::deque<std::string> events;

  bool push(const std::string& event) {
    const uint64_t needed = event.size() + kLengthBytes;
    if (needed > size) return false;
    for (; size - used < needed; ++dropped) pop(nullptr);
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
      const uint32_t action = random() % 10;
      if (action < 6) {
        // Mostly events that fit, sometimes one byte too long; one at a time or a few in one
        // batch, which goes in up to the first that can never fit.
        std::vector<std::string> events(action < 3 ? 1 : 1 + random() % 4);
        for (std::string& event : events) {
          event.resize(random() % (size - 1));
          for (char& c : event) c = static_cast<char>(random());
        }
        size_t fitting = 0;
        while (fitting < events.size() && model.push(events[fitting])) ++fitting;
        std::vector<EventSpan> spans;
        for (const std::string& event : events) {
          spans.push_back({reinterpret_cast<const uint8_t*>(event.data()),
                           static_cast<uint32_t>(event.size())});
        }
        if (fitting == events.size()) {
          queue.pushBatch(spans.data(), spans.size());
        } else {
          EXPECT_THROW(queue.pushBatch(spans.data(), spans.size()), QueueError);
        }
      } else if (action < 8) {
        // pop() appends: a non-empty buffer must keep its bytes in front.
        std::string expected(random() % 3, 'p'), actual = expected;
        model.pop(&expected);
        queue.pop(actual);
        ASSERT_EQ(actual, expected) << "step " << step;
      } else {
        // popBatch() appends too, and says where each event ends.
        const uint32_t most = random() % 4;
        std::string expected(random() % 3, 'p'), actual = expected;
        std::vector<uint32_t> expectedLengths{7}, lengths{7};
        for (uint32_t i = 0; i < most && !model.events.empty(); ++i) {
          expectedLengths.push_back(static_cast<uint32_t>(model.events.front().size()));
          model.pop(&expected);
        }
        EXPECT_EQ(queue.popBatch(actual, lengths, most), expectedLengths.size() - 1);
        ASSERT_EQ(actual, expected) << "step " << step;
        ASSERT_EQ(lengths, expectedLengths) << "step " << step;
      }
      ASSERT_EQ(queue.count(), model.events.size()) << "step " << step;
      if (step % 97 == 0) {
        const Counts now{model.popped, model.events.size(), model.dropped};
        EXPECT_EQ(snapshot(queue), (Counts{now[0] - last[0], now[1], now[2] - last[2]}));
        last = now;
      }
    }
  }
}

// Exact fits, every wrap of a ring of 3 to 48 bytes and a refused push leaving the queue alone
// are the model's; here the exact refusals at the limits.
TEST(EventQueueTest, RefusesWhatCanNeverFit) {
  const struct {
    uint64_t size;
    uint32_t length;
    std::string error;
  } cases[] = {
      {10, 8, "value length 8 is larger than the size of the queue 10"},
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
      // The consumers take batches of different sizes and sleep in the queue's wait.
      std::string batch;
      std::vector<uint32_t> lengths;
      while (p >= kProducers) {
        batch.clear();
        lengths.clear();
        if (queue.popBatch(batch, lengths, 1 + p % 3 * 40) == 0) {
          if (producing == 0 && queue.count() == 0) return;
          queue.wait();
          continue;
        }
        size_t at = 0;
        for (const uint32_t length : lengths) {
          const std::string event = batch.substr(at, length);
          at += length;
          uint32_t id = 0;
          std::memcpy(&id, event.data(), sizeof id);
          if (id >= kTotal || event != makeEvent(id) || seen[id].fetch_add(1) != 0) ++bad;
          ++consumed;
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(bad, 0u);
  EXPECT_EQ(snapshot(queue), (Counts{consumed, 0, kTotal - consumed}));
}

}  // namespace
}  // namespace vantrelo::event::queue
