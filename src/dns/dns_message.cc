#include "dns/dns_message.h"

#include <exception>
#include <string>

#include "base/data.h"
#include "dns/record_data.h"

namespace vantrelo::net::dns {
namespace {

using base::data::readUint16;
using base::data::readUint32;
using base::data::readUint8;

constexpr uint32_t kHeaderSize = 12;
constexpr uint8_t kPointerMask = 0xC0;
// The only guard against pointer loops: a name may follow at most this many pointers.
constexpr uint32_t kMaxPointers = 127;

// Additional-section records that are never shown: the EDNS pseudo-record and signatures.
constexpr uint16_t kHiddenAdditionalTypes[] = {24 /* SIG */, 41 /* OPT */, 250 /* TSIG */};

bool is_hidden_additional(uint16_t type) {
  for (uint16_t hidden : kHiddenAdditionalTypes) {
    if (type == hidden) return true;
  }
  return false;
}

// Copies `name` to `lower`, turning only the 26 ASCII capitals to lower case; escapes are
// already digits and stay as they are.
void assign_lower(std::string& lower, const std::string& name) {
  lower.assign(name);
  for (char& c : lower) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
}

DnsRecord& slot(DnsSection& section, uint32_t index) {
  if (section.records.size() <= index) section.records.emplace_back();
  return section.records[index];
}

// Reads `count` records from `offset` into `section` and returns the offset after the last one.
// With `additional` the hidden types are skipped and taken off message.arcount.
uint32_t parse_section(const uint8_t* bytes, uint32_t length, uint32_t offset, uint16_t count,
                       DnsSection& section, DnsMessage& message, bool trailing_dot,
                       bool additional) {
  for (uint32_t i = 0; i < count; ++i) {
    DnsRecord& record = slot(section, section.size);
    record.name.clear();
    offset = read_name(offset, bytes, length, record.name, trailing_dot);
    assign_lower(record.name_lower, record.name);
    offset = readUint16(record.type, bytes, length, offset);
    offset = readUint16(record.klass, bytes, length, offset);
    offset = readUint32(record.ttl, bytes, length, offset);
    uint16_t rdlength = 0;
    offset = readUint16(rdlength, bytes, length, offset);
    if (offset + rdlength > length) {
      throw DnsError("Offset " + std::to_string(offset) + " + record data length " +
                     std::to_string(rdlength) + " is out of bounds for packet of " +
                     std::to_string(length) + " bytes");
    }
    if (additional && is_hidden_additional(record.type)) {
      --message.arcount;  // the slot is reused for the next record
    } else {
      record.data.clear();
      present_rdata(offset, bytes, length, record.type, rdlength, record.data, trailing_dot);
      ++section.size;
    }
    offset += rdlength;
  }
  return offset;
}

}  // namespace

uint32_t read_name(uint32_t offset, const uint8_t* bytes, uint32_t length, std::string& out_text,
                   bool trailing_dot) {
  uint32_t first_pointer_end = 0;
  uint32_t pointer_count = 0;
  bool first_label = true;
  for (;;) {
    uint8_t b = 0;
    uint32_t next = readUint8(b, bytes, length, offset);
    if ((b & kPointerMask) != 0) {
      ++pointer_count;
      if (pointer_count > kMaxPointers) {
        throw DnsError("Read FQDN failed: DNS name has at least " + std::to_string(pointer_count) +
                       " label pointers which is more than the maximum allowed of " +
                       std::to_string(kMaxPointers));
      }
      uint8_t low = 0;
      next = readUint8(low, bytes, length, next);
      if (first_pointer_end == 0) first_pointer_end = next;
      // 0x40..0xBF are pointers too and reach offsets of 0x4000 and beyond.
      offset = (static_cast<uint32_t>(b ^ kPointerMask) << 8) | low;
      if (offset >= length) {
        throw DnsError("Read FQDN failed: DNS name uses pointer offset " + std::to_string(offset) +
                       " which is past packet len " + std::to_string(length));
      }
      continue;
    }
    if (b == 0) {
      if (trailing_dot) out_text.push_back('.');
      return first_pointer_end != 0 ? first_pointer_end : next;
    }
    // A label must leave room for at least one more byte (the terminator or a pointer).
    if (next + b >= length) {
      throw DnsError("Read FQDN failed: DNS name offset + label length " +
                     std::to_string(next + b) + " which is past packet len " +
                     std::to_string(length));
    }
    if (!first_label) out_text.push_back('.');
    first_label = false;
    append_escaped(bytes + next, b, out_text);
    offset = next + b;
  }
}

void parse(const uint8_t* bytes, uint32_t length, DnsMessage& message, bool trailing_dot) {
  message.error.clear();
  message.size = length;
  message.answers.size = 0;
  message.authority.size = 0;
  message.additional.size = 0;
  try {
    uint32_t offset = 0;
    offset = readUint16(message.id, bytes, length, offset);
    offset = readUint16(message.flags, bytes, length, offset);
    offset = readUint16(message.qdcount, bytes, length, offset);
    offset = readUint16(message.ancount, bytes, length, offset);
    offset = readUint16(message.nscount, bytes, length, offset);
    offset = readUint16(message.arcount, bytes, length, offset);
    if (message.qdcount != 1) {
      throw DnsError("No question RRs " + std::to_string(message.qdcount) + " is not 1");
    }
    message.qname.clear();
    offset = read_name(kHeaderSize, bytes, length, message.qname, trailing_dot);
    offset = readUint16(message.qtype, bytes, length, offset);
    offset = readUint16(message.qclass, bytes, length, offset);
    assign_lower(message.qname_lower, message.qname);

    uint16_t additional_count = message.arcount;
    offset = parse_section(bytes, length, offset, message.ancount, message.answers, message,
                           trailing_dot, false);
    offset = parse_section(bytes, length, offset, message.nscount, message.authority, message,
                           trailing_dot, false);
    parse_section(bytes, length, offset, additional_count, message.additional, message,
                  trailing_dot, true);
  } catch (const std::exception& e) {
    message.error.assign("Read DNS message failed: ");
    message.error.append(e.what());
  }
}

}  // namespace vantrelo::net::dns
