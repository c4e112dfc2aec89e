// A read-only view of one ETW event record and of its event information, as far as the DNS
// Server event decoding needs them.
//
// On Windows the trace session's callback implements them over the EVENT_RECORD and its
// TRACE_EVENT_INFO; elsewhere (tests, fuzzing) records are built in memory. A view does not
// own the bytes it points at; they stay valid for the duration of one decoding call. An
// implementation need not be thread-safe: it is used on the processing thread only.
#pragma once

#include <cstdint>
#include <string_view>

namespace vantrelo::etw {

// TDH input types of the properties the DNS Server provider declares (TDH_INTYPE_*).
inline constexpr uint16_t kInTypeUnicodeString = 1;
inline constexpr uint16_t kInTypeAnsiString = 2;
inline constexpr uint16_t kInTypeUint8 = 4;
inline constexpr uint16_t kInTypeUint16 = 6;
inline constexpr uint16_t kInTypeUint32 = 8;
inline constexpr uint16_t kInTypeUint64 = 10;
inline constexpr uint16_t kInTypeBinary = 14;
inline constexpr uint16_t kInTypeGuid = 15;

// What the event information declares about one top-level property.
struct PropertyInfo {
  uint16_t inType = 0;
  uint16_t length = 0;  // declared length; 0 for strings and for lengths held by another property
};

// A GUID in the system's layout.
struct Guid {
  uint32_t data1 = 0;
  uint16_t data2 = 0;
  uint16_t data3 = 0;
  uint8_t data4[8] = {};
  friend bool operator==(const Guid&, const Guid&) = default;
};

// Microsoft-Windows-DNSServer: EB79061A-A566-4698-9119-3ED2807060E7.
inline constexpr Guid kDnsServerProvider = {
    0xEB79061A, 0xA566, 0x4698, {0x91, 0x19, 0x3E, 0xD2, 0x80, 0x70, 0x60, 0xE7}};

// The declaration of an event's properties. The same for every event of one provider, event
// id and event version.
class EventInformation {
 public:
  virtual ~EventInformation() = default;

  // TopLevelPropertyCount.
  virtual uint32_t propertyCount() const = 0;
  // Property `index`, which is below propertyCount().
  virtual PropertyInfo property(uint32_t index) const = 0;
  // The name of property `index` in UTF-16, as the provider's manifest gives it.
  virtual std::u16string_view propertyName(uint32_t index) const = 0;
};

class EventRecordView {
 public:
  virtual ~EventRecordView() = default;

  virtual Guid providerId() const = 0;
  // The event descriptor's id and version.
  virtual uint16_t eventId() const = 0;
  virtual uint8_t eventVersion() const = 0;
  // The header's time stamp: 100-nanosecond intervals since 1601-01-01 UTC.
  virtual int64_t timeStamp() const = 0;
  virtual const uint8_t* userData() const = 0;
  virtual uint32_t userDataLength() const = 0;
  // The event's information. Looking it up costs a system call, so the decoder asks for it on
  // the first event of each (id, version) only. Throws EtwError when the system has none.
  virtual const EventInformation& information() const = 0;
};

}  // namespace vantrelo::etw
