// Turns DNS Server provider events into dnstap records.
//
// An EventDecoder is built once per trace session from the listener's options: it picks the
// property layout of every event id for the selected Windows release, remembers which classes
// of event are switched on, and sets the record's identity, version and extra fields once. Each
// event then clears the record's Message fields, fills them from the event's properties and
// passes the record to the handler. The record, the address text buffers and the event
// information are reused, so steady-state decoding allocates nothing.
//
// Owned by the EtwReader; used on the trace session's processing thread only; not thread-safe.
#pragma once

#include <array>
#include <cstdint>
#include <string>

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
  // Throws EtwError when the Windows version index is 0 (unknown): no layout can be chosen.
  EventDecoder(const EtwSettings& settings, const std::string& hostName);

  EventDecoder(const EventDecoder&) = delete;
  EventDecoder& operator=(const EventDecoder&) = delete;

  void setHandler(EventHandler handler, void* context) {
    handler_ = handler;
    context_ = context;
  }

  // Whether events of this id are decoded at all; lets the session skip the event information
  // lookup for events that would be ignored.
  bool wants(uint16_t eventId) const { return layoutFor(eventId) != nullptr; }

  // Decodes one event and calls the handler. Ignored events change nothing. Throws EtwError for
  // a malformed event and IpError for an address text that does not parse; the record is then
  // left partly filled until the next event clears it.
  void handleEvent(const EventRecordView& event);

  const encoding::dnstap::DnstapMessage& message() const { return message_; }

 private:
  const EventLayout* layoutFor(uint16_t eventId) const {
    if (eventId < kFirstEventId || eventId > kLastEventId) return nullptr;
    return layouts_[eventId - kFirstEventId];
  }

  // The layout of every id from kFirstEventId, nullptr where the id is ignored or switched off.
  std::array<const EventLayout*, kLastEventId - kFirstEventId + 1> layouts_{};
  encoding::dnstap::DnstapMessage message_;
  std::string serverText_;
  std::string clientText_;
  EventHandler handler_ = nullptr;
  void* context_ = nullptr;
};

}  // namespace vantrelo::etw
