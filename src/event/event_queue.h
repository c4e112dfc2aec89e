// The bounded store of encoded events between the sources and the forwarders.
//
// One fixed byte ring, allocated once; each event sits behind a 3-byte big-endian length. A push
// never blocks and never fails for lack of room: it overwrites the oldest events, counted as
// dropped. Any number of producer and consumer threads; the ring is guarded by one mutex and the
// counters are atomics, so the metrics thread reads them without the lock.
//
// The lock is taken once per batch, not once per event: a receiver hands over every frame one
// read produced in one pushBatch, and a forwarder takes up to its batch size in one popBatch.
// Consumers sleep on a condition of that same mutex, so a push either sees a waiter and wakes it
// or happened before the waiter checked the ring; producers pay for a wake only when someone
// sleeps. Every wait is bounded, so a missed wakeAll costs at most one wait bound.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

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
// The longest a consumer sleeps in wait() before it looks at the ring and its stop flag again.
inline constexpr std::chrono::milliseconds kWaitBound{50};

// One event handed to pushBatch: bytes owned by the caller, read only during the call.
struct EventSpan {
  const uint8_t* data;
  uint32_t length;
};

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
  // Appends the events in order under one lock, each exactly as push would. Throws QueueError
  // at the first event that can never fit, after the ones before it went in.
  void pushBatch(const EventSpan* events, size_t count);
  // Removes the oldest event and appends its bytes to `out`; nothing when empty.
  void pop(std::string& out);
  // Removes up to `most` of the oldest events under one lock, appending their bytes back to back
  // to `out` and each length to `lengths`. Returns how many it took (0 when empty).
  uint32_t popBatch(std::string& out, std::vector<uint32_t>& lengths, uint32_t most);
  // Sleeps until an event is queued, wakeAll is called or `timeout` has passed; returns at once
  // when events are queued. Returns whether events are queued; a hint only, the caller pops.
  bool waitFor(std::chrono::milliseconds timeout);
  void wait() { waitFor(kWaitBound); }
  // Wakes every consumer sleeping in a wait now.
  void wakeAll();
  // For the metrics report: events popped and dropped since the last snapshot, events queued now.
  void snapshot(uint64_t& processed, uint64_t& queued, uint64_t& dropped);
  QueueTotals totals();

  // Whether an event of `length` bytes can ever be pushed.
  bool fits(uint32_t length) const {
    return uint64_t{length} + kLengthBytes <= options_.size && length <= kMaxEventLength;
  }
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
  // Moves both indices back to the start of the ring when it holds nothing.
  void restartIfEmpty();
  // Removes the oldest event without reading it out.
  void dropOldest();
  // Checks that an event can ever fit; throws QueueError when not.
  void checkFits(uint32_t length) const;
  // Drops as needed and writes one event with its length; caller holds dataMutex_.
  void append(const uint8_t* data, uint32_t length);
  // Moves the oldest event's bytes to the end of `out` and returns its length; caller holds
  // dataMutex_ and has checked that the ring is not empty.
  uint32_t take(std::string& out);
  // Wakes one sleeping consumer if there is one; called after dataMutex_ is released, with
  // whether a consumer slept while it was held.
  void wakeOne(bool sleeping);

  QueueOptions options_;
  uint8_t* buffer_ = nullptr;
  uint64_t readIndex_ = 0;   // first length byte of the oldest event
  uint64_t writeIndex_ = 0;  // where the next byte goes
  bool wrapped_ = false;     // the writer has passed the end of the ring, the reader not yet
  uint64_t queued_ = 0;      // events in the ring; count_ publishes it to readers without the lock
  std::mutex dataMutex_;
  std::condition_variable condition_;  // waits under dataMutex_
  uint32_t sleepers_ = 0;              // consumers in a wait; guarded by dataMutex_
  uint64_t wakeGeneration_ = 0;        // bumped by wakeAll; guarded by dataMutex_
  std::atomic<uint64_t> pushed_{0};
  std::atomic<uint64_t> popped_{0};
  std::atomic<uint64_t> count_{0};
  std::atomic<uint64_t> dropped_{0};
  std::atomic<uint64_t> lastPopped_{0};
  std::atomic<uint64_t> lastCount_{0};
  std::atomic<uint64_t> lastDropped_{0};
};

}  // namespace vantrelo::event::queue
