// The property layouts of the DNS Server provider's events, per event id and Windows release.
//
// The provider adds properties between releases, so each event id has one layout per range of
// Windows version indices (windows_version.h). A layout lists, by property index, what the
// decoder does with each property. The tables are constant data; thread-safe.
#pragma once

#include <cstdint>

namespace vantrelo::etw {

inline constexpr uint16_t kEventClientQuery = 256;
inline constexpr uint16_t kEventClientResponse = 257;
inline constexpr uint16_t kEventClientResponseFailure = 258;
inline constexpr uint16_t kEventIgnored = 259;
inline constexpr uint16_t kEventResolverQuery = 260;
inline constexpr uint16_t kEventResolverResponse = 261;
inline constexpr uint16_t kFirstEventId = kEventClientQuery;
inline constexpr uint16_t kLastEventId = kEventResolverResponse;

// What one property is read as and where its value goes.
enum class PropertyRole : uint8_t {
  kTcp,        // uint8: non-zero means TCP
  kServer,     // ANSI string: the server-side address text
  kClient,     // ANSI string: the client-side address text
  kPort,       // uint32: the client port
  kLength,     // uint32: the DNS message's length
  kMessage,    // binary of kLength bytes: the DNS message
  kSkipUint8,  // read and discarded
  kSkipUint32,
  kSkipAnsi,
  kSkipUnicode,
};

// The listener switch that turns an event on or off.
enum class EventClass : uint8_t {
  kClientQuery,
  kClientResponse,
  kResolverQuery,
  kResolverResponse
};

struct EventLayout {
  uint16_t eventId;
  uint32_t firstVersion;  // Windows version indices this layout applies to, inclusive
  uint32_t lastVersion;
  EventClass eventClass;
  uint64_t messageType;  // dnstap Message.Type; odd types are queries
  uint32_t minimumProperties;
  const char* tooFewText;  // followed by the property count found
  const PropertyRole* roles;
  uint32_t roleCount;  // never more than minimumProperties
};

// The layout of `eventId` on Windows version index `windowsVersion`, or nullptr when the id is
// not decoded (259 and every id outside 256..261) or the index is 0 (unknown).
const EventLayout* findEventLayout(uint16_t eventId, uint32_t windowsVersion);

}  // namespace vantrelo::etw
