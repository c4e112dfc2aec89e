// The bridge from a decoder of captured events to the queue: each record it is handed is
// encoded as dnstap and pushed, so that captured events travel to the forwarders exactly like
// the ones a receiver relays.
//
// Ownership: the EventPusher owns its encode buffer, reused for every record; the queue is
// borrowed and outlives it. Thread-safety: used by one capturing thread at a time (the queue
// itself may be shared).
#pragma once

#include <string>

#include "encoding/dnstap_message.h"
#include "event/event_queue.h"
#include "filter/edge_filter.h"

namespace vantrelo::worker {

class EventPusher {
 public:
  // `filter` (the listener's, borrowed) is null when no filter is configured.
  explicit EventPusher(event::queue::EventQueue& queue, filter::EdgeFilter* filter = nullptr)
      : queue_(queue), filter_(filter) {}

  // Encodes and pushes one record, unless a filter drops it.
  void push(encoding::dnstap::DnstapMessage& message);

  // The same as an event handler: `self` is the EventPusher.
  static void handle(encoding::dnstap::DnstapMessage& message, void* self) {
    static_cast<EventPusher*>(self)->push(message);
  }

 private:
  event::queue::EventQueue& queue_;
  filter::EdgeFilter* const filter_;
  std::string encoded_;
};

}  // namespace vantrelo::worker
