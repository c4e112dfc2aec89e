// One dnstap record in memory: a Dnstap frame carrying one Message.
//
// Owned by one worker and reused for event after event: clear() and decode() keep the capacity
// of every byte string, so steady-state decoding and encoding allocate nothing. Not thread-safe.
#pragma once

#include <cstdint>
#include <string>

#include "encoding/protobuf.h"

namespace vantrelo::encoding::dnstap {

// dnstap Message.Type values: odd types are queries, even types responses.
enum MessageType : uint64_t {
  kAuthQuery = 1,
  kAuthResponse = 2,
  kResolverQuery = 3,
  kResolverResponse = 4,
  kClientQuery = 5,
  kClientResponse = 6,
  kForwarderQuery = 7,
  kForwarderResponse = 8,
  kStubQuery = 9,
  kStubResponse = 10,
  kToolQuery = 11,
  kToolResponse = 12,
};

inline constexpr uint64_t kFamilyInet = 1;
inline constexpr uint64_t kFamilyInet6 = 2;
inline constexpr uint64_t kProtocolUdp = 1;
inline constexpr uint64_t kProtocolTcp = 2;

class DnstapMessage {
 public:
  // Dnstap frame fields.
  std::string identity;
  std::string version;
  std::string extra;
  // Message fields.
  uint64_t type = 0;
  uint64_t socket_family = 0;
  uint64_t socket_protocol = 0;
  std::string query_address;
  std::string response_address;
  uint64_t query_port = 0;
  uint64_t response_port = 0;
  uint64_t query_time_sec = 0;
  uint32_t query_time_nsec = 0;
  std::string query_message;
  uint64_t response_time_sec = 0;
  uint32_t response_time_nsec = 0;
  std::string response_message;

  // Empties every Message field; with alsoHeader also identity, version and extra.
  void clear(bool alsoHeader);
  // Clears the whole record, then parses one serialised Dnstap frame from data[offset..size).
  // Returns the offset where parsing ended. Throws DnstapError; the record is then partly
  // filled until the next decode or clear. Unknown fields, in the frame or inside the Message,
  // are skipped by their wire type.
  uint32_t decode(const uint8_t* data, uint32_t size, uint32_t offset);
  // Appends the serialised Dnstap frame to `out`.
  void encode(std::string& out);

 private:
  std::string encodeBuffer_;  // scratch for the inner Message, kept for its capacity
};

}  // namespace vantrelo::encoding::dnstap
