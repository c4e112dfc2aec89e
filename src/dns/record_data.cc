#include "dns/record_data.h"

#include <string>
#include <string_view>

#include "base/data.h"
#include "dns/dns_message.h"
#include "dns/svcb_params.h"
#include "dns/vocabulary.h"
#include "encoding/ip.h"
#include "encoding/text_encoding.h"
#include "encoding/time_format.h"

namespace vantrelo::net::dns {
namespace {

using base::data::readUint16;
using base::data::readUint32;
using base::data::readUint8;

constexpr uint32_t kIpv4Size = 4;
constexpr uint32_t kIpv6Size = 16;

// One record's data inside the whole message: [start, end) with end = start + rdlength.
struct Rdata {
  const uint8_t* message;
  uint32_t length;
  uint16_t type;
  uint16_t rdlength;
  uint32_t start;
  uint32_t end;
  std::string& out;
  bool trailing_dot;
};

// Fails when the fields read so far reach beyond the record data, before a "rest of the data"
// length is taken from it.
void require_within(const Rdata& rd, uint32_t offset) {
  if (offset > rd.end) {
    std::string message;
    append_name(message, kRecordTypes, rd.type, "TYPE");
    throw DnsError(message + " record data length is " + std::to_string(rd.rdlength) +
                   " but its fields need " + std::to_string(offset - rd.start) + " bytes");
  }
}

void require_length(const Rdata& rd, const char* type_text, uint16_t expected) {
  if (rd.rdlength != expected) {
    throw DnsError(std::string(type_text) + " record data length is " +
                   std::to_string(rd.rdlength) + " but should be " + std::to_string(expected));
  }
}

uint32_t append_u8(const Rdata& rd, uint32_t offset) {
  uint8_t value = 0;
  offset = readUint8(value, rd.message, rd.length, offset);
  append_decimal(rd.out, value);
  return offset;
}

uint32_t append_u16(const Rdata& rd, uint32_t offset) {
  uint16_t value = 0;
  offset = readUint16(value, rd.message, rd.length, offset);
  append_decimal(rd.out, value);
  return offset;
}

uint32_t append_u32(const Rdata& rd, uint32_t offset) {
  uint32_t value = 0;
  offset = readUint32(value, rd.message, rd.length, offset);
  append_decimal(rd.out, value);
  return offset;
}

uint32_t append_time(const Rdata& rd, uint32_t offset) {
  uint32_t value = 0;
  offset = readUint32(value, rd.message, rd.length, offset);
  encoding::time::formatCompactTime(rd.out, value);
  return offset;
}

uint32_t append_name_at(const Rdata& rd, uint32_t offset) {
  return read_name(offset, rd.message, rd.length, rd.out, rd.trailing_dot);
}

void append_base64_rest(const Rdata& rd, uint32_t offset) {
  require_within(rd, offset);
  encoding::base64::base64Encode(rd.out, rd.message + offset, rd.end - offset);
}

void append_hex_rest(const Rdata& rd, uint32_t offset) {
  require_within(rd, offset);
  encoding::hex::hexEncode(rd.out, rd.message + offset, rd.end - offset);
}

// A salt: its length byte, then its hex, or "-" when it is empty.
uint32_t append_salt(const Rdata& rd, uint32_t offset) {
  uint8_t salt_length = 0;
  offset = readUint8(salt_length, rd.message, rd.length, offset);
  require_within(rd, offset + salt_length);
  if (salt_length == 0) {
    rd.out.push_back('-');
  } else {
    encoding::hex::hexEncode(rd.out, rd.message + offset, salt_length);
  }
  return offset + salt_length;
}

void present_a(const Rdata& rd) {
  require_length(rd, "A", kIpv4Size);
  encoding::ip::formatIpv4(rd.out, rd.message + rd.start);
}

void present_aaaa(const Rdata& rd) {
  require_length(rd, "AAAA", kIpv6Size);
  encoding::ip::formatIpv6(rd.out, rd.message + rd.start);
}

void present_name(const Rdata& rd) { append_name_at(rd, rd.start); }

void present_soa(const Rdata& rd) {
  uint32_t offset = append_name_at(rd, rd.start);
  rd.out.push_back(' ');
  offset = append_name_at(rd, offset);
  for (int i = 0; i < 5; ++i) {  // serial, refresh, retry, expire, minimum
    rd.out.push_back(' ');
    offset = append_u32(rd, offset);
  }
}

void present_preference_name(const Rdata& rd) {
  uint32_t offset = append_u16(rd, rd.start);
  rd.out.push_back(' ');
  append_name_at(rd, offset);
}

void present_txt(const Rdata& rd) {
  append_character_strings(rd.message + rd.start, rd.rdlength, rd.out, true, false);
}

void present_srv(const Rdata& rd) {
  uint32_t offset = rd.start;
  for (int i = 0; i < 3; ++i) {  // priority, weight, port
    offset = append_u16(rd, offset);
    rd.out.push_back(' ');
  }
  append_name_at(rd, offset);
}

void present_naptr(const Rdata& rd) {
  uint32_t offset = append_u16(rd, rd.start);
  rd.out.push_back(' ');
  offset = append_u16(rd, offset);
  for (int i = 0; i < 3; ++i) {  // flags, services, regexp
    rd.out.push_back(' ');
    require_within(rd, offset);
    offset += append_character_strings(rd.message + offset, rd.end - offset, rd.out, true, true);
  }
  rd.out.push_back(' ');
  append_name_at(rd, offset);
}

void present_cert(const Rdata& rd) {
  uint16_t certificate_type = 0;
  uint32_t offset = readUint16(certificate_type, rd.message, rd.length, rd.start);
  append_name(rd.out, kCertificateTypes, certificate_type, "");
  rd.out.push_back(' ');
  offset = append_u16(rd, offset);
  rd.out.push_back(' ');
  uint8_t algorithm = 0;
  offset = readUint8(algorithm, rd.message, rd.length, offset);
  append_name(rd.out, kDnssecAlgorithms, algorithm, "");
  rd.out.push_back(' ');
  append_base64_rest(rd, offset);
}

void present_ds(const Rdata& rd) {
  uint32_t offset = append_u16(rd, rd.start);  // key tag
  rd.out.push_back(' ');
  offset = append_u8(rd, offset);  // algorithm
  rd.out.push_back(' ');
  offset = append_u8(rd, offset);  // digest type
  rd.out.push_back(' ');
  append_hex_rest(rd, offset);
}

void present_sshfp(const Rdata& rd) {
  uint32_t offset = append_u8(rd, rd.start);
  rd.out.push_back(' ');
  offset = append_u8(rd, offset);
  rd.out.push_back(' ');
  append_hex_rest(rd, offset);
}

// Reads one byte further than the published layout and picks the gateway by the algorithm
// byte; collectors already parse this text, so the reading stays as it is.
void present_ipseckey(const Rdata& rd) {
  uint8_t selector = 0;
  uint32_t offset = rd.start;
  for (int i = 0; i < 4; ++i) {
    if (i > 0) rd.out.push_back(' ');
    if (i == 2) readUint8(selector, rd.message, rd.length, offset);
    offset = append_u8(rd, offset);
  }
  switch (selector) {
    case 0:
      rd.out.append(" .");
      break;
    case 1:
      require_within(rd, offset + kIpv4Size);
      rd.out.push_back(' ');
      encoding::ip::formatIpv4(rd.out, rd.message + offset);
      offset += kIpv4Size;
      break;
    case 2:
      require_within(rd, offset + kIpv6Size);
      rd.out.push_back(' ');
      encoding::ip::formatIpv6(rd.out, rd.message + offset);
      offset += kIpv6Size;
      break;
    case 3:
      rd.out.push_back(' ');
      offset = append_name_at(rd, offset);
      break;
    default:
      break;
  }
  rd.out.push_back(' ');
  append_base64_rest(rd, offset);
}

void present_rrsig(const Rdata& rd) {
  uint16_t covered = 0;
  uint32_t offset = readUint16(covered, rd.message, rd.length, rd.start);
  append_name(rd.out, kRecordTypes, covered, "TYPE");
  rd.out.push_back(' ');
  offset = append_u8(rd, offset);  // algorithm
  rd.out.push_back(' ');
  offset = append_u8(rd, offset);  // labels
  rd.out.push_back(' ');
  offset = append_u32(rd, offset);  // original TTL
  rd.out.push_back(' ');
  offset = append_time(rd, offset);  // expiration
  rd.out.push_back(' ');
  offset = append_time(rd, offset);  // inception
  rd.out.push_back(' ');
  offset = append_u16(rd, offset);  // key tag
  rd.out.push_back(' ');
  offset = append_name_at(rd, offset);
  rd.out.push_back(' ');
  append_base64_rest(rd, offset);
}

void present_dnskey(const Rdata& rd) {
  uint32_t offset = append_u16(rd, rd.start);  // flags
  rd.out.push_back(' ');
  offset = append_u8(rd, offset);  // protocol
  rd.out.push_back(' ');
  offset = append_u8(rd, offset);  // algorithm
  rd.out.push_back(' ');
  append_base64_rest(rd, offset);
}

void present_base64(const Rdata& rd) { append_base64_rest(rd, rd.start); }

uint32_t append_nsec3_head(const Rdata& rd) {
  uint32_t offset = append_u8(rd, rd.start);  // hash algorithm
  rd.out.push_back(' ');
  offset = append_u8(rd, offset);  // flags
  rd.out.push_back(' ');
  offset = append_u16(rd, offset);  // iterations
  rd.out.push_back(' ');
  return append_salt(rd, offset);
}

void present_nsec3(const Rdata& rd) {
  uint32_t offset = append_nsec3_head(rd);
  rd.out.push_back(' ');
  uint8_t hash_length = 0;
  offset = readUint8(hash_length, rd.message, rd.length, offset);
  require_within(rd, offset + hash_length);
  encoding::base32::base32HexEncode(rd.out, rd.message + offset, hash_length);
  offset += hash_length;
  while (offset < rd.end) {
    uint8_t window = 0;
    uint8_t bitmap_length = 0;
    offset = readUint8(window, rd.message, rd.length, offset);
    offset = readUint8(bitmap_length, rd.message, rd.length, offset);
    for (uint32_t index = 0; index < bitmap_length; ++index) {
      uint8_t bits = 0;
      offset = readUint8(bits, rd.message, rd.length, offset);
      for (uint32_t bit = 0; bit < 8; ++bit) {
        if ((bits & (0x80u >> bit)) == 0) continue;
        rd.out.push_back(' ');
        append_name(rd.out, kRecordTypes, static_cast<uint16_t>(window * 256 + index * 8 + bit),
                    "TYPE");
      }
    }
  }
}

void present_nsec3param(const Rdata& rd) { append_nsec3_head(rd); }

void present_uri(const Rdata& rd) {
  uint32_t offset = append_u16(rd, rd.start);  // priority
  rd.out.push_back(' ');
  offset = append_u16(rd, offset);  // weight
  rd.out.push_back(' ');
  require_within(rd, offset);
  append_character_strings(rd.message + offset, rd.end - offset, rd.out, true, false);
}

void present_caa(const Rdata& rd) {
  uint32_t offset = append_u8(rd, rd.start);  // flags
  rd.out.push_back(' ');
  require_within(rd, offset);
  offset += append_character_strings(rd.message + offset, rd.end - offset, rd.out, false, true);
  rd.out.push_back(' ');
  append_character_strings(rd.message + offset, rd.end - offset, rd.out, true, false);
}

void present_svcb(const Rdata& rd) {
  uint32_t offset = append_u16(rd, rd.start);  // priority
  rd.out.push_back(' ');
  offset = append_name_at(rd, offset);
  append_svcb_params(rd.message, rd.length, offset, rd.end, rd.out);
}

void present_generic(const Rdata& rd) {
  rd.out.append("\\# ");
  append_decimal(rd.out, rd.rdlength);
  rd.out.push_back(' ');
  encoding::hex::hexEncode(rd.out, rd.message + rd.start, rd.rdlength);
}

struct Presenter {
  uint16_t type;
  void (*present)(const Rdata&);
};

// NSEC, HINFO, LOC and every type missing here take the generic form on purpose.
constexpr Presenter kPresenters[] = {
    {1, present_a},         {2, present_name},
    {5, present_name},      {6, present_soa},
    {12, present_name},     {15, present_preference_name},
    {16, present_txt},      {18, present_preference_name},
    {28, present_aaaa},     {33, present_srv},
    {35, present_naptr},    {36, present_preference_name},
    {37, present_cert},     {39, present_name},
    {43, present_ds},       {44, present_sshfp},
    {45, present_ipseckey}, {46, present_rrsig},
    {48, present_dnskey},   {49, present_base64},
    {50, present_nsec3},    {51, present_nsec3param},
    {59, present_ds},       {60, present_dnskey},
    {61, present_base64},   {64, present_svcb},
    {65, present_svcb},     {256, present_uri},
    {257, present_caa},
};

void (*find_presenter(uint16_t type))(const Rdata&) {
  for (const Presenter& presenter : kPresenters) {
    if (presenter.type == type) return presenter.present;
  }
  return present_generic;
}

}  // namespace

void present_rdata(uint32_t offset, const uint8_t* message, uint32_t length, uint16_t type,
                   uint16_t rdlength, std::string& out_text, bool trailing_dot) {
  if (offset + rdlength > length) {
    throw DnsError("Offset " + std::to_string(offset) + " + record data length " +
                   std::to_string(rdlength) + " is out of bounds for packet of " +
                   std::to_string(length) + " bytes");
  }
  Rdata rd{message, length, type, rdlength, offset, offset + rdlength, out_text, trailing_dot};
  find_presenter(type)(rd);
}

uint32_t append_character_strings(const uint8_t* bytes, uint32_t length, std::string& out_text,
                                  bool quoted, bool single) {
  uint32_t offset = 0;
  bool first = true;
  do {
    if (offset >= length) {
      if (single) throw DnsError("Character-string expected but the record data has ended");
      break;
    }
    uint32_t string_length = bytes[offset++];
    if (string_length > length - offset) {
      throw DnsError("Character-string length " + std::to_string(string_length) + " exceeds the " +
                     std::to_string(length - offset) + " bytes left in the record data");
    }
    if (!first) out_text.push_back(' ');
    first = false;
    if (quoted) out_text.push_back('"');
    append_escaped(bytes + offset, string_length, out_text);
    if (quoted) out_text.push_back('"');
    offset += string_length;
  } while (!single);
  return offset;
}

void append_escaped(const uint8_t* bytes, uint32_t length, std::string& out_text) {
  uint32_t run_start = 0;
  for (uint32_t i = 0; i < length; ++i) {
    uint8_t c = bytes[i];
    bool plain = c >= 0x20 && c <= 0x7E && c != '"' && c != '\\';
    if (plain) continue;
    out_text.append(reinterpret_cast<const char*>(bytes) + run_start, i - run_start);
    run_start = i + 1;
    out_text.push_back('\\');
    if (c == '"' || c == '\\') {
      out_text.push_back(static_cast<char>(c));
    } else {
      char digits[3] = {static_cast<char>('0' + c / 100), static_cast<char>('0' + c / 10 % 10),
                        static_cast<char>('0' + c % 10)};
      out_text.append(digits, sizeof digits);
    }
  }
  out_text.append(reinterpret_cast<const char*>(bytes) + run_start, length - run_start);
}

}  // namespace vantrelo::net::dns
