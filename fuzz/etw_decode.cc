// Decodes DNS Server provider events described by the input:
//   byte 0: Windows version index (1 + value % 5)
//   byte 1: event id (an index into kEventIds)
//   byte 2: number of top-level properties (value % 32)
//   then per property: InType, declared length, name (an index into kNames), one byte each
//   the rest: the user data.
// The event is decoded twice, so that the kind the decoder learnt from the first is used by
// the second. Malformed events must fail with an exception of the agent, never read out of
// bounds.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include "base/error.h"
#include "base/log.h"
#include "etw/etw_settings.h"
#include "etw/event_decoder.h"
#include "etw/event_record.h"

namespace {

using vantrelo::etw::EventInformation;
using vantrelo::etw::PropertyInfo;

constexpr uint16_t kEventIds[] = {256, 257, 258, 259, 260, 261, 284, 285, 287, 289, 290};
// The names the decoder looks for, and one it does not.
const char16_t* const kNames[] = {u"TCP",  u"InterfaceIP", u"Source",     u"Destination",
                                  u"Port", u"BufferSize",  u"PacketData", u"Other"};

class FuzzEvent : public vantrelo::etw::EventRecordView, public EventInformation {
 public:
  vantrelo::etw::Guid providerId() const override { return vantrelo::etw::kDnsServerProvider; }
  uint16_t eventId() const override { return id; }
  uint8_t eventVersion() const override { return 0; }
  int64_t timeStamp() const override { return time; }
  const uint8_t* userData() const override { return data; }
  uint32_t userDataLength() const override { return size; }
  const EventInformation& information() const override { return *this; }

  uint32_t propertyCount() const override { return static_cast<uint32_t>(properties.size()); }
  PropertyInfo property(uint32_t index) const override { return properties[index]; }
  std::u16string_view propertyName(uint32_t index) const override { return names[index]; }

  uint16_t id = 0;
  int64_t time = 0;
  std::vector<PropertyInfo> properties;
  std::vector<std::u16string_view> names;
  const uint8_t* data = nullptr;
  uint32_t size = 0;
};

// A decoded record must be self-consistent: the family says how long the client address is.
void check(vantrelo::encoding::dnstap::DnstapMessage& message, void* context) {
  size_t expected = message.socket_family == vantrelo::encoding::dnstap::kFamilyInet6 ? 16 : 4;
  if (message.query_address.size() != expected || message.query_port > 65535) std::abort();
  ++*static_cast<size_t*>(context);
}

// The decoder's warnings about moved layouts would drown the fuzzer's output.
class NoLog : public vantrelo::log::SystemLog {
 public:
  bool write(vantrelo::log::Level, const std::string&) override { return true; }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 3) return 0;
  static NoLog quiet;
  vantrelo::log::setSystemLog(&quiet);
  vantrelo::etw::EtwSettings settings;
  settings.windowsVersion = 1 + data[0] % 5;
  settings.resolverQuery = true;
  settings.resolverResponse = true;
  FuzzEvent event;
  event.id = kEventIds[data[1] % std::size(kEventIds)];
  event.time = 116444736000000000 + static_cast<int64_t>(data[2]) * 10000001;
  size_t properties = data[2] % 32;
  size_t offset = 3;
  for (size_t i = 0; i < properties && offset + 3 <= size; ++i, offset += 3) {
    event.properties.push_back({data[offset], data[offset + 1]});
    event.names.push_back(kNames[data[offset + 2] % std::size(kNames)]);
  }
  event.data = data + offset;
  event.size = static_cast<uint32_t>(size - offset);

  vantrelo::etw::EventDecoder decoder(settings, "fuzz");
  size_t decoded = 0;
  decoder.setHandler(&check, &decoded);
  for (int pass = 0; pass < 2; ++pass) {
    try {
      decoder.handleEvent(event);
    } catch (const vantrelo::error::UnknownError&) {
    }
  }
  vantrelo::log::setSystemLog(nullptr);
  return 0;
}
