// The printable fields of one dnstap record, checked before any text is written.
//
// A MessageView is owned by the formatter that fills it and reused from record to record: its
// address texts keep their capacity, and `wire` points into the DnstapMessage it was made from,
// so the view is valid only while that record is unchanged. Not thread-safe.
#pragma once

#include <cstdint>
#include <string>

#include "encoding/dnstap_message.h"

namespace vantrelo::format {

// dnstap message types run from 1 to 12; 0 is the unset value.
inline constexpr uint32_t kMessageTypeCount = 13;
inline constexpr uint32_t kNanosecondsPerSecond = 1000000000;
// The socket family under which 16 address bytes are an IPv4-mapped address.
inline constexpr uint64_t kFamilyInet = encoding::dnstap::kFamilyInet;
inline constexpr size_t kIpv4Length = 4;
inline constexpr size_t kIpv6Length = 16;

struct MessageView {
  uint32_t type = 0;
  bool is_query = false;  // odd types
  uint64_t time_sec = 0;  // query time for queries, response time for responses
  uint32_t time_nsec = 0;
  uint16_t protocol = 0;
  std::string server;  // response address text, empty when the record has none
  std::string client;  // query address text, empty when the record has none
  uint32_t client_port = 0;
  const uint8_t* wire = nullptr;  // query message for queries, response message for responses
  uint32_t wire_length = 0;
};

// Fills `view` from a decoded record. Returns false when the record is not worth a message: its
// type lies outside 1..12 or the wire message it would show is empty. Throws
// net::dns::DnsError for a zero time, nanoseconds of a second or more, or an address that is
// not 0, 4 or 16 bytes long.
bool make_view(const encoding::dnstap::DnstapMessage& record, MessageView& view);

// The same verdict as make_view, with the same errors, without building the view: for output
// that carries the record's bytes unchanged and prints none of its fields.
bool check_record(const encoding::dnstap::DnstapMessage& record);

}  // namespace vantrelo::format
