// The agent-wide filters applied where records enter the queue: domain drop and keep lists,
// drop by query type, 1-in-N sampling of transactions and client-address privacy.
//
// FilterSettings is built once from the configuration and shared, read-only, by every listener.
// Each listener owns one EdgeFilter (the settings plus that listener's counters); its ETW
// thread and all its receivers call it at once, so it keeps no per-call state and its counters
// are atomic. Each receiver owns a FrameFilter, the per-connection scratch (decoded record,
// re-encode buffer) needed to look inside relayed frames; a receiver without filters holds an
// empty one whose admit() returns at once.
//
// The rules run in a fixed order and a record is counted once, by the first rule that drops
// it: drop list, keep list, query type, sampling. Privacy then rewrites the survivors.
#pragma once

#include <atomic>
#include <bitset>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "encoding/dnstap_message.h"
#include "filter/client_address.h"
#include "filter/domain_set.h"

namespace vantrelo::filter {

struct FilterSettings {
  DomainSet dropDomains;
  DomainSet keepDomains;
  bool keepList = false;  // keep keys were given: records outside keepDomains go
  std::bitset<65536> dropTypes;
  uint32_t sampleOneIn = 1;
  PrivacySettings privacy;

  bool dropsTypes() const { return dropTypes.any(); }
  bool samples() const { return sampleOneIn > 1; }
  bool hidesClients() const { return privacy.mode != AddressMode::kKeep; }
  // True when at least one rule is set; without one no filter is built at all.
  bool any() const {
    return !dropDomains.empty() || keepList || dropsTypes() || samples() || hidesClients();
  }
};

// One listener's counters at one moment; a counter is meaningful only when its rule is set.
struct FilterCounts {
  uint64_t droppedByDomain = 0;    // on the drop list
  uint64_t droppedByKeep = 0;      // outside the keep list
  uint64_t droppedByType = 0;      // a dropped query type
  uint64_t sampledOut = 0;         // not in the sampled share
  uint64_t droppedUnreadable = 0;  // relayed frames that could not be decoded to hide the client
};

class EdgeFilter {
 public:
  explicit EdgeFilter(std::shared_ptr<const FilterSettings> settings);

  const FilterSettings& settings() const { return *settings_; }
  FilterCounts counts() const;

  // Decides on a decoded record and applies the address privacy to a survivor. Returns false
  // when the record is dropped (and counted); `changed` tells whether its address was rewritten.
  bool admit(encoding::dnstap::DnstapMessage& record, bool& changed);
  // A relayed frame that could not be decoded: dropped (and counted) when client addresses
  // must be hidden, passed on as it is otherwise, as the forwarders would report it anyway.
  bool admitUnreadable();

 private:
  const std::shared_ptr<const FilterSettings> settings_;
  const AddressPrivacy privacy_;
  std::atomic<uint64_t> droppedByDomain_{0};
  std::atomic<uint64_t> droppedByKeep_{0};
  std::atomic<uint64_t> droppedByType_{0};
  std::atomic<uint64_t> sampledOut_{0};
  std::atomic<uint64_t> droppedUnreadable_{0};
};

class FrameFilter {
 public:
  // `filter` is the listener's, or null when no rule is set; it outlives this object.
  explicit FrameFilter(EdgeFilter* filter) : filter_(filter) {}

  // Returns false when the frame is dropped. On true `frame` holds the bytes to queue: the
  // frame itself, untouched, or, when privacy rewrote the client address, the record
  // re-encoded into this object's buffer (valid until the next call).
  bool admit(std::string_view& frame) { return filter_ == nullptr || look(frame); }

 private:
  bool look(std::string_view& frame);

  EdgeFilter* const filter_;
  encoding::dnstap::DnstapMessage record_;
  std::string encoded_;
};

}  // namespace vantrelo::filter
