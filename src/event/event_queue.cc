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

void EventQueue::restartIfEmpty() {
  // A queue that keeps up then reuses the same few pages, warm in the cache, instead of walking
  // the whole ring and touching each page of it for the first time. Which events stay and which
  // are dropped depends only on the bytes in use, so nothing else changes.
  if (empty()) readIndex_ = writeIndex_ = 0;
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
  if (queued_ > 0) --queued_;
}

void EventQueue::checkFits(uint32_t length) const {
  const uint64_t needed = uint64_t{length} + kLengthBytes;
  if (needed > options_.size) {
    throw QueueError("value length " + std::to_string(length) +
                     " is larger than the size of the queue " + std::to_string(options_.size));
  }
  if (length > kMaxEventLength) {
    throw QueueError("value length " + std::to_string(length) +
                     " is larger than the maximum allowed of " + std::to_string(kMaxEventLength));
  }
}

void EventQueue::append(const uint8_t* data, uint32_t length) {
  const uint64_t needed = uint64_t{length} + kLengthBytes;
  const uint8_t header[kLengthBytes] = {static_cast<uint8_t>(length >> 16),
                                        static_cast<uint8_t>(length >> 8),
                                        static_cast<uint8_t>(length)};
  // Dropping before writing frees exactly the events that writing byte by byte would have
  // overwritten: the oldest ones, as few as give the new event room.
  while (options_.size - usedBytes() < needed) dropOldest();
  write(header, kLengthBytes);
  write(data, length);
  ++queued_;
}

void EventQueue::wakeOne(bool sleeping) {
  // Notifying after the unlock spares the woken thread a futile wait for the mutex; a consumer
  // that starts sleeping in between has checked the ring under the mutex and seen the event.
  if (sleeping) condition_.notify_one();
}

void EventQueue::push(const uint8_t* data, uint32_t length) {
  checkFits(length);
  bool sleeping = false;
  {
    std::lock_guard<std::mutex> lock(dataMutex_);
    append(data, length);
    count_.store(queued_);
    pushed_.fetch_add(1);
    sleeping = sleepers_ > 0;
  }
  wakeOne(sleeping);
}

void EventQueue::pushBatch(const EventSpan* events, size_t count) {
  size_t fitting = 0;
  while (fitting < count && fits(events[fitting].length)) ++fitting;
  bool sleeping = false;
  if (fitting > 0) {
    std::lock_guard<std::mutex> lock(dataMutex_);
    for (size_t i = 0; i < fitting; ++i) append(events[i].data, events[i].length);
    count_.store(queued_);
    pushed_.fetch_add(fitting);
    sleeping = sleepers_ > 0;
  }
  wakeOne(sleeping);
  if (fitting < count) checkFits(events[fitting].length);
}

uint32_t EventQueue::take(std::string& out) {
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
  return length;
}

void EventQueue::pop(std::string& out) {
  std::lock_guard<std::mutex> lock(dataMutex_);
  if (empty()) return;
  take(out);
  restartIfEmpty();
  if (queued_ > 0) --queued_;
  count_.store(queued_);
  popped_.fetch_add(1);
}

uint32_t EventQueue::popBatch(std::string& out, std::vector<uint32_t>& lengths, uint32_t most) {
  uint32_t taken = 0;
  bool sleeping = false;
  {
    std::lock_guard<std::mutex> lock(dataMutex_);
    for (; taken < most && !empty(); ++taken) lengths.push_back(take(out));
    if (taken == 0) return 0;
    restartIfEmpty();
    queued_ -= taken < queued_ ? taken : queued_;
    count_.store(queued_);
    popped_.fetch_add(taken);
    // More than one batch was queued: another consumer can take the rest at the same time.
    sleeping = sleepers_ > 0 && !empty();
  }
  wakeOne(sleeping);
  return taken;
}

bool EventQueue::waitFor(std::chrono::milliseconds timeout) {
  // The ring is checked under the mutex pushes take, so an event pushed before the sleep is
  // seen here and one pushed after it finds a sleeper to wake. The time-out bounds how late a
  // stop flag set without wakeAll, or a wakeAll that came just before this call, is noticed.
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  std::unique_lock<std::mutex> lock(dataMutex_);
  const uint64_t generation = wakeGeneration_;
  while (empty() && generation == wakeGeneration_) {
    ++sleepers_;
    const std::cv_status status = condition_.wait_until(lock, deadline);
    --sleepers_;
    if (status == std::cv_status::timeout) break;
  }
  return !empty();
}

void EventQueue::wakeAll() {
  {
    std::lock_guard<std::mutex> lock(dataMutex_);
    ++wakeGeneration_;
  }
  condition_.notify_all();
}

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
