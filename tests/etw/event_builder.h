// Builds DNS Server provider events in memory, the way the provider declares and fills them,
// for tests of the event decoding. Each property is kept with its declaration and its bytes;
// the user data is their concatenation.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "etw/event_record.h"

namespace ns::etw::testing {

// Properties by index as the provider declares them, one letter each:
//   T tcp flag (uint8)      S server address (ANSI)   C client address (ANSI)
//   P client port (uint32)  L message length (uint32) M message (binary)
//   b other uint8           i other uint32            a other ANSI string
//   u other Unicode string
// Returns "" for events the provider does not raise in that form.
std::string providerLayout(uint16_t eventId, uint32_t windowsVersion);

// A finished event; its declarations and bytes can still be damaged for error tests.
class SyntheticEvent : public EventRecordView {
 public:
  uint16_t eventId() const override { return id; }
  int64_t timeStamp() const override { return time; }
  uint32_t propertyCount() const override { return count; }
  PropertyInfo property(uint32_t index) const override { return properties.at(index); }
  const uint8_t* userData() const override { return reinterpret_cast<const uint8_t*>(data.data()); }
  uint32_t userDataLength() const override { return static_cast<uint32_t>(data.size()); }

  // Offset of property `index` in the user data.
  uint32_t offsetOf(uint32_t index) const { return offsets.at(index); }

  uint16_t id = 0;
  int64_t time = 0;
  uint32_t count = 0;
  std::vector<PropertyInfo> properties;
  std::vector<uint32_t> offsets;
  std::string data;
};

class EventBuilder {
 public:
  EventBuilder(uint16_t eventId, uint32_t windowsVersion)
      : eventId_(eventId), layout_(providerLayout(eventId, windowsVersion)) {}

  EventBuilder& tcp(uint8_t value) {
    tcp_ = value;
    return *this;
  }
  EventBuilder& server(const std::string& text) {
    server_ = text;
    return *this;
  }
  EventBuilder& client(const std::string& text) {
    client_ = text;
    return *this;
  }
  EventBuilder& port(uint32_t value) {
    port_ = value;
    return *this;
  }
  EventBuilder& message(const std::string& bytes) {
    message_ = bytes;
    return *this;
  }
  // 100-nanosecond intervals since 1601.
  EventBuilder& time(int64_t value) {
    time_ = value;
    return *this;
  }

  SyntheticEvent build() const;

 private:
  uint16_t eventId_;
  std::string layout_;
  uint8_t tcp_ = 0;
  std::string server_ = "192.0.2.53";
  std::string client_ = "198.51.100.7";
  uint32_t port_ = 53000;
  std::string message_ = std::string("\x12\x34\x01\x00\x00\x01\x00\x00\x00\x00\x00\x00", 12);
  int64_t time_ = 0;
};

// An event of one property, for the property readers.
SyntheticEvent singleProperty(uint16_t inType, uint16_t length, const std::string& bytes);

}  // namespace ns::etw::testing
