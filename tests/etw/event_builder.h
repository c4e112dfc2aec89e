// Builds DNS Server provider events in memory, the way the provider declares and fills them,
// for tests of the event decoding. Each property is kept with its declaration and its bytes;
// the user data is their concatenation.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "etw/event_record.h"

namespace vantrelo::etw::testing {

// A finished event; its declarations and bytes can still be damaged for error tests.
struct SyntheticEvent : EventRecordView {
  uint16_t eventId() const override { return id; }
  int64_t timeStamp() const override { return time; }
  uint32_t propertyCount() const override { return count; }
  PropertyInfo property(uint32_t index) const override { return properties.at(index); }
  const uint8_t* userData() const override { return reinterpret_cast<const uint8_t*>(data.data()); }
  uint32_t userDataLength() const override { return static_cast<uint32_t>(data.size()); }

  uint16_t id = 0;
  int64_t time = 0;
  uint32_t count = 0;
  std::vector<PropertyInfo> properties;
  std::vector<uint32_t> offsets;  // of each property in the user data
  std::string data;
};

// The values the decoder reads; every other property gets a fixed filler.
struct EventValues {
  uint8_t tcp = 0;
  std::string server = "192.0.2.53";
  std::string client = "198.51.100.7";
  uint32_t port = 53000;
  std::string message = "\x12\x34\x81";  // the DNS message is not looked into
  int64_t time = 0;                      // 100-nanosecond intervals since 1601
};

// Event `eventId` as the provider raises it on `windowsVersion` (one of kWindows2012R2 ...).
SyntheticEvent buildEvent(uint16_t eventId, uint32_t windowsVersion,
                          const EventValues& values = {});

}  // namespace vantrelo::etw::testing
