#include "filter/edge_filter.h"

#include <exception>
#include <utility>

#include "filter/question.h"

namespace vantrelo::filter {

EdgeFilter::EdgeFilter(std::shared_ptr<const FilterSettings> settings)
    : settings_(std::move(settings)), privacy_(settings_->privacy) {}

FilterCounts EdgeFilter::counts() const {
  return FilterCounts{droppedByDomain_.load(), droppedByKeep_.load(), droppedByType_.load(),
                      sampledOut_.load(), droppedUnreadable_.load()};
}

bool EdgeFilter::admit(encoding::dnstap::DnstapMessage& record, bool& changed) {
  changed = false;
  const FilterSettings& settings = *settings_;
  // The wire message the outputs show for this record: the query's for odd (query) types.
  const std::string& wire = (record.type & 1) != 0 ? record.query_message : record.response_message;
  Question question;
  readQuestion(wire, question);
  if (question.present && settings.dropDomains.covers(question.canonicalName())) {
    droppedByDomain_.fetch_add(1, std::memory_order_relaxed);
    return false;
  }
  if (settings.keepList &&
      !(question.present && settings.keepDomains.covers(question.canonicalName()))) {
    droppedByKeep_.fetch_add(1, std::memory_order_relaxed);
    return false;
  }
  if (question.present && settings.dropTypes.test(question.type)) {
    droppedByType_.fetch_add(1, std::memory_order_relaxed);
    return false;
  }
  // Hashed before privacy rewrites the address, so agents with other privacy settings agree.
  const auto port = static_cast<uint16_t>(record.query_port);
  if (settings.samples() &&
      transactionHash(record.query_address, port, question.id) % settings.sampleOneIn != 0) {
    sampledOut_.fetch_add(1, std::memory_order_relaxed);
    return false;
  }
  changed = privacy_.apply(record.query_address, record.socket_family);
  return true;
}

bool EdgeFilter::admitUnreadable() {
  if (!settings_->hidesClients()) return true;
  droppedUnreadable_.fetch_add(1, std::memory_order_relaxed);
  return false;
}

bool FrameFilter::look(std::string_view& frame) {
  try {
    record_.decode(reinterpret_cast<const uint8_t*>(frame.data()),
                   static_cast<uint32_t>(frame.size()), 0);
  } catch (const std::exception&) {
    return filter_->admitUnreadable();
  }
  bool changed = false;
  if (!filter_->admit(record_, changed)) return false;
  if (changed) {
    encoded_.clear();
    record_.encode(encoded_);
    frame = encoded_;
  }
  return true;
}

}  // namespace vantrelo::filter
