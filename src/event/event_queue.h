// The bounded store of encoded events between the sources and the forwarders.
//
// One fixed byte ring, allocated once; each event sits behind a 3-byte big-endian length. A push
// never blocks and never fails for lack of room: it overwrites the oldest events, counted as
// dropped. Any number of producer and consumer threads; the ring is guarded by one mutex and the
// counters are atomics, so the metrics thread reads them without the lock.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>

#include "base/error.h"

namespace vantrelo::event::queue {

NS_DEFINE_ERROR(QueueError);

struct QueueOptions {
  uint64_t size = 104857600;  // capacity of the ring in bytes
  bool recovery = true;       // save to and reload from `filename`
  std::string filename = "event.queue";
};

inline constexpr uint32_t kMaxEventLength = 16777215;  // what a 3-byte length can say
inline constexpr uint32_t kLengthBytes = 3;            // per-event overhead in the ring

// Monotonic totals since the queue was made (the metrics endpoint's view; the report's snapshot
// gives per-interval deltas), and the fill level now.
struct QueueTotals {
  uint64_t pushed = 0;  // every push, events returned by a forwarder included
  uint64_t popped = 0;
  uint64_t dropped = 0;
  uint64_t held = 0;  // events in the ring now
  uint64_t usedBytes = 0;
  uint64_t capacity = 0;
};

// The queue owns its ring buffer (freed with the queue) and a copy of its options. Every member
// function is thread-safe; the ring and its indices are only touched under the data mutex.
class EventQueue {
 public:
  // Throws QueueError when the ring cannot be allocated.
  explicit EventQueue(const QueueOptions& options);
  ~EventQueue();
  EventQueue(const EventQueue&) = delete;
  EventQueue& operator=(const EventQueue&) = delete;

  // Appends one event, dropping the oldest as needed. Throws QueueError when the event can
  // never fit (longer than the ring less 3, or than kMaxEventLength).
  void push(const uint8_t* data, uint32_t length);
  // Removes the oldest event and appends its bytes to `out`; nothing when empty.
  void pop(std::string& out);
  // Waits once for a push or wakeAll; a hint only, the caller pops again.
  void wait();
  void wakeAll();
  // For the metrics report: events popped and dropped since the last snapshot, events queued now.
  void snapshot(uint64_t& processed, uint64_t& queued, uint64_t& dropped);
  QueueTotals totals();

  const QueueOptions& options() const { return options_; }
  uint64_t count() const { return count_.load(); }

 private:
  // Bytes held in the ring; caller holds dataMutex_.
  uint64_t usedBytes() const;
  bool empty() const { return !wrapped_ && readIndex_ >= writeIndex_; }
  // The 3-byte length at readIndex_, read across the end of the ring; caller holds dataMutex_.
  uint32_t lengthAtRead() const;
  // Moves readIndex_ by `count` bytes, wrapping (and clearing wrapped_) at the end of the ring.
  void advanceRead(uint64_t count);
  // Copies `length` bytes in at writeIndex_, in at most two pieces around the end of the ring.
  void write(const uint8_t* data, uint64_t length);
  // Removes the oldest event without reading it out.
  void dropOldest();

  QueueOptions options_;
  uint8_t* buffer_ = nullptr;
  uint64_t readIndex_ = 0;   // first length byte of the oldest event
  uint64_t writeIndex_ = 0;  // where the next byte goes
  bool wrapped_ = false;     // the writer has passed the end of the ring, the reader not yet
  std::mutex dataMutex_;
  std::mutex waitMutex_;
  std::condition_variable condition_;
  std::atomic<uint64_t> pushed_{0};
  std::atomic<uint64_t> popped_{0};
  std::atomic<uint64_t> count_{0};
  std::atomic<uint64_t> dropped_{0};
  std::atomic<uint64_t> lastPopped_{0};
  std::atomic<uint64_t> lastCount_{0};
  std::atomic<uint64_t> lastDropped_{0};
};

}  // namespace vantrelo::event::queue
