// Feeds arbitrary bytes to the dnstap decoder: it must return or throw DnstapError, never read
// outside the input or hang. A decoded record is encoded and decoded again, which must
// reproduce it.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "encoding/dnstap_message.h"

namespace {

bool sameRecord(const vantrelo::encoding::dnstap::DnstapMessage& a,
                const vantrelo::encoding::dnstap::DnstapMessage& b) {
  return a.identity == b.identity && a.version == b.version && a.extra == b.extra &&
         a.type == b.type && a.socket_family == b.socket_family &&
         a.socket_protocol == b.socket_protocol && a.query_address == b.query_address &&
         a.response_address == b.response_address && a.query_port == b.query_port &&
         a.response_port == b.response_port && a.query_time_sec == b.query_time_sec &&
         a.query_time_nsec == b.query_time_nsec && a.query_message == b.query_message &&
         a.response_time_sec == b.response_time_sec &&
         a.response_time_nsec == b.response_time_nsec && a.response_message == b.response_message;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using vantrelo::encoding::dnstap::DnstapError;
  using vantrelo::encoding::dnstap::DnstapMessage;
  if (size > UINT32_MAX) return 0;
  static DnstapMessage record;  // reused, as a forwarder does
  try {
    record.decode(data, static_cast<uint32_t>(size), 0);
  } catch (const DnstapError&) {
    return 0;
  }
  std::string encoded;
  record.encode(encoded);
  DnstapMessage again;
  again.decode(reinterpret_cast<const uint8_t*>(encoded.data()),
               static_cast<uint32_t>(encoded.size()), 0);
  if (!sameRecord(record, again)) std::abort();
  return 0;
}
