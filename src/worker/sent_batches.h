// The batches a forwarder has written that its collector may not have taken yet.
//
// A write only hands bytes to the system; the collector has them once its TCP acknowledged
// them. SentBatches keeps each written batch's events with the place where the batch ends in
// the connection's byte stream (every layer's bytes counted: TLS records, Frame Streams
// framing), and forgets a batch once the socket reports every byte up to that place
// acknowledged; the last batch written always stays, as a failing collector may have
// acknowledged it without processing it. On a connection error the events still kept go back
// into the queue, oldest first: nothing the collector's TCP did not acknowledge is lost. Since
// the socket can hold no more unacknowledged bytes than its send buffer, what is kept stays
// within about that size (in formatted bytes) plus one batch. When the system cannot tell what
// was acknowledged, only the last batch is kept.
//
// Ownership: owns the kept events; batches are swapped in and out, so their storage is
// recycled and steady-state use allocates nothing. Not thread-safe: the forwarder's thread
// alone uses it.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "event/event_queue.h"

namespace vantrelo::worker::forwarder {

// The encoded events of one batch, kept as they came out of the queue so that they can be
// returned to it, and the size of what was formatted from them. Reused batch after batch.
struct Batch {
  std::string events;             // the events back to back
  std::vector<uint32_t> lengths;  // the length of each, in order
  uint64_t bytes = 0;             // bytes formatted into the send buffer

  uint32_t count() const { return static_cast<uint32_t>(lengths.size()); }
  void clear();
};

class SentBatches {
 public:
  // Takes the events of a batch just written, leaving `batch` empty (with recycled storage).
  // `streamEnd` is the connection's byte count after the write; `unacknowledged` how many of
  // those bytes the peer has not acknowledged, or -1 when unknown.
  void keep(Batch& batch, uint64_t streamEnd, int64_t unacknowledged);
  // Forgets the batches that lie wholly within the acknowledged part of the stream, but the last.
  void acknowledge(uint64_t streamEnd, int64_t unacknowledged);
  // Pushes every kept event back into the queue, oldest first, and forgets them all.
  void returnTo(event::queue::EventQueue& queue);
  // Forgets every kept batch (a fresh connection starts a fresh byte stream).
  void clear();

  uint32_t count() const { return count_; }
  bool empty() const { return kept_.empty(); }

 private:
  struct Kept {
    Batch batch;
    uint64_t streamEnd = 0;
  };
  void forgetOldest();

  std::deque<Kept> kept_;
  std::vector<Batch> spare_;  // emptied batches, kept for their capacity
  uint32_t count_ = 0;        // events kept
};

}  // namespace vantrelo::worker::forwarder
