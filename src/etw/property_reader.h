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

uint32_t readUint8(const EventRecordView& event, uint32_t index, uint32_t offset, uint8_t& value);
uint32_t skipUint8(const EventRecordView& event, uint32_t index, uint32_t offset);

// Little-endian.
uint32_t readUint32(const EventRecordView& event, uint32_t index, uint32_t offset, uint32_t& value);
uint32_t skipUint32(const EventRecordView& event, uint32_t index, uint32_t offset);

// Bytes up to and including a zero byte, or to the end of the user data when there is none;
// `value` receives the text without the terminator.
uint32_t readAnsiString(const EventRecordView& event, uint32_t index, uint32_t offset,
                        std::string& value);
uint32_t skipAnsiString(const EventRecordView& event, uint32_t index, uint32_t offset);

// 16-bit little-endian units up to and including a zero unit, or to the end of the user data.
// `value` receives the units without the terminator; an odd trailing byte is consumed, not kept.
uint32_t readUnicodeString(const EventRecordView& event, uint32_t index, uint32_t offset,
                           std::u16string& value);
uint32_t skipUnicodeString(const EventRecordView& event, uint32_t index, uint32_t offset);

// Exactly `length` bytes; the declared length is not checked because the provider gives the
// size of its binary properties in another property.
uint32_t readBinary(const EventRecordView& event, uint32_t index, uint32_t offset, uint32_t length,
                    std::string& value);
uint32_t skipBinary(const EventRecordView& event, uint32_t index, uint32_t offset, uint32_t length);

}  // namespace vantrelo::etw
