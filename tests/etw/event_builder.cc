#include "event_builder.h"

#include <stdexcept>

#include "etw/windows_version.h"

namespace ns::etw::testing {

std::string providerLayout(uint16_t eventId, uint32_t version) {
  bool r2 = version == kWindows2012R2;
  bool v2016 = version == kWindows2016;
  switch (eventId) {
    case 256:  // query received
      return "TSCbaiiPiLM";
    case 257:  // response sent; later releases add the policy name
      return r2 ? "TSCbbaiibiPiuuLM" : "TSCbbaiibiPiuuuLM";
    case 258:  // failure response sent, with its reason after the server address
      return "TSuCaiiiPiuuLM";
    case 260:  // recursive query sent
      if (r2) return "TSCbaiiPiuuLM";
      if (v2016) return "TSCbaiiPiuuuLM";
      return "TSCbaiiiPiuuuLM";
    case 261:  // recursive response received; older releases declare trailing properties
      if (r2) return "TSCbbaiiPiuLMu";
      if (v2016) return "TSCbbaiiPiuLMuu";
      return "TSCbbaiiiPiuuLM";
    default:
      return "";
  }
}

namespace {

void appendUint32(std::string& out, uint32_t value) {
  for (int shift = 0; shift < 32; shift += 8) out.push_back(static_cast<char>(value >> shift));
}

void appendAnsi(std::string& out, const std::string& text) {
  out += text;
  out.push_back('\0');
}

void appendUnicode(std::string& out, const std::u16string& text) {
  for (char16_t unit : text) {
    out.push_back(static_cast<char>(unit & 0xFF));
    out.push_back(static_cast<char>(unit >> 8));
  }
  out.append(2, '\0');
}

}  // namespace

SyntheticEvent EventBuilder::build() const {
  SyntheticEvent event;
  event.id = eventId_;
  event.time = time_;
  for (char kind : layout_) {
    event.offsets.push_back(static_cast<uint32_t>(event.data.size()));
    PropertyInfo info;
    switch (kind) {
      case 'T':
      case 'b':
        info = {kInTypeUint8, 1};
        event.data.push_back(static_cast<char>(kind == 'T' ? tcp_ : 1));
        break;
      case 'P':
      case 'L':
      case 'i':
        info = {kInTypeUint32, 4};
        appendUint32(event.data, kind == 'P'   ? port_
                                 : kind == 'L' ? static_cast<uint32_t>(message_.size())
                                               : 0x01020304);
        break;
      case 'S':
      case 'C':
      case 'a':
        info = {kInTypeAnsiString, 0};
        appendAnsi(event.data, kind == 'S' ? server_ : kind == 'C' ? client_ : "example.com.");
        break;
      case 'u':
        info = {kInTypeUnicodeString, 0};
        appendUnicode(event.data, u"Default");
        break;
      case 'M':
        // The provider declares the size through the length property, not here.
        info = {kInTypeBinary, 0};
        event.data += message_;
        break;
      default:
        throw std::logic_error("unknown property kind");
    }
    event.properties.push_back(info);
  }
  event.count = static_cast<uint32_t>(event.properties.size());
  return event;
}

SyntheticEvent singleProperty(uint16_t inType, uint16_t length, const std::string& bytes) {
  SyntheticEvent event;
  event.id = 256;
  event.count = 1;
  event.properties.push_back({inType, length});
  event.offsets.push_back(0);
  event.data = bytes;
  return event;
}

}  // namespace ns::etw::testing
