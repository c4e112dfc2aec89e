#include "etw/event_layout.h"

#include <algorithm>
#include <cstddef>
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

constexpr char kLocal[] = "InterfaceIP";
constexpr char kSource[] = "Source";
constexpr char kDestination[] = "Destination";

// What the events of each class become in dnstap, and the names of their address properties: a
// client event's local address is the server side, a resolver event's other end is the server
// asked. Indexed by EventClass.
struct ClassTraits {
  MessageType messageType;
  const char* serverName;
  const char* clientName;
};
constexpr ClassTraits kClassTraits[] = {
    {MessageType::kClientQuery, kLocal, kSource},
    {MessageType::kClientResponse, kLocal, kDestination},
    {MessageType::kResolverQuery, kDestination, kLocal},
    {MessageType::kResolverResponse, kSource, kLocal},
};

// One row of the table below: the rest of the layout follows from the event's class.
template <size_t N>
constexpr EventLayout layout(uint16_t eventId, uint32_t firstVersion, uint32_t lastVersion,
                             EventClass eventClass, uint32_t minimumProperties, const R (&roles)[N],
                             const char* tooFewText) {
  const ClassTraits& traits = kClassTraits[static_cast<size_t>(eventClass)];
  return {.eventId = eventId,
          .firstVersion = firstVersion,
          .lastVersion = lastVersion,
          .eventClass = eventClass,
          .messageType = traits.messageType,
          .minimumProperties = minimumProperties,
          .tooFewText = tooFewText,
          .roles = roles,
          .roleCount = static_cast<uint32_t>(N),
          .serverName = traits.serverName,
          .clientName = traits.clientName};
}

using enum EventClass;

// The texts for event 261 name event 260 on purpose: they are the established texts of that
// failure, and log searches look for them as they are.
constexpr EventLayout kLayouts[] = {
    layout(kEventClientQuery, kWindows2012R2, kLatest, kClientQuery, 11, k256,
           "Expected at least 11 properties for event type 256 but got "),
    layout(kEventClientResponse, kWindows2012R2, kWindows2012R2, kClientResponse, 16, k257R2,
           "Expected at least 16 properties for event type 257 on Windows 2012R2 but got "),
    layout(kEventClientResponse, kWindows2016, kLatest, kClientResponse, 17, k257,
           "Expected at least 17 properties for event type 257 but got "),
    layout(kEventClientResponseFailure, kWindows2012R2, kLatest, kClientResponse, 14, k258,
           "Expected at least 14 properties for event type 258 but got "),
    layout(kEventResolverQuery, kWindows2012R2, kWindows2012R2, kResolverQuery, 13, k260R2,
           "Expected at least 13 properties for event type 260 on Windows 2012R2 but got "),
    layout(kEventResolverQuery, kWindows2016, kWindows2016, kResolverQuery, 14, k2602016,
           "Expected at least 14 properties for event type 260 on Windows 2016 but got "),
    layout(kEventResolverQuery, kWindows2019, kLatest, kResolverQuery, 15, k260,
           "Expected at least 15 properties for event type 260 but got "),
    layout(kEventResolverResponse, kWindows2012R2, kWindows2012R2, kResolverResponse, 14, k261R2,
           "Expected at least 14 properties for event type 260 on Windows 2012R2 but got "),
    // 2016 keeps the 2012 R2 properties but already declares one more.
    layout(kEventResolverResponse, kWindows2016, kWindows2016, kResolverResponse, 15, k261R2,
           "Expected at least 15 properties for event type 260 but got "),
    layout(kEventResolverResponse, kWindows2019, kLatest, kResolverResponse, 15, k261,
           "Expected at least 15 properties for event type 260 but got "),
    // The EDNS-aware events exist from 2025 on; whichever release is configured, they carry the
    // later properties of the events they shadow.
    layout(kEventEdnsClientQuery, kWindows2012R2, kLatest, kClientQuery, 11, k256,
           "Expected at least 11 properties for event type 287 but got "),
    layout(kEventEdnsClientResponse, kWindows2012R2, kLatest, kClientResponse, 17, k257,
           "Expected at least 17 properties for event type 284 but got "),
    layout(kEventEdnsClientResponseFailure, kWindows2012R2, kLatest, kClientResponse, 14, k258,
           "Expected at least 14 properties for event type 285 but got "),
    layout(kEventEdnsResolverQuery, kWindows2012R2, kLatest, kResolverQuery, 15, k260,
           "Expected at least 15 properties for event type 289 but got "),
    layout(kEventEdnsResolverResponse, kWindows2012R2, kLatest, kResolverResponse, 15, k261,
           "Expected at least 15 properties for event type 290 but got "),
};

// The decoder reads roles only once the minimum count is there.
static_assert(std::all_of(std::begin(kLayouts), std::end(kLayouts), [](const EventLayout& row) {
  return row.roleCount <= row.minimumProperties;
}));

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
