// Options of an ETW listener's trace session and event decoding. Plain values.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vantrelo::etw {

struct EtwSettings {
  uint32_t windowsVersion = 0;  // 1 = 2012 R2 ... 5 = 2025; see windows_version.h
  uint32_t bufferSize = 256;    // kilobytes
  uint32_t minimumBuffers = 0;
  uint32_t maximumBuffers = 0;
  uint32_t flushTimer = 1;  // seconds
  bool filter = false;      // pass the event-id filter when enabling the provider
  std::vector<uint16_t> eventIds;
  uint8_t level = 4;
  uint64_t matchAnyKeyword = 0x37;
  uint64_t matchAllKeyword = 0;
  bool independentSession = true;  // start the session in independent-session mode
  // Which classes of event are decoded.
  bool clientQuery = true;        // events 256, 287
  bool clientResponse = true;     // events 257, 258, 284, 285
  bool resolverQuery = false;     // events 260, 289
  bool resolverResponse = false;  // events 261, 290
  // dnstap header fields.
  bool identityFromEvent = true;  // "event-hostname": the host name carried by the event
  bool hasVersion = false;
  std::string version;  // "Vantrelo 2.4.4" when dnstap-version=vantrelo
  bool hasExtra = false;
  std::string extra;
};

}  // namespace vantrelo::etw
