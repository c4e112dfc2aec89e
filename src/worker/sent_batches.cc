#include "worker/sent_batches.h"

#include <utility>

namespace vantrelo::worker::forwarder {

void Batch::clear() {
  events.clear();
  lengths.clear();
  bytes = 0;
}

void SentBatches::keep(Batch& batch, uint64_t streamEnd, int64_t unacknowledged) {
  Kept& kept = kept_.emplace_back();
  if (!spare_.empty()) {
    kept.batch = std::move(spare_.back());
    spare_.pop_back();
  }
  std::swap(kept.batch, batch);
  kept.streamEnd = streamEnd;
  count_ += kept.batch.count();
  batch.clear();
  acknowledge(streamEnd, unacknowledged);
}

void SentBatches::acknowledge(uint64_t streamEnd, int64_t unacknowledged) {
  // The last batch stays whatever was acknowledged: a collector that fails may have taken it
  // into its socket without ever processing it. With nothing to go by it is all that stays.
  uint64_t acknowledged = streamEnd;
  if (unacknowledged >= 0) {
    const uint64_t pending = static_cast<uint64_t>(unacknowledged);
    acknowledged = pending >= streamEnd ? 0 : streamEnd - pending;
  }
  while (kept_.size() > 1 && kept_.front().streamEnd <= acknowledged) forgetOldest();
}

void SentBatches::returnTo(event::queue::EventQueue& queue) {
  for (const Kept& kept : kept_) {
    const auto* data = reinterpret_cast<const uint8_t*>(kept.batch.events.data());
    for (uint32_t length : kept.batch.lengths) {
      if (length != 0) queue.push(data, length);
      data += length;
    }
  }
  clear();
}

void SentBatches::clear() {
  while (!kept_.empty()) forgetOldest();
}

void SentBatches::forgetOldest() {
  Batch& batch = kept_.front().batch;
  count_ -= batch.count();
  batch.clear();
  spare_.push_back(std::move(batch));
  kept_.pop_front();
}

}  // namespace vantrelo::worker::forwarder
