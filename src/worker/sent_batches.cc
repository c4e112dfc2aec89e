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
  if (unacknowledged < 0) {
    // Nothing to go by: the last batch is all that is vouched for, as the system's buffer may
    // well have taken it without the collector ever seeing it.
    while (kept_.size() > 1) forgetOldest();
    return;
  }
  const uint64_t pending = static_cast<uint64_t>(unacknowledged);
  const uint64_t acknowledged = pending >= streamEnd ? 0 : streamEnd - pending;
  while (!kept_.empty() && kept_.front().streamEnd <= acknowledged) forgetOldest();
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
