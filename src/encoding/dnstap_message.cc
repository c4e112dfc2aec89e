#include "encoding/dnstap_message.h"

#include <string>

namespace vantrelo::encoding::dnstap {

namespace {

// Field numbers of the Dnstap frame.
constexpr uint64_t kFrameIdentity = 1;
constexpr uint64_t kFrameVersion = 2;
constexpr uint64_t kFrameExtra = 3;
constexpr uint64_t kFrameMessage = 14;
constexpr uint64_t kFrameType = 15;
// Dnstap.Type MESSAGE: the only kind of frame there is.
constexpr uint64_t kFrameTypeMessage = 1;

constexpr uint32_t kFieldShift = 3;
constexpr uint64_t kWireTypeMask = 7;

constexpr uint8_t makeTag(uint32_t field, uint32_t wireType) {
  return static_cast<uint8_t>((field << kFieldShift) | wireType);
}

// How each field of the frame and of the inner Message is stored. A field has exactly one of
// the three member pointers set, matching its wire type.
struct FieldSpec {
  const char* name;  // nullptr: not modelled, skipped
  uint32_t wireType;
  std::string DnstapMessage::*bytes;
  uint64_t DnstapMessage::*number;
  uint32_t DnstapMessage::*fixed32;
};

constexpr FieldSpec kUnmodelled = {nullptr, 0, nullptr, nullptr, nullptr};

constexpr FieldSpec bytesField(const char* name, std::string DnstapMessage::*member) {
  return {name, kWireBytes, member, nullptr, nullptr};
}
constexpr FieldSpec varintField(const char* name, uint64_t DnstapMessage::*member) {
  return {name, kWireVarint, nullptr, member, nullptr};
}
constexpr FieldSpec fixed32Field(const char* name, uint32_t DnstapMessage::*member) {
  return {name, kWireFixed32, nullptr, nullptr, member};
}

// Header fields of the frame, indexed by field number.
const FieldSpec kFrameFields[] = {
    kUnmodelled,
    bytesField("identity", &DnstapMessage::identity),
    bytesField("version", &DnstapMessage::version),
    bytesField("extra", &DnstapMessage::extra),
};

// Fields of the inner Message, indexed by field number; 11 (query_zone) is not modelled.
const FieldSpec kMessageFields[] = {
    kUnmodelled,
    varintField("type", &DnstapMessage::type),
    varintField("socket_family", &DnstapMessage::socket_family),
    varintField("socket_protocol", &DnstapMessage::socket_protocol),
    bytesField("query_address", &DnstapMessage::query_address),
    bytesField("response_address", &DnstapMessage::response_address),
    varintField("query_port", &DnstapMessage::query_port),
    varintField("response_port", &DnstapMessage::response_port),
    varintField("query_time_sec", &DnstapMessage::query_time_sec),
    fixed32Field("query_time_nsec", &DnstapMessage::query_time_nsec),
    bytesField("query_message", &DnstapMessage::query_message),
    kUnmodelled,
    varintField("response_time_sec", &DnstapMessage::response_time_sec),
    fixed32Field("response_time_nsec", &DnstapMessage::response_time_nsec),
    bytesField("response_message", &DnstapMessage::response_message),
};

template <size_t N>
const FieldSpec& lookUp(const FieldSpec (&table)[N], uint64_t field) {
  return field < N ? table[field] : kUnmodelled;
}

// Wire-type names in the messages, indexed by wire type.
const char* const kWireTypeNames[] = {"varint", "fixed64", "bytes", "", "", "fixed32"};

// Tags and most values are single bytes: read those here and leave the rest to decodeVarint.
inline uint32_t readVarint(uint64_t& out, const uint8_t* data, uint32_t size, uint32_t offset) {
  if (offset < size && data[offset] < 0x80) {
    out = data[offset];
    return offset + 1;
  }
  return decodeVarint(out, data, size, offset);
}

// Reads a field's value into the record after its wire type has been checked.
uint32_t readValue(DnstapMessage& record, const FieldSpec& layout, const uint8_t* data,
                   uint32_t size, uint32_t offset) {
  if (layout.bytes != nullptr) {
    uint64_t length;
    uint32_t content = decodeBytesLength(length, data, size, offset);
    (record.*layout.bytes).assign(reinterpret_cast<const char*>(data + content), length);
    return content + static_cast<uint32_t>(length);
  }
  if (layout.number != nullptr) return readVarint(record.*layout.number, data, size, offset);
  return decodeFixed32(record.*layout.fixed32, data, size, offset);
}

}  // namespace

void DnstapMessage::clear(bool alsoHeader) {
  if (alsoHeader) {
    identity.clear();
    version.clear();
    extra.clear();
  }
  type = 0;
  socket_family = 0;
  socket_protocol = 0;
  query_address.clear();
  response_address.clear();
  query_port = 0;
  response_port = 0;
  query_time_sec = 0;
  query_time_nsec = 0;
  query_message.clear();
  response_time_sec = 0;
  response_time_nsec = 0;
  response_message.clear();
}

uint32_t DnstapMessage::decode(const uint8_t* data, uint32_t size, uint32_t offset) {
  clear(true);
  while (offset < size) {
    uint64_t tag;
    offset = readVarint(tag, data, size, offset);
    uint64_t field = tag >> kFieldShift;
    uint32_t wireType = static_cast<uint32_t>(tag & kWireTypeMask);

    if (const FieldSpec& layout = lookUp(kFrameFields, field); layout.name != nullptr) {
      if (wireType != layout.wireType) {
        throw DnstapError(std::string("Expected ") + layout.name +
                          " field to use bytes type but got " + std::to_string(wireType));
      }
      offset = readValue(*this, layout, data, size, offset);
    } else if (field == kFrameType) {
      if (wireType != kWireVarint) {
        throw DnstapError("Expected type field to use varint type but got " +
                          std::to_string(wireType));
      }
      uint64_t frameType;
      offset = decodeVarint(frameType, data, size, offset);
      if (frameType != kFrameTypeMessage) {
        throw DnstapError("Expected type field to be 1 but got " + std::to_string(frameType));
      }
    } else if (field == kFrameMessage) {
      if (wireType != kWireBytes) {
        throw DnstapError("Expected message field to use bytes type but got " +
                          std::to_string(wireType));
      }
      uint64_t length;
      uint32_t content = decodeBytesLength(length, data, size, offset);
      offset = content + static_cast<uint32_t>(length);
      const uint8_t* inner = data + content;
      uint32_t innerSize = static_cast<uint32_t>(length);
      uint32_t innerOffset = 0;
      while (innerOffset < innerSize) {
        uint64_t innerTag;
        innerOffset = readVarint(innerTag, inner, innerSize, innerOffset);
        uint32_t innerWireType = static_cast<uint32_t>(innerTag & kWireTypeMask);
        const FieldSpec& innerSpec = lookUp(kMessageFields, innerTag >> kFieldShift);
        if (innerSpec.name == nullptr) {
          // Fields we do not model (query_zone) and those newer senders add (policy,
          // http_protocol) are stepped over, so their records still reach the collectors.
          innerOffset = skipField(innerWireType, inner, innerSize, innerOffset);
          continue;
        }
        if (innerWireType != innerSpec.wireType) {
          throw DnstapError(std::string("Expected message ") + innerSpec.name + " field to use " +
                            kWireTypeNames[innerSpec.wireType] + " type but got " +
                            std::to_string(innerWireType));
        }
        innerOffset = readValue(*this, innerSpec, inner, innerSize, innerOffset);
      }
    } else {
      offset = skipField(wireType, data, size, offset);
    }
  }
  return offset;
}

void DnstapMessage::encode(std::string& out) {
  std::string& buffer = encodeBuffer_;
  buffer.clear();
  auto putNumber = [&buffer](uint32_t field, uint64_t value) {
    if (value == 0) return;
    buffer.push_back(static_cast<char>(makeTag(field, kWireVarint)));
    encodeVarint(buffer, value);
  };
  auto putBytes = [](std::string& to, uint32_t field, const std::string& value) {
    if (value.empty()) return;
    to.push_back(static_cast<char>(makeTag(field, kWireBytes)));
    encodeVarint(to, value.size());
    to.append(value);
  };
  auto putFixed32 = [&buffer](uint32_t field, uint32_t value) {
    if (value == 0) return;
    buffer.push_back(static_cast<char>(makeTag(field, kWireFixed32)));
    encodeFixed32(buffer, value);
  };

  // The type is written even when zero; response_port follows query_message, not query_port.
  buffer.push_back(static_cast<char>(makeTag(1, kWireVarint)));
  encodeVarint(buffer, type);
  putNumber(2, socket_family);
  putNumber(3, socket_protocol);
  putBytes(buffer, 4, query_address);
  putBytes(buffer, 5, response_address);
  putNumber(6, query_port);
  putNumber(8, query_time_sec);
  putFixed32(9, query_time_nsec);
  putBytes(buffer, 10, query_message);
  putNumber(7, response_port);
  putNumber(12, response_time_sec);
  putFixed32(13, response_time_nsec);
  putBytes(buffer, 14, response_message);

  putBytes(out, kFrameIdentity, identity);
  putBytes(out, kFrameVersion, version);
  putBytes(out, kFrameExtra, extra);
  out.push_back(static_cast<char>(makeTag(kFrameType, kWireVarint)));
  out.push_back(static_cast<char>(kFrameTypeMessage));
  out.push_back(static_cast<char>(makeTag(kFrameMessage, kWireBytes)));
  encodeVarint(out, buffer.size());
  out.append(buffer);
}

}  // namespace vantrelo::encoding::dnstap
