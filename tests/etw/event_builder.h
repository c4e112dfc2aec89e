// Builds DNS Server provider events in memory, the way the provider declares and fills them,
// for tests of the event decoding. The declarations come from the provider's templates, names
// included; each property is kept with its declaration and its bytes, and the user data is
// their concatenation.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "etw/event_record.h"

namespace vantrelo::etw::testing {

// The event information of a built event; its declarations can still be damaged for error
// tests.
struct SyntheticInformation : EventInformation {
  uint32_t propertyCount() const override { return count; }
  PropertyInfo property(uint32_t index) const override { return properties.at(index); }
  std::u16string_view propertyName(uint32_t index) const override { return names.at(index); }

  uint32_t count = 0;
  std::vector<PropertyInfo> properties;
  std::vector<std::u16string> names;
};

// A finished event. It counts how often its event information is asked for.
struct SyntheticEvent : EventRecordView {
  Guid providerId() const override { return provider; }
  uint16_t eventId() const override { return id; }
  uint8_t eventVersion() const override { return version; }
  int64_t timeStamp() const override { return time; }
  const uint8_t* userData() const override { return reinterpret_cast<const uint8_t*>(data.data()); }
  uint32_t userDataLength() const override { return static_cast<uint32_t>(data.size()); }
  const EventInformation& information() const override {
    ++informationReads;
    return info;
  }

  Guid provider = kDnsServerProvider;
  uint16_t id = 0;
  uint8_t version = 0;
  int64_t time = 0;
  SyntheticInformation info;
  std::vector<uint32_t> offsets;  // of each property in the user data
  std::string data;
  mutable int informationReads = 0;
};

// The values the decoder reads; every other property gets a fixed filler.
struct EventValues {
  uint8_t tcp = 0;
  std::string local = "192.0.2.53";     // InterfaceIP: the DNS server's own address
  std::string remote = "198.51.100.7";  // Source or Destination: the client, or the server asked
  uint32_t port = 53000;
  std::string message = "\x12\x34\x81";  // the DNS message is not looked into
  int64_t time = 0;                      // 100-nanosecond intervals since 1601
};

// Event `eventId` as the provider raises it on `windowsVersion` (one of kWindows2012R2 ...).
SyntheticEvent buildEvent(uint16_t eventId, uint32_t windowsVersion,
                          const EventValues& values = {});

// Event `eventId` from a template: "Name:type" words, the type one of u8, u16, u32, u64, A
// (ANSI string), U (Unicode string), bin, guid.
SyntheticEvent buildEventFrom(uint16_t eventId, const std::string& properties,
                              const EventValues& values = {});

}  // namespace vantrelo::etw::testing
