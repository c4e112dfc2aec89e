#include "etw/property_reader.h"

#include <string>

#include "etw/windows_version.h"

namespace vantrelo::etw {

namespace {

// Declared lengths the provider uses for its fixed-size and string properties.
constexpr uint16_t kUint8Length = 1;
constexpr uint16_t kUint16Length = 2;
constexpr uint16_t kUint32Length = 4;
constexpr uint16_t kUint64Length = 8;
constexpr uint16_t kGuidLength = 16;
constexpr uint16_t kStringLength = 0;

// The check of one property's declaration: the InType it must have, the noun used in the
// message when it has another, and the declared length it must have (when checked).
struct PropertyKind {
  uint16_t inType;
  const char* typeText;
  bool checkLength;
  uint16_t length;
};

constexpr PropertyKind kUint8Kind{kInTypeUint8, " to be a uint8_t but got ", true, kUint8Length};
constexpr PropertyKind kUint32Kind{kInTypeUint32, " to be a uint32_t but got ", true,
                                   kUint32Length};
// Both string kinds share the message text the system has always used for them.
constexpr PropertyKind kAnsiKind{kInTypeAnsiString, " to be a unicode string but got ", true,
                                 kStringLength};
constexpr PropertyKind kUnicodeKind{kInTypeUnicodeString, " to be a unicode string but got ", true,
                                    kStringLength};
constexpr PropertyKind kUint16Kind{kInTypeUint16, " to be a uint16_t but got ", true,
                                   kUint16Length};
constexpr PropertyKind kUint64Kind{kInTypeUint64, " to be a uint64_t but got ", true,
                                   kUint64Length};
constexpr PropertyKind kGuidKind{kInTypeGuid, " to be a GUID but got ", true, kGuidLength};
constexpr PropertyKind kBinaryKind{kInTypeBinary, " to be binary data but got ", false, 0};

void checkProperty(const EventProperties& event, uint32_t index, const PropertyKind& kind) {
  const PropertyInfo& info = event.declarations[index];
  if (info.inType != kind.inType) {
    throw EtwError("Expected property " + std::to_string(index) + kind.typeText +
                   std::to_string(info.inType));
  }
  if (kind.checkLength && info.length != kind.length) {
    throw EtwError("Expected property " + std::to_string(index) + " to be length " +
                   std::to_string(kind.length) + " but got " + std::to_string(info.length));
  }
}

uint32_t remaining(const EventProperties& event, uint32_t offset) {
  uint32_t size = event.size;
  return offset < size ? size - offset : 0;
}

// Checks that `need` bytes follow `offset`; `unit` is the message's wording for the amount.
void checkAvailable(const EventProperties& event, uint32_t index, uint32_t offset, uint32_t need,
                    const char* unit) {
  uint32_t left = remaining(event, offset);
  if (left < need) {
    throw EtwError("Expected at least " + std::to_string(need) + unit +
                   " of user data for property " + std::to_string(index) + " but got " +
                   std::to_string(left));
  }
}

uint32_t skipFixed(const EventProperties& event, uint32_t index, uint32_t offset,
                   const PropertyKind& kind) {
  checkProperty(event, index, kind);
  checkAvailable(event, index, offset, kind.length, " bytes");
  return offset + kind.length;
}

// Offset behind the zero byte at or after `offset`, or the end of the data without one.
uint32_t ansiEnd(const EventProperties& event, uint32_t offset, uint32_t& textEnd) {
  const uint8_t* data = event.data;
  uint32_t size = event.size;
  uint32_t position = offset;
  while (position < size && data[position] != 0) ++position;
  textEnd = position;
  return position < size ? position + 1 : size;
}

// The same for 16-bit units; a trailing odd byte belongs to the unterminated string.
uint32_t unicodeEnd(const EventProperties& event, uint32_t offset, uint32_t& textEnd) {
  const uint8_t* data = event.data;
  uint32_t size = event.size;
  uint32_t position = offset;
  while (position < size && size - position >= 2) {
    if (data[position] == 0 && data[position + 1] == 0) {
      textEnd = position;
      return position + 2;
    }
    position += 2;
  }
  textEnd = position;
  return size > offset ? size : offset;
}

}  // namespace

uint32_t readUint8(const EventProperties& event, uint32_t index, uint32_t offset, uint8_t& value) {
  checkProperty(event, index, kUint8Kind);
  checkAvailable(event, index, offset, 1, " byte");
  value = event.data[offset];
  return offset + 1;
}

uint32_t skipUint8(const EventProperties& event, uint32_t index, uint32_t offset) {
  uint8_t ignored;
  return readUint8(event, index, offset, ignored);
}

uint32_t readUint32(const EventProperties& event, uint32_t index, uint32_t offset,
                    uint32_t& value) {
  checkProperty(event, index, kUint32Kind);
  checkAvailable(event, index, offset, 4, " bytes");
  const uint8_t* p = event.data + offset;
  value = static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
          static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
  return offset + 4;
}

uint32_t skipUint32(const EventProperties& event, uint32_t index, uint32_t offset) {
  uint32_t ignored;
  return readUint32(event, index, offset, ignored);
}

uint32_t readAnsiString(const EventProperties& event, uint32_t index, uint32_t offset,
                        std::string& value) {
  checkProperty(event, index, kAnsiKind);
  uint32_t textEnd = 0;
  uint32_t end = ansiEnd(event, offset, textEnd);
  value.clear();
  // Byte by byte: the text goes into a buffer whose capacity is kept between events.
  const uint8_t* data = event.data;
  for (uint32_t i = offset; i < textEnd; ++i) value.push_back(static_cast<char>(data[i]));
  return end;
}

uint32_t skipAnsiString(const EventProperties& event, uint32_t index, uint32_t offset) {
  checkProperty(event, index, kAnsiKind);
  uint32_t textEnd = 0;
  return ansiEnd(event, offset, textEnd);
}

uint32_t readUnicodeString(const EventProperties& event, uint32_t index, uint32_t offset,
                           std::u16string& value) {
  checkProperty(event, index, kUnicodeKind);
  uint32_t textEnd = 0;
  uint32_t end = unicodeEnd(event, offset, textEnd);
  value.clear();
  const uint8_t* data = event.data;
  for (uint32_t i = offset; i < textEnd; i += 2) {
    value.push_back(static_cast<char16_t>(data[i] | data[i + 1] << 8));
  }
  return end;
}

uint32_t skipUnicodeString(const EventProperties& event, uint32_t index, uint32_t offset) {
  checkProperty(event, index, kUnicodeKind);
  uint32_t textEnd = 0;
  return unicodeEnd(event, offset, textEnd);
}

uint32_t readBinary(const EventProperties& event, uint32_t index, uint32_t offset, uint32_t length,
                    std::string& value) {
  checkProperty(event, index, kBinaryKind);
  checkAvailable(event, index, offset, length, " bytes");
  value.assign(reinterpret_cast<const char*>(event.data) + offset, length);
  return offset + length;
}

uint32_t skipBinary(const EventProperties& event, uint32_t index, uint32_t offset,
                    uint32_t length) {
  checkProperty(event, index, kBinaryKind);
  checkAvailable(event, index, offset, length, " bytes");
  return offset + length;
}

uint32_t skipUint16(const EventProperties& event, uint32_t index, uint32_t offset) {
  return skipFixed(event, index, offset, kUint16Kind);
}

uint32_t skipUint64(const EventProperties& event, uint32_t index, uint32_t offset) {
  return skipFixed(event, index, offset, kUint64Kind);
}

uint32_t skipGuid(const EventProperties& event, uint32_t index, uint32_t offset) {
  return skipFixed(event, index, offset, kGuidKind);
}

}  // namespace vantrelo::etw
