// Decodes one DNS Server provider event described by the input:
//   byte 0: Windows version index (1 + value % 5)
//   byte 1: event id (256 + value % 6)
//   byte 2: number of top-level properties (value % 24)
//   then per property: InType, declared length (one byte each)
//   the rest: the user data.
// Malformed events must fail with an exception of the agent, never read out of bounds.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "base/error.h"
#include "etw/etw_settings.h"
#include "etw/event_decoder.h"
#include "etw/event_record.h"

namespace {

class FuzzEvent : public vantrelo::etw::EventRecordView {
 public:
  uint16_t eventId() const override { return id; }
  int64_t timeStamp() const override { return time; }
  uint32_t propertyCount() const override { return static_cast<uint32_t>(properties.size()); }
  vantrelo::etw::PropertyInfo property(uint32_t index) const override { return properties[index]; }
  const uint8_t* userData() const override { return data; }
  uint32_t userDataLength() const override { return size; }

  uint16_t id = 0;
  int64_t time = 0;
  std::vector<vantrelo::etw::PropertyInfo> properties;
  const uint8_t* data = nullptr;
  uint32_t size = 0;
};

// A decoded record must be self-consistent: the family says how long the client address is.
void check(vantrelo::encoding::dnstap::DnstapMessage& message, void* context) {
  size_t expected = message.socket_family == vantrelo::encoding::dnstap::kFamilyInet6 ? 16 : 4;
  if (message.query_address.size() != expected || message.query_port > 65535) std::abort();
  ++*static_cast<size_t*>(context);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 3) return 0;
  vantrelo::etw::EtwSettings settings;
  settings.windowsVersion = 1 + data[0] % 5;
  settings.resolverQuery = true;
  settings.resolverResponse = true;
  FuzzEvent event;
  event.id = static_cast<uint16_t>(256 + data[1] % 6);
  event.time = 116444736000000000 + static_cast<int64_t>(data[2]) * 10000001;
  size_t properties = data[2] % 24;
  size_t offset = 3;
  for (size_t i = 0; i < properties && offset + 2 <= size; ++i, offset += 2) {
    event.properties.push_back({data[offset], data[offset + 1]});
  }
  event.data = data + offset;
  event.size = static_cast<uint32_t>(size - offset);

  vantrelo::etw::EventDecoder decoder(settings, "fuzz");
  size_t decoded = 0;
  decoder.setHandler(&check, &decoded);
  try {
    decoder.handleEvent(event);
  } catch (const vantrelo::error::UnknownError&) {
  }
  return 0;
}
