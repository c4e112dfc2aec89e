#include "event_builder.h"

#include <map>
#include <stdexcept>
#include <utility>

#include "etw/windows_version.h"

namespace vantrelo::etw::testing {
namespace {

// Properties by index as the provider declares them, one letter each:
//   T tcp flag (uint8)      S server address (ANSI)   C client address (ANSI)
//   P client port (uint32)  L message length (uint32) M message (binary)
//   b other uint8           i other uint32            a other ANSI string
//   u other Unicode string
// Keyed by event id and release; release 0 stands for every release not listed. Event 257
// gains the policy name after 2012R2; 261 declares trailing properties on older releases.
const std::map<std::pair<uint16_t, uint32_t>, std::string> kLayouts = {
    {{256, 0}, "TSCbaiiPiLM"},
    {{257, kWindows2012R2}, "TSCbbaiibiPiuuLM"},
    {{257, 0}, "TSCbbaiibiPiuuuLM"},
    {{258, 0}, "TSuCaiiiPiuuLM"},
    {{260, kWindows2012R2}, "TSCbaiiPiuuLM"},
    {{260, kWindows2016}, "TSCbaiiPiuuuLM"},
    {{260, 0}, "TSCbaiiiPiuuuLM"},
    {{261, kWindows2012R2}, "TSCbbaiiPiuLMu"},
    {{261, kWindows2016}, "TSCbbaiiPiuLMuu"},
    {{261, 0}, "TSCbbaiiiPiuuLM"},
};

void appendUint32(std::string& out, uint32_t value) {
  for (int shift = 0; shift < 32; shift += 8) out.push_back(static_cast<char>(value >> shift));
}

}  // namespace

SyntheticEvent buildEvent(uint16_t eventId, uint32_t version, const EventValues& v) {
  auto layout = kLayouts.find({eventId, version});
  if (layout == kLayouts.end()) layout = kLayouts.find({eventId, 0});
  if (layout == kLayouts.end()) throw std::logic_error("no layout for this event");
  SyntheticEvent event;
  event.id = eventId;
  event.time = v.time;
  for (char kind : layout->second) {
    event.offsets.push_back(static_cast<uint32_t>(event.data.size()));
    if (kind == 'T' || kind == 'b') {
      event.properties.push_back({kInTypeUint8, 1});
      event.data.push_back(static_cast<char>(kind == 'T' ? v.tcp : 1));
    } else if (kind == 'P' || kind == 'L' || kind == 'i') {
      event.properties.push_back({kInTypeUint32, 4});
      appendUint32(event.data, kind == 'P'   ? v.port
                               : kind == 'L' ? static_cast<uint32_t>(v.message.size())
                                             : 0x01020304);
    } else if (kind == 'S' || kind == 'C' || kind == 'a') {
      event.properties.push_back({kInTypeAnsiString, 0});
      event.data += kind == 'S' ? v.server : kind == 'C' ? v.client : "example.com.";
      event.data.push_back('\0');
    } else if (kind == 'u') {
      event.properties.push_back({kInTypeUnicodeString, 0});
      event.data.append("D\0e\0f\0\0\0", 8);  // u"Def"
    } else {
      // The provider declares the message's size through the length property, not here.
      event.properties.push_back({kInTypeBinary, 0});
      event.data += v.message;
    }
  }
  event.count = static_cast<uint32_t>(event.properties.size());
  return event;
}

}  // namespace vantrelo::etw::testing
