#include "worker/event_pusher.h"

#include <cstdint>

namespace vantrelo::worker {

void EventPusher::push(encoding::dnstap::DnstapMessage& message) {
  bool changed = false;
  if (filter_ != nullptr && !filter_->admit(message, changed)) return;
  encoded_.clear();
  message.encode(encoded_);
  queue_.push(reinterpret_cast<const uint8_t*>(encoded_.data()),
              static_cast<uint32_t>(encoded_.size()));
}

}  // namespace vantrelo::worker
