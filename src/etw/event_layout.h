// The property layouts of the DNS Server provider's events, per event id and Windows release.
//
// The provider adds properties between releases, so each event id has one layout per range of
// Windows version indices (windows_version.h). A layout lists, by property index, what the
// decoder does with each property, and names the properties whose values it keeps, so that the
// decoder can tell when a release has moved them. Windows Server 2025 raises EDNS-aware events
// (284, 285, 287, 289, 290) beside the older ones for the same traffic; up to the message they
// carry the properties of the event they shadow. The tables are constant data; thread-safe.
#pragma once

#include <cstdint>

namespace vantrelo::etw {

inline constexpr uint16_t kEventClientQuery = 256;
inline constexpr uint16_t kEventClientResponse = 257;
inline constexpr uint16_t kEventClientResponseFailure = 258;
inline constexpr uint16_t kEventIgnored = 259;
inline constexpr uint16_t kEventResolverQuery = 260;
inline constexpr uint16_t kEventResolverResponse = 261;
inline constexpr uint16_t kEventEdnsClientResponse = 284;
inline constexpr uint16_t kEventEdnsClientResponseFailure = 285;
inline constexpr uint16_t kEventEdnsClientQuery = 287;
inline constexpr uint16_t kEventEdnsResolverQuery = 289;
inline constexpr uint16_t kEventEdnsResolverResponse = 290;
inline constexpr uint16_t kFirstEventId = kEventClientQuery;
inline constexpr uint16_t kLastEventId = kEventEdnsResolverResponse;

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
  // Only where the decoder found a release's properties by name.
  kSkipUint16,
  kSkipUint64,
  kSkipGuid,
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
  // The names of the properties read as kServer and kClient: the local address is
  // "InterfaceIP", the other end's is "Source" or "Destination".
  const char* serverName;
  const char* clientName;
};

// The names of the properties read as kTcp, kPort, kLength and kMessage, in every event.
inline constexpr char kTcpName[] = "TCP";
inline constexpr char kPortName[] = "Port";
inline constexpr char kLengthName[] = "BufferSize";
inline constexpr char kMessageName[] = "PacketData";

// The layout of `eventId` on Windows version index `windowsVersion`, or nullptr when the id is
// not decoded (every id but 256, 257, 258, 260, 261, 284, 285, 287, 289 and 290) or the index
// is 0 (unknown).
const EventLayout* findEventLayout(uint16_t eventId, uint32_t windowsVersion);

}  // namespace vantrelo::etw
