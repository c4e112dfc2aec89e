// The bridge from a decoder of captured events to the queue: each record it is handed is
// encoded as dnstap and queued, so that captured events travel to the forwarders exactly like
// the ones a receiver relays.
//
// The encoded records are kept and handed to the queue together, under one lock of it: when the
// capture says a delivery of events is over (the end of each buffer the system delivers, and the
// end of processing), and whenever kBatchEvents records are waiting. The capture only waits
// after a delivery is over, so no record waits in the pusher while nothing else arrives.
//
// Ownership: the EventPusher owns its buffers, reused for every record; the queue is borrowed
// and outlives it. Thread-safety: used by one capturing thread at a time (the queue itself may
// be shared).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "encoding/dnstap_message.h"
#include "event/event_queue.h"
#include "filter/edge_filter.h"

namespace vantrelo::worker {

class EventPusher {
 public:
  // The most records kept before they are queued without waiting for the end of a delivery.
  static constexpr uint32_t kBatchEvents = 256;

  // `filter` (the listener's, borrowed) is null when no filter is configured.
  explicit EventPusher(event::queue::EventQueue& queue, filter::EdgeFilter* filter = nullptr)
      : queue_(queue), filter_(filter) {}

  // Encodes and keeps one record, unless a filter drops it. A record too long for the queue
  // throws QueueError, after the records before it were queued.
  void push(encoding::dnstap::DnstapMessage& message);
  // Queues every kept record, in order.
  void flush();

  // The same as an event handler and a delivery's end handler: `self` is the EventPusher.
  static void handle(encoding::dnstap::DnstapMessage& message, void* self) {
    static_cast<EventPusher*>(self)->push(message);
  }
  static void flushHandle(void* self) { static_cast<EventPusher*>(self)->flush(); }

 private:
  event::queue::EventQueue& queue_;
  filter::EdgeFilter* const filter_;
  std::string encoded_;                         // the kept records, back to back
  std::vector<uint32_t> lengths_;               // and their lengths
  std::vector<event::queue::EventSpan> spans_;  // handed to the queue, rebuilt at each flush
};

}  // namespace vantrelo::worker
