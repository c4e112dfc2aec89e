// Turns DNS Server provider events into dnstap records.
//
// An EventDecoder is built once per trace session from the listener's options: it picks the
// property layout of every event id for the selected Windows release, remembers which classes
// of event are switched on, and sets the record's identity, version and extra fields once. Each
// event then clears the record's Message fields, fills them from the event's properties and
// passes the record to the handler.
//
// The properties are read by position, which is fast, but a release, a hotfix or an update may
// move them. So on the first event of each (event id, event version) the decoder reads the
// event information once and compares the names and types at the positions it reads with the
// names expected there. When they differ it finds those properties by name, logs one warning,
// and reads that kind of event through the positions found from then on; when a needed name is
// missing it logs one error and skips (and counts) every event of that kind. The result is kept
// per (id, version), so later events cost what they cost before: no event information lookup,
// one walk over the properties. The record, the address text buffers and these kinds are
// reused, so steady-state decoding allocates nothing.
//
// Owned by the EtwReader; used on the trace session's processing thread only; not thread-safe,
// except skippedEvents(), which any thread may read.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "encoding/dnstap_message.h"
#include "etw/etw_settings.h"
#include "etw/event_layout.h"
#include "etw/event_record.h"

namespace vantrelo::etw {

// Receives each decoded record; `context` is the pointer given along with the handler. The
// record is reused for the next event, so the handler copies or encodes what it keeps.
using EventHandler = void (*)(encoding::dnstap::DnstapMessage& message, void* context);

// 100-nanosecond intervals from 1601-01-01 to 1970-01-01.
inline constexpr int64_t kEpochOffset = 116444736000000000;

class EventDecoder {
 public:
  // `hostName` becomes the identity when the options take it from the event's machine.
  // `logPrefix` starts the warning or error line of a layout that moved. Throws EtwError when
  // the Windows version index is 0 (unknown): no layout can be chosen.
  EventDecoder(const EtwSettings& settings, const std::string& hostName,
               std::string logPrefix = {});

  EventDecoder(const EventDecoder&) = delete;
  EventDecoder& operator=(const EventDecoder&) = delete;

  void setHandler(EventHandler handler, void* context) {
    handler_ = handler;
    context_ = context;
  }

  // Whether events of this id are decoded at all.
  bool wants(uint16_t eventId) const { return layoutFor(eventId) != nullptr; }

  // Decodes one event and calls the handler. Ignored events change nothing; events of a kind
  // whose properties cannot be found are counted and skipped. Throws EtwError for a malformed
  // event (or when its event information is unavailable) and IpError for an address text that
  // does not parse; the record is then left partly filled until the next event clears it.
  void handleEvent(const EventRecordView& event);

  const encoding::dnstap::DnstapMessage& message() const { return message_; }

  // Events skipped because their kind lacks a property the decoder needs.
  uint64_t skippedEvents() const { return skipped_.load(std::memory_order_relaxed); }

 private:
  // What the decoder learnt from the first event of one (id, version).
  struct EventKind {
    uint16_t id = 0;
    uint8_t version = 0;
    bool usable = true;  // false: a needed property is missing, the events are skipped
    std::vector<PropertyInfo> declarations;
    // Empty while the layout's positions hold; else the roles of the positions found by name.
    std::vector<PropertyRole> byName;
  };

  const EventLayout* layoutFor(uint16_t eventId) const {
    if (eventId < kFirstEventId || eventId > kLastEventId) return nullptr;
    return layouts_[eventId - kFirstEventId];
  }
  const EventKind& kindOf(const EventRecordView& event, const EventLayout& layout);
  void checkLayout(EventKind& kind, const EventLayout& layout, const EventInformation& info);

  // The layout of every id from kFirstEventId, nullptr where the id is ignored or switched off.
  std::array<const EventLayout*, kLastEventId - kFirstEventId + 1> layouts_{};
  std::vector<EventKind> kinds_;  // a handful: one per event id and version seen
  std::string logPrefix_;
  encoding::dnstap::DnstapMessage message_;
  std::string serverText_;
  std::string clientText_;
  EventHandler handler_ = nullptr;
  void* context_ = nullptr;
  std::atomic<uint64_t> skipped_{0};
};

}  // namespace vantrelo::etw
