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

void renderAddress(std::string& out, const std::string& address, uint64_t family,
                   const char* field) {
  out.clear();
  const auto* bytes = reinterpret_cast<const uint8_t*>(address.data());
  switch (address.size()) {
    case 0:
      return;
    case kIpv4Length:
      encoding::ip::formatIpv4(out, bytes);
      return;
    case kIpv6Length:
      // Some senders put IPv4 peers into 16 bytes and say so only through the family.
      if (family == kFamilyInet) {
        encoding::ip::formatIpv4(out, bytes + kIpv6Length - kIpv4Length);
      } else {
        encoding::ip::formatIpv6(out, bytes);
      }
      return;
    default:
      throw DnsError(std::string("Expected message ") + field + " to be 0, 4 or 16 bytes but got " +
                     std::to_string(address.size()));
  }
}

}  // namespace

bool make_view(const DnstapMessage& record, MessageView& view) {
  if (record.type == 0 || record.type >= kMessageTypeCount) return false;
  view.type = static_cast<uint32_t>(record.type);
  view.is_query = (record.type & 1) != 0;
  view.protocol = static_cast<uint16_t>(record.socket_protocol);
  view.client_port = static_cast<uint32_t>(record.query_port);

  const Direction& direction = view.is_query ? kQueryDirection : kResponseDirection;
  view.time_sec = record.*direction.time_sec;
  view.time_nsec = record.*direction.time_nsec;
  if (view.time_sec == 0) {
    throw DnsError(direction.zero_time_text + std::to_string(view.time_sec));
  }
  if (view.time_nsec >= kNanosecondsPerSecond) {
    throw DnsError(direction.nsec_range_text + std::to_string(view.time_nsec));
  }
  const std::string& wire = record.*direction.message;
  if (wire.empty()) return false;
  view.wire = reinterpret_cast<const uint8_t*>(wire.data());
  view.wire_length = static_cast<uint32_t>(wire.size());

  renderAddress(view.server, record.response_address, record.socket_family, "response_address");
  renderAddress(view.client, record.query_address, record.socket_family, "query_address");
  return true;
}

}  // namespace vantrelo::format
