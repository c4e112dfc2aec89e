#include "event/event_queue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <deque>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace ns::event::queue {
namespace {

const uint8_t* bytes(const std::string& s) { return reinterpret_cast<const uint8_t*>(s.data()); }

void push(EventQueue& queue, const std::string& event) {
  queue.push(bytes(event), static_cast<uint32_t>(event.size()));
}

std::string popOne(EventQueue& queue) {
  std::string out;
  queue.pop(out);
  return out;
}

QueueOptions sized(uint64_t size) {
  QueueOptions options;
  options.size = size;
  return options;
}

// The queue's behaviour without the ring: whole events, dropped oldest first until the new one
// fits. Also remembers where each event's length would start in a ring, to prove coverage.
struct ReferenceQueue {
  uint64_t size = 0;
  std::deque<std::string> events;
  uint64_t used = 0;
  uint64_t dropped = 0;
  uint64_t popped = 0;
  uint64_t writePosition = 0;
  std::set<uint64_t> headerPositions;

  bool push(const std::string& event) {
    const uint64_t needed = event.size() + kLengthBytes;
    if (needed > size || event.size() > kMaxEventLength) return false;
    while (size - used < needed) {
      used -= events.front().size() + kLengthBytes;
      events.pop_front();
      ++dropped;
    }
    headerPositions.insert(writePosition);
    writePosition = (writePosition + needed) % size;
    events.push_back(event);
    used += needed;
    return true;
  }
  bool pop(std::string& out) {
    if (events.empty()) return false;
    out += events.front();
    used -= events.front().size() + kLengthBytes;
    events.pop_front();
    ++popped;
    return true;
  }
};

TEST(EventQueueTest, MatchesReferenceOverRandomTraffic) {
  std::mt19937 random(20240611);
  for (uint64_t size = 3; size <= 48; ++size) {
    SCOPED_TRACE("size " + std::to_string(size));
    EventQueue queue(sized(size));
    ReferenceQueue model;
    model.size = size;
    uint64_t lastPopped = 0;
    uint64_t lastDropped = 0;
    for (int step = 0; step < 3000; ++step) {
      if (random() % 5 < 3) {
        // Mostly events that fit, sometimes one byte too long.
        const size_t length = random() % (size - 1);
        std::string event(length, '\0');
        for (char& c : event) c = static_cast<char>(random());
        const bool fits = model.push(event);
        if (fits) {
          push(queue, event);
        } else {
          EXPECT_THROW(push(queue, event), QueueError);
        }
      } else {
        const std::string prefix(random() % 3, 'p');
        std::string expected = prefix;
        std::string actual = prefix;
        model.pop(expected);
        queue.pop(actual);
        ASSERT_EQ(actual, expected) << "step " << step;
      }
      ASSERT_EQ(queue.count(), model.events.size()) << "step " << step;
      if (step % 97 == 0) {
        uint64_t processed = 0, queued = 0, dropped = 0;
        queue.snapshot(processed, queued, dropped);
        EXPECT_EQ(processed, model.popped - lastPopped);
        EXPECT_EQ(dropped, model.dropped - lastDropped);
        EXPECT_EQ(queued, model.events.size());
        lastPopped = model.popped;
        lastDropped = model.dropped;
      }
    }
    for (std::string expected; model.pop(expected); expected.clear()) {
      ASSERT_EQ(popOne(queue), expected);
    }
    EXPECT_EQ(queue.count(), 0u);
    // Every position of the ring has held the first length byte of some event, so lengths and
    // data have straddled the end in every possible way (a 3-byte ring only holds empty events,
    // all at 0).
    EXPECT_EQ(model.headerPositions.size(), size == kLengthBytes ? 1u : size);
  }
}

TEST(EventQueueTest, RejectsEventsThatCanNeverFit) {
  struct Case {
    uint64_t size;
    uint32_t length;
    std::string message;
  };
  const std::vector<Case> cases = {
      {10, 8, "value length 8 is larger than the size of the queue 10"},
      {10, 16777216, "value length 16777216 is larger than the size of the queue 10"},
      {10, 4294967295u, "value length 4294967295 is larger than the size of the queue 10"},
      {16777220, 16777216, "value length 16777216 is larger than the maximum allowed of 16777215"},
      {0, 0, "value length 0 is larger than the size of the queue 0"},
  };
  static const std::vector<uint8_t> data(16777216, 0x55);
  for (const Case& c : cases) {
    EventQueue queue(sized(c.size));
    if (c.size >= 4) push(queue, "x");
    try {
      queue.push(data.data(), c.length);
      ADD_FAILURE() << "no error for " << c.length;
    } catch (const QueueError& e) {
      EXPECT_EQ(std::string(e.what()), c.message);
    }
    uint64_t processed = 0, queued = 0, dropped = 0;
    queue.snapshot(processed, queued, dropped);
    EXPECT_EQ(queued, c.size >= 4 ? 1u : 0u);
    EXPECT_EQ(dropped, 0u);
    if (c.size >= 4) {
      EXPECT_EQ(popOne(queue), "x");
    }
  }
}

TEST(EventQueueTest, FullRingDropsAsManyOldestEventsAsThePushNeeds) {
  struct Case {
    uint64_t size;
    std::vector<std::string> pushes;
    uint64_t dropped;
    std::vector<std::string> left;
  };
  const std::vector<Case> cases = {
      {10, {"1234567"}, 0, {"1234567"}},  // 7 + 3 = 10: exactly full
      {10, {"1234567", "a", "bc"}, 1, {"a", "bc"}},
      {20, {"aa", "bb", "cc", "dd", "123456789"}, 3, {"dd", "123456789"}},
  };
  for (const Case& c : cases) {
    EventQueue queue(sized(c.size));
    for (const std::string& event : c.pushes) push(queue, event);
    uint64_t processed = 0, queued = 0, dropped = 0;
    queue.snapshot(processed, queued, dropped);
    EXPECT_EQ(dropped, c.dropped);
    EXPECT_EQ(queued, c.left.size());
    for (const std::string& event : c.left) EXPECT_EQ(popOne(queue), event);
    EXPECT_EQ(popOne(queue), "");
  }
}

TEST(EventQueueTest, ZeroLengthEventsAreStoredAndPopAsNothing) {
  EventQueue queue(sized(3));
  push(queue, "");
  push(queue, "");  // the ring holds exactly one: the first is dropped
  EXPECT_EQ(queue.count(), 1u);
  std::string out = "kept";
  queue.pop(out);
  EXPECT_EQ(out, "kept");
  EXPECT_EQ(queue.count(), 0u);
  uint64_t processed = 0, queued = 0, dropped = 0;
  queue.snapshot(processed, queued, dropped);
  EXPECT_EQ(processed, 1u);
  EXPECT_EQ(dropped, 1u);
  // Empty now: a pop changes neither the buffer nor a counter.
  queue.pop(out);
  queue.snapshot(processed, queued, dropped);
  EXPECT_EQ(out, "kept");
  EXPECT_EQ(processed, 0u);
}

TEST(EventQueueTest, SnapshotReportsDifferencesSinceTheLastOne) {
  EventQueue queue(sized(12));
  struct Step {
    int pushes;  // of 2-byte events, 5 ring bytes each: the third push on a full ring drops
    int pops;
    uint64_t processed, queued, dropped;
  };
  const std::vector<Step> steps = {
      {2, 0, 0, 2, 0}, {0, 0, 0, 2, 0}, {3, 1, 1, 1, 3}, {0, 1, 1, 0, 0}, {0, 0, 0, 0, 0},
  };
  for (size_t i = 0; i < steps.size(); ++i) {
    for (int n = 0; n < steps[i].pushes; ++n) push(queue, "ev");
    for (int n = 0; n < steps[i].pops; ++n) popOne(queue);
    uint64_t processed = 9, queued = 9, dropped = 9;
    queue.snapshot(processed, queued, dropped);
    EXPECT_EQ(processed, steps[i].processed) << "step " << i;
    EXPECT_EQ(queued, steps[i].queued) << "step " << i;
    EXPECT_EQ(dropped, steps[i].dropped) << "step " << i;
  }
}

TEST(EventQueueTest, AllocationFailureNamesTheSize) {
  const uint64_t huge = uint64_t{1} << 62;
  try {
    EventQueue queue(sized(huge));
    ADD_FAILURE() << "allocated 2^62 bytes";
  } catch (const QueueError& e) {
    EXPECT_EQ(std::string(e.what()),
              "malloc(4611686018427387904) failed: " + ns::error::systemErrorText(ENOMEM));
  }
}

TEST(EventQueueTest, WaitReturnsOnPushAndOnWakeAll) {
  EventQueue queue(sized(64));
  for (bool byPush : {true, false}) {
    std::atomic<bool> done{false};
    std::thread waiter([&] {
      queue.wait();
      done = true;
    });
    // The waiter may not be waiting yet when we signal, so keep signalling until it returns.
    while (!done) {
      if (byPush) {
        push(queue, "w");
      } else {
        queue.wakeAll();
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    waiter.join();
    while (queue.count() > 0) popOne(queue);
  }
}

// Events carry their id and a pattern derived from it, so a consumer can tell a torn or mixed-up
// event from a good one.
std::string makeEvent(uint32_t id) {
  std::string event(8 + id % 61, '\0');
  std::memcpy(event.data(), &id, sizeof id);
  for (size_t i = sizeof id; i < event.size(); ++i) event[i] = static_cast<char>(id * 31 + i);
  return event;
}

TEST(EventQueueTest, ConcurrentProducersAndConsumersLoseNothingUncounted) {
  constexpr int kProducers = 4;
  constexpr int kConsumers = 3;
  constexpr uint32_t kPerProducer = 20000;
  constexpr uint32_t kTotal = kProducers * kPerProducer;
  EventQueue queue(sized(2048));  // small, so the producers overrun it now and then
  std::vector<std::atomic<int>> seen(kTotal);
  std::atomic<int> producing{kProducers};
  std::atomic<uint64_t> bad{0};
  std::atomic<uint64_t> consumed{0};

  std::vector<std::thread> threads;
  for (int p = 0; p < kProducers; ++p) {
    threads.emplace_back([&, p] {
      for (uint32_t i = 0; i < kPerProducer; ++i) push(queue, makeEvent(p * kPerProducer + i));
      --producing;
    });
  }
  for (int c = 0; c < kConsumers; ++c) {
    threads.emplace_back([&] {
      std::string batch;
      for (;;) {
        batch.clear();
        queue.pop(batch);
        if (batch.empty()) {
          if (producing == 0 && queue.count() == 0) return;
          std::this_thread::yield();
          continue;
        }
        uint32_t id = 0;
        std::memcpy(&id, batch.data(), sizeof id);
        if (id >= kTotal || batch != makeEvent(id) || seen[id].fetch_add(1) != 0) ++bad;
        ++consumed;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();

  uint64_t processed = 0, queued = 0, dropped = 0;
  queue.snapshot(processed, queued, dropped);
  EXPECT_EQ(bad, 0u);
  EXPECT_EQ(queued, 0u);
  EXPECT_EQ(processed, consumed);
  EXPECT_EQ(processed + dropped, kTotal);
}

}  // namespace
}  // namespace ns::event::queue
