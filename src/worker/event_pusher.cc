#include "worker/event_pusher.h"

namespace vantrelo::worker {

void EventPusher::push(encoding::dnstap::DnstapMessage& message) {
  bool changed = false;
  if (filter_ != nullptr && !filter_->admit(message, changed)) return;
  const size_t start = encoded_.size();
  message.encode(encoded_);
  const auto length = static_cast<uint32_t>(encoded_.size() - start);
  if (!queue_.fits(length)) {
    // The queue refuses it with its own error, as it would have alone; what came before it
    // still goes in first.
    const std::string refused = encoded_.substr(start);
    encoded_.resize(start);
    flush();
    queue_.push(reinterpret_cast<const uint8_t*>(refused.data()), length);
    return;
  }
  lengths_.push_back(length);
  if (lengths_.size() >= kBatchEvents) flush();
}

void EventPusher::flush() {
  if (lengths_.empty()) return;
  spans_.clear();
  const auto* data = reinterpret_cast<const uint8_t*>(encoded_.data());
  for (const uint32_t length : lengths_) {
    spans_.push_back({data, length});
    data += length;
  }
  queue_.pushBatch(spans_.data(), spans_.size());
  encoded_.clear();
  lengths_.clear();
}

}  // namespace vantrelo::worker
