#include "worker/event_pusher.h"

#include <cstdint>

namespace vantrelo::worker {

void EventPusher::push(encoding::dnstap::DnstapMessage& message) {
  encoded_.clear();
  message.encode(encoded_);
  queue_.push(reinterpret_cast<const uint8_t*>(encoded_.data()),
              static_cast<uint32_t>(encoded_.size()));
}

}  // namespace vantrelo::worker
