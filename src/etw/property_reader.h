// Positional readers for the properties of one ETW event.
//
// Each reader checks the property's declared InType and length, checks that the user data holds
// enough bytes behind `offset`, and returns the offset behind the property. The keeping forms
// store the value; the skipping forms only advance, with the same checks, so that a layout is
// validated in full even where its values are not used. Failures throw EtwError naming the
// property index. Stateless and thread-safe; the keeping forms reuse the caller's buffers.
#pragma once

#include <cstdint>
#include <string>

#include "etw/event_record.h"

namespace vantrelo::etw {

// One event's property declarations and user data, as the readers see them; borrowed.
struct EventProperties {
  const PropertyInfo* declarations = nullptr;
  uint32_t count = 0;  // of declarations; the readers are only given indices below it
  const uint8_t* data = nullptr;
  uint32_t size = 0;
};

uint32_t readUint8(const EventProperties& event, uint32_t index, uint32_t offset, uint8_t& value);
uint32_t skipUint8(const EventProperties& event, uint32_t index, uint32_t offset);

// Little-endian.
uint32_t readUint32(const EventProperties& event, uint32_t index, uint32_t offset, uint32_t& value);
uint32_t skipUint32(const EventProperties& event, uint32_t index, uint32_t offset);

// Bytes up to and including a zero byte, or to the end of the user data when there is none;
// `value` receives the text without the terminator.
uint32_t readAnsiString(const EventProperties& event, uint32_t index, uint32_t offset,
                        std::string& value);
uint32_t skipAnsiString(const EventProperties& event, uint32_t index, uint32_t offset);

// 16-bit little-endian units up to and including a zero unit, or to the end of the user data.
// `value` receives the units without the terminator; an odd trailing byte is consumed, not kept.
uint32_t readUnicodeString(const EventProperties& event, uint32_t index, uint32_t offset,
                           std::u16string& value);
uint32_t skipUnicodeString(const EventProperties& event, uint32_t index, uint32_t offset);

// Exactly `length` bytes; the declared length is not checked because the provider gives the
// size of its binary properties in another property.
uint32_t readBinary(const EventProperties& event, uint32_t index, uint32_t offset, uint32_t length,
                    std::string& value);
uint32_t skipBinary(const EventProperties& event, uint32_t index, uint32_t offset, uint32_t length);

// Fixed-size values the decoder only steps over where a release placed them.
uint32_t skipUint16(const EventProperties& event, uint32_t index, uint32_t offset);
uint32_t skipUint64(const EventProperties& event, uint32_t index, uint32_t offset);
uint32_t skipGuid(const EventProperties& event, uint32_t index, uint32_t offset);

}  // namespace vantrelo::etw
