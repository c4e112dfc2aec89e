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

#include "encoding/error.h"

namespace ns::event::queue {

NS_DEFINE_ERROR(QueueError);

struct QueueOptions {
  uint64_t size = 104857600;          // capacity of the ring in bytes
  bool recovery = true;               // save to and reload from `filename`
  std::string filename = "event.queue";
};

inline constexpr uint32_t kMaxEventLength = 16777215;  // what a 3-byte length can say

class EventQueue {
 public:
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

  const QueueOptions& options() const { return options_; }
  uint64_t count() const { return count_.load(); }

 private:
  // Implementation detail, owned by the event module's developer.
  QueueOptions options_;
  uint8_t* buffer_ = nullptr;
  uint64_t readIndex_ = 0;
  uint64_t writeIndex_ = 0;
  bool wrapped_ = false;
  std::mutex dataMutex_;
  std::mutex waitMutex_;
  std::condition_variable condition_;
  std::atomic<uint64_t> popped_{0};
  std::atomic<uint64_t> count_{0};
  std::atomic<uint64_t> dropped_{0};
  std::atomic<uint64_t> lastPopped_{0};
  std::atomic<uint64_t> lastCount_{0};
  std::atomic<uint64_t> lastDropped_{0};
};

}  // namespace ns::event::queue
