#include "etw/event_layout.h"

#include <cstdint>
#include <iterator>

#include "encoding/dnstap_message.h"
#include "etw/windows_version.h"

namespace vantrelo::etw {

namespace {

using MessageType = encoding::dnstap::MessageType;
using R = PropertyRole;

constexpr uint32_t kLatest = UINT32_MAX;

constexpr R kTcp = R::kTcp;
constexpr R kServer = R::kServer;
constexpr R kClient = R::kClient;
constexpr R kPort = R::kPort;
constexpr R kLen = R::kLength;
constexpr R kMsg = R::kMessage;
constexpr R kU8 = R::kSkipUint8;
constexpr R kU32 = R::kSkipUint32;
constexpr R kA = R::kSkipAnsi;
constexpr R kU = R::kSkipUnicode;

// Query received from a client; the same on every release.
constexpr R k256[] = {kTcp, kServer, kClient, kU8, kA, kU32, kU32, kPort, kU32, kLen, kMsg};

// Response sent to a client; later releases add one Unicode string before the length.
constexpr R k257R2[] = {kTcp, kServer, kClient, kU8,  kU8, kA, kU32, kU32,
                        kU8,  kU32,    kPort,   kU32, kU,  kU, kLen, kMsg};
constexpr R k257[] = {kTcp, kServer, kClient, kU8, kU8, kA, kU32, kU32, kU8,
                      kU32, kPort,   kU32,    kU,  kU,  kU, kLen, kMsg};

// Failure response sent to a client; here the server address is followed by a Unicode string.
constexpr R k258[] = {kTcp, kServer, kU,   kClient, kA, kU32, kU32,
                      kU32, kPort,   kU32, kU,      kU, kLen, kMsg};

// Recursive query sent out.
constexpr R k260R2[] = {kTcp,  kServer, kClient, kU8, kA,   kU32, kU32,
                        kPort, kU32,    kU,      kU,  kLen, kMsg};
constexpr R k2602016[] = {kTcp,  kServer, kClient, kU8, kA, kU32, kU32,
                          kPort, kU32,    kU,      kU,  kU, kLen, kMsg};
constexpr R k260[] = {kTcp,  kServer, kClient, kU8, kA, kU32, kU32, kU32,
                      kPort, kU32,    kU,      kU,  kU, kLen, kMsg};

// Recursive response received.
constexpr R k261R2[] = {kTcp, kServer, kClient, kU8, kU8,  kA,  kU32,
                        kU32, kPort,   kU32,    kU,  kLen, kMsg};
constexpr R k261[] = {kTcp, kServer, kClient, kU8, kU8, kA,   kU32, kU32,
                      kU32, kPort,   kU32,    kU,  kU,  kLen, kMsg};

#define NS_ROLES(array) array, static_cast<uint32_t>(std::size(array))

constexpr char kLocal[] = "InterfaceIP";
constexpr char kSource[] = "Source";
constexpr char kDestination[] = "Destination";

// The texts for event 261 name event 260 on purpose: they are the established texts of
// that failure, and log searches look for them as they are. A client event's local address is
// the server side; a resolver event's other end is the server asked.
constexpr EventLayout kLayouts[] = {
    {kEventClientQuery, kWindows2012R2, kLatest, EventClass::kClientQuery,
     MessageType::kClientQuery, 11, "Expected at least 11 properties for event type 256 but got ",
     NS_ROLES(k256), kLocal, kSource},
    {kEventClientResponse, kWindows2012R2, kWindows2012R2, EventClass::kClientResponse,
     MessageType::kClientResponse, 16,
     "Expected at least 16 properties for event type 257 on Windows 2012R2 but got ",
     NS_ROLES(k257R2), kLocal, kDestination},
    {kEventClientResponse, kWindows2016, kLatest, EventClass::kClientResponse,
     MessageType::kClientResponse, 17,
     "Expected at least 17 properties for event type 257 but got ", NS_ROLES(k257), kLocal,
     kDestination},
    {kEventClientResponseFailure, kWindows2012R2, kLatest, EventClass::kClientResponse,
     MessageType::kClientResponse, 14,
     "Expected at least 14 properties for event type 258 but got ", NS_ROLES(k258), kLocal,
     kDestination},
    {kEventResolverQuery, kWindows2012R2, kWindows2012R2, EventClass::kResolverQuery,
     MessageType::kResolverQuery, 13,
     "Expected at least 13 properties for event type 260 on Windows 2012R2 but got ",
     NS_ROLES(k260R2), kDestination, kLocal},
    {kEventResolverQuery, kWindows2016, kWindows2016, EventClass::kResolverQuery,
     MessageType::kResolverQuery, 14,
     "Expected at least 14 properties for event type 260 on Windows 2016 but got ",
     NS_ROLES(k2602016), kDestination, kLocal},
    {kEventResolverQuery, kWindows2019, kLatest, EventClass::kResolverQuery,
     MessageType::kResolverQuery, 15, "Expected at least 15 properties for event type 260 but got ",
     NS_ROLES(k260), kDestination, kLocal},
    {kEventResolverResponse, kWindows2012R2, kWindows2012R2, EventClass::kResolverResponse,
     MessageType::kResolverResponse, 14,
     "Expected at least 14 properties for event type 260 on Windows 2012R2 but got ",
     NS_ROLES(k261R2), kSource, kLocal},
    // 2016 keeps the 2012 R2 properties but already declares one more.
    {kEventResolverResponse, kWindows2016, kWindows2016, EventClass::kResolverResponse,
     MessageType::kResolverResponse, 15,
     "Expected at least 15 properties for event type 260 but got ", NS_ROLES(k261R2), kSource,
     kLocal},
    {kEventResolverResponse, kWindows2019, kLatest, EventClass::kResolverResponse,
     MessageType::kResolverResponse, 15,
     "Expected at least 15 properties for event type 260 but got ", NS_ROLES(k261), kSource,
     kLocal},
    // The EDNS-aware events exist from 2025 on; whichever release is configured, they carry the
    // later properties of the events they shadow.
    {kEventEdnsClientQuery, kWindows2012R2, kLatest, EventClass::kClientQuery,
     MessageType::kClientQuery, 11, "Expected at least 11 properties for event type 287 but got ",
     NS_ROLES(k256), kLocal, kSource},
    {kEventEdnsClientResponse, kWindows2012R2, kLatest, EventClass::kClientResponse,
     MessageType::kClientResponse, 17,
     "Expected at least 17 properties for event type 284 but got ", NS_ROLES(k257), kLocal,
     kDestination},
    {kEventEdnsClientResponseFailure, kWindows2012R2, kLatest, EventClass::kClientResponse,
     MessageType::kClientResponse, 14,
     "Expected at least 14 properties for event type 285 but got ", NS_ROLES(k258), kLocal,
     kDestination},
    {kEventEdnsResolverQuery, kWindows2012R2, kLatest, EventClass::kResolverQuery,
     MessageType::kResolverQuery, 15, "Expected at least 15 properties for event type 289 but got ",
     NS_ROLES(k260), kDestination, kLocal},
    {kEventEdnsResolverResponse, kWindows2012R2, kLatest, EventClass::kResolverResponse,
     MessageType::kResolverResponse, 15,
     "Expected at least 15 properties for event type 290 but got ", NS_ROLES(k261), kSource,
     kLocal},
};

#undef NS_ROLES

}  // namespace

const EventLayout* findEventLayout(uint16_t eventId, uint32_t windowsVersion) {
  for (const EventLayout& layout : kLayouts) {
    if (layout.eventId == eventId && windowsVersion >= layout.firstVersion &&
        windowsVersion <= layout.lastVersion) {
      return &layout;
    }
  }
  return nullptr;
}

}  // namespace vantrelo::etw
