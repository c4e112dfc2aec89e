// A read-only view of one ETW event record, as far as the DNS Server event decoding needs it.
//
// On Windows the trace session's callback implements it over the EVENT_RECORD and its
// TRACE_EVENT_INFO; elsewhere (tests, fuzzing) records are built in memory. The view does not
// own the bytes it points at; they stay valid for the duration of one decoding call. An
// implementation need not be thread-safe: it is used on the processing thread only.
#pragma once

#include <cstdint>

namespace vantrelo::etw {

// TDH input types of the properties the DNS Server provider declares (TDH_INTYPE_*).
inline constexpr uint16_t kInTypeUnicodeString = 1;
inline constexpr uint16_t kInTypeAnsiString = 2;
inline constexpr uint16_t kInTypeUint8 = 4;
inline constexpr uint16_t kInTypeUint32 = 8;
inline constexpr uint16_t kInTypeBinary = 14;

// What the event information declares about one top-level property.
struct PropertyInfo {
  uint16_t inType = 0;
  uint16_t length = 0;  // declared length; 0 for strings and for lengths held by another property
};

class EventRecordView {
 public:
  virtual ~EventRecordView() = default;

  // The event descriptor's id.
  virtual uint16_t eventId() const = 0;
  // The header's time stamp: 100-nanosecond intervals since 1601-01-01 UTC.
  virtual int64_t timeStamp() const = 0;
  // TopLevelPropertyCount of the event information.
  virtual uint32_t propertyCount() const = 0;
  // Property `index`, which is below propertyCount().
  virtual PropertyInfo property(uint32_t index) const = 0;
  virtual const uint8_t* userData() const = 0;
  virtual uint32_t userDataLength() const = 0;
};

}  // namespace vantrelo::etw
