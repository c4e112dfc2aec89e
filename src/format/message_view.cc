#include "format/message_view.h"

#include "dns/dns_message.h"
#include "encoding/ip.h"

namespace vantrelo::format {

namespace {

using encoding::dnstap::DnstapMessage;
using net::dns::DnsError;

// The fields that hold the time and the wire message, for queries and for responses.
struct Direction {
  uint64_t DnstapMessage::*time_sec;
  uint32_t DnstapMessage::*time_nsec;
  std::string DnstapMessage::*message;
  const char* zero_time_text;
  const char* nsec_range_text;
};

const Direction kQueryDirection = {
    &DnstapMessage::query_time_sec,
    &DnstapMessage::query_time_nsec,
    &DnstapMessage::query_message,
    "Expected message query_time_sec not to be 0 but got ",
    "Expected message query_time_nsec to be less than 1000000000 but got ",
};

const Direction kResponseDirection = {
    &DnstapMessage::response_time_sec,
    &DnstapMessage::response_time_nsec,
    &DnstapMessage::response_message,
    "Expected message response_time_sec not to be 0 but got ",
    "Expected message response_time_nsec to be less than 1000000000 but got ",
};

void checkAddress(const std::string& address, const char* field) {
  const size_t size = address.size();
  if (size != 0 && size != kIpv4Length && size != kIpv6Length) {
    throw DnsError(std::string("Expected message ") + field + " to be 0, 4 or 16 bytes but got " +
                   std::to_string(size));
  }
}

// The address must have passed checkAddress.
void renderAddress(std::string& out, const std::string& address, uint64_t family) {
  out.clear();
  const auto* bytes = reinterpret_cast<const uint8_t*>(address.data());
  if (address.size() == kIpv4Length) {
    encoding::ip::formatIpv4(out, bytes);
  } else if (address.size() == kIpv6Length) {
    // Some senders put IPv4 peers into 16 bytes and say so only through the family.
    if (family == kFamilyInet) {
      encoding::ip::formatIpv4(out, bytes + kIpv6Length - kIpv4Length);
    } else {
      encoding::ip::formatIpv6(out, bytes);
    }
  }
}

// Every check of make_view, in its order; returns the direction the view shows, or nullptr for
// a record not worth a message.
const Direction* checkRecord(const DnstapMessage& record) {
  if (record.type == 0 || record.type >= kMessageTypeCount) return nullptr;
  const Direction& direction = (record.type & 1) != 0 ? kQueryDirection : kResponseDirection;
  const uint64_t time_sec = record.*direction.time_sec;
  const uint32_t time_nsec = record.*direction.time_nsec;
  if (time_sec == 0) throw DnsError(direction.zero_time_text + std::to_string(time_sec));
  if (time_nsec >= kNanosecondsPerSecond) {
    throw DnsError(direction.nsec_range_text + std::to_string(time_nsec));
  }
  if ((record.*direction.message).empty()) return nullptr;
  checkAddress(record.response_address, "response_address");
  checkAddress(record.query_address, "query_address");
  return &direction;
}

}  // namespace

bool check_record(const DnstapMessage& record) { return checkRecord(record) != nullptr; }

bool make_view(const DnstapMessage& record, MessageView& view) {
  const Direction* direction = checkRecord(record);
  if (direction == nullptr) return false;
  view.type = static_cast<uint32_t>(record.type);
  view.is_query = (record.type & 1) != 0;
  view.protocol = static_cast<uint16_t>(record.socket_protocol);
  view.client_port = static_cast<uint32_t>(record.query_port);
  view.time_sec = record.*direction->time_sec;
  view.time_nsec = record.*direction->time_nsec;
  const std::string& wire = record.*direction->message;
  view.wire = reinterpret_cast<const uint8_t*>(wire.data());
  view.wire_length = static_cast<uint32_t>(wire.size());
  renderAddress(view.server, record.response_address, record.socket_family);
  renderAddress(view.client, record.query_address, record.socket_family);
  return true;
}

}  // namespace vantrelo::format
