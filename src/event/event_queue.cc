#include "event/event_queue.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace vantrelo::event::queue {

EventQueue::EventQueue(const QueueOptions& options) : options_(options) {
  // One zeroed block for the life of the queue. A ring of 0 bytes takes no event at all but
  // still needs a valid pointer, since calloc(0) may legitimately give none.
  errno = 0;
  buffer_ = static_cast<uint8_t*>(std::calloc(options_.size != 0 ? options_.size : 1, 1));
  if (buffer_ == nullptr) {
    // Some C runtimes fail an impossible size without setting errno; it is still out of memory.
    const uint32_t code = errno != 0 ? vantrelo::error::lastCError() : uint32_t{ENOMEM};
    throw QueueError("malloc(" + std::to_string(options_.size) +
                     ") failed: " + vantrelo::error::cErrorText(code));
  }
}

EventQueue::~EventQueue() { std::free(buffer_); }

uint64_t EventQueue::usedBytes() const {
  if (wrapped_) return options_.size - readIndex_ + writeIndex_;
  return readIndex_ < writeIndex_ ? writeIndex_ - readIndex_ : 0;
}

uint32_t EventQueue::lengthAtRead() const {
  uint32_t length = 0;
  uint64_t position = readIndex_;
  for (uint32_t i = 0; i < kLengthBytes; ++i) {
    length = (length << 8) | buffer_[position];
    if (++position == options_.size) position = 0;
  }
  return length;
}

void EventQueue::advanceRead(uint64_t count) {
  readIndex_ += count;
  if (readIndex_ >= options_.size) {
    readIndex_ -= options_.size;
    wrapped_ = false;
  }
}

void EventQueue::write(const uint8_t* data, uint64_t length) {
  uint64_t first = options_.size - writeIndex_;
  if (length < first) {
    std::memcpy(buffer_ + writeIndex_, data, length);
    writeIndex_ += length;
    return;
  }
  // Reaches or passes the end: the writer is now a lap ahead of the reader.
  std::memcpy(buffer_ + writeIndex_, data, first);
  std::memcpy(buffer_, data + first, length - first);
  writeIndex_ = length - first;
  wrapped_ = true;
}

void EventQueue::dropOldest() {
  advanceRead(uint64_t{lengthAtRead()} + kLengthBytes);
  dropped_.fetch_add(1);
  // count_ only changes under the data mutex, so the test and the decrement cannot race.
  if (count_.load() > 0) count_.fetch_sub(1);
}

void EventQueue::push(const uint8_t* data, uint32_t length) {
  const uint64_t needed = uint64_t{length} + kLengthBytes;
  if (needed > options_.size) {
    throw QueueError("value length " + std::to_string(length) +
                     " is larger than the size of the queue " + std::to_string(options_.size));
  }
  if (length > kMaxEventLength) {
    throw QueueError("value length " + std::to_string(length) +
                     " is larger than the maximum allowed of " + std::to_string(kMaxEventLength));
  }
  const uint8_t header[kLengthBytes] = {static_cast<uint8_t>(length >> 16),
                                        static_cast<uint8_t>(length >> 8),
                                        static_cast<uint8_t>(length)};
  std::lock_guard<std::mutex> lock(dataMutex_);
  // Dropping before writing frees exactly the events that writing byte by byte would have
  // overwritten: the oldest ones, as few as give the new event room.
  while (options_.size - usedBytes() < needed) dropOldest();
  write(header, kLengthBytes);
  write(data, length);
  count_.fetch_add(1);
  pushed_.fetch_add(1);
  condition_.notify_one();
}

void EventQueue::pop(std::string& out) {
  std::lock_guard<std::mutex> lock(dataMutex_);
  if (empty()) return;
  const uint32_t length = lengthAtRead();
  advanceRead(kLengthBytes);
  const uint64_t first = options_.size - readIndex_;
  const char* ring = reinterpret_cast<const char*>(buffer_);
  if (length < first) {
    out.append(ring + readIndex_, length);
    readIndex_ += length;
  } else {
    out.append(ring + readIndex_, first);
    out.append(ring, length - first);
    readIndex_ = length - first;
    wrapped_ = false;
  }
  if (count_.load() > 0) count_.fetch_sub(1);
  popped_.fetch_add(1);
}

void EventQueue::wait() {
  // Deliberately its own mutex and no predicate: a consumer treats the return as a hint and pops
  // again, and the stop path calls wakeAll, so a missed notification only delays it.
  std::unique_lock<std::mutex> lock(waitMutex_);
  condition_.wait(lock);
}

void EventQueue::wakeAll() { condition_.notify_all(); }

void EventQueue::snapshot(uint64_t& processed, uint64_t& queued, uint64_t& dropped) {
  const uint64_t popped = popped_.load();
  const uint64_t count = count_.load();
  const uint64_t droppedNow = dropped_.load();
  processed = popped - lastPopped_.exchange(popped);
  queued = count;
  lastCount_.store(count);
  dropped = droppedNow - lastDropped_.exchange(droppedNow);
}

QueueTotals EventQueue::totals() {
  QueueTotals totals;
  totals.pushed = pushed_.load();
  totals.popped = popped_.load();
  totals.dropped = dropped_.load();
  totals.held = count_.load();
  totals.capacity = options_.size;
  std::lock_guard<std::mutex> lock(dataMutex_);
  totals.usedBytes = usedBytes();
  return totals;
}

}  // namespace vantrelo::event::queue
