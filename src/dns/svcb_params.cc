#include "dns/svcb_params.h"

#include <string>
#include <string_view>

#include "base/data.h"
#include "dns/dns_message.h"
#include "dns/record_data.h"
#include "dns/vocabulary.h"
#include "encoding/ip.h"
#include "encoding/text_encoding.h"

namespace vantrelo::net::dns {
namespace {

using base::data::readUint16;
using base::data::readUint8;

constexpr uint16_t kKeyMandatory = 0;
constexpr uint16_t kKeyAlpn = 1;
constexpr uint16_t kKeyNoDefaultAlpn = 2;
constexpr uint16_t kKeyPort = 3;
constexpr uint16_t kKeyIpv4Hint = 4;
constexpr uint16_t kKeyEch = 5;
constexpr uint16_t kKeyIpv6Hint = 6;
constexpr uint16_t kKeyDohPath = 7;
constexpr uint32_t kIpv4Size = 4;
constexpr uint32_t kIpv6Size = 16;

// Key names by number; keys from 8 on are written "key" and their number.
constexpr std::string_view kKeyNames[] = {"mandatory", "alpn", "no-default-alpn", "port",
                                          "ipv4hint",  "ech",  "ipv6hint",        "dohpath"};
constexpr uint16_t kNamedKeys = sizeof kKeyNames / sizeof kKeyNames[0];

void append_key_name(std::string& out, uint16_t key) {
  if (key < kNamedKeys) {
    out.append(kKeyNames[key]);
  } else {
    out.append("key");
    append_decimal(out, key);
  }
}

// Fails when `count` bytes at `offset` would run past `end`.
void expect_bytes(uint32_t count, uint32_t offset, uint32_t end) {
  if (offset + count > end) {
    throw DnsError("Parse HTTPS record data failed: Expected " + std::to_string(count) +
                   " << bytes at " + std::to_string(offset) + " until " + std::to_string(end));
  }
}

// One parameter's value: [offset, end) of the message.
struct Value {
  const uint8_t* message;
  uint32_t length;
  uint32_t offset;
  uint32_t end;
  std::string& out;
};

void append_mandatory(const Value& v) {
  for (uint32_t offset = v.offset; offset < v.end;) {
    if (offset != v.offset) v.out.push_back(',');
    uint16_t key = 0;
    offset = readUint16(key, v.message, v.length, offset);
    append_key_name(v.out, key);
  }
}

void append_alpn(const Value& v) {
  for (uint32_t offset = v.offset; offset < v.end;) {
    if (offset != v.offset) v.out.push_back(',');
    uint8_t id_length = 0;
    offset = readUint8(id_length, v.message, v.length, offset);
    expect_bytes(id_length, offset, v.end);
    append_escaped(v.message + offset, id_length, v.out);
    offset += id_length;
  }
}

void append_port(const Value& v) {
  uint16_t port = 0;
  readUint16(port, v.message, v.length, v.offset);
  append_decimal(v.out, port);
}

template <uint32_t kSize, void (*kFormat)(std::string&, const uint8_t*)>
void append_addresses(const Value& v) {
  for (uint32_t offset = v.offset; offset < v.end; offset += kSize) {
    if (offset != v.offset) v.out.push_back(',');
    expect_bytes(kSize, offset, v.end);
    kFormat(v.out, v.message + offset);
  }
}

void append_ech(const Value& v) {
  encoding::base64::base64Encode(v.out, v.message + v.offset, v.end - v.offset);
}

// The path is read as a character-string (length byte first), which is how collectors have
// always received it.
void append_dohpath(const Value& v) {
  if (v.offset == v.end) return;
  append_character_strings(v.message + v.offset, v.end - v.offset, v.out, false, true);
}

void append_other(const Value& v) { append_escaped(v.message + v.offset, v.end - v.offset, v.out); }

struct ParamFormat {
  uint16_t key;
  bool has_value;  // false: the key alone, no "=" and no quotes
  void (*append)(const Value&);
};

constexpr ParamFormat kParamFormats[] = {
    {kKeyMandatory, true, append_mandatory},
    {kKeyAlpn, true, append_alpn},
    {kKeyNoDefaultAlpn, false, nullptr},
    {kKeyPort, true, append_port},
    {kKeyIpv4Hint, true, append_addresses<kIpv4Size, encoding::ip::formatIpv4>},
    {kKeyEch, true, append_ech},
    {kKeyIpv6Hint, true, append_addresses<kIpv6Size, encoding::ip::formatIpv6>},
    {kKeyDohPath, true, append_dohpath},
};

constexpr ParamFormat kOtherParam = {0, true, append_other};

const ParamFormat& find_format(uint16_t key) {
  for (const ParamFormat& format : kParamFormats) {
    if (format.key == key) return format;
  }
  return kOtherParam;
}

}  // namespace

void append_svcb_params(const uint8_t* message, uint32_t length, uint32_t offset, uint32_t end,
                        std::string& out_text) {
  while (offset < end) {
    out_text.push_back(' ');
    uint16_t key = 0;
    uint16_t value_length = 0;
    offset = readUint16(key, message, length, offset);
    offset = readUint16(value_length, message, length, offset);
    expect_bytes(value_length, offset, end);
    append_key_name(out_text, key);
    const ParamFormat& format = find_format(key);
    if (format.has_value) {
      out_text.append("=\"");
      format.append(Value{message, length, offset, offset + value_length, out_text});
      out_text.push_back('"');
    }
    offset += value_length;
  }
}

}  // namespace vantrelo::net::dns
