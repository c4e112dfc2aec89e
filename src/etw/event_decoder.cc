#include "etw/event_decoder.h"

#include <algorithm>
#include <iterator>
#include <string>
#include <string_view>
#include <utility>

#include "base/log.h"
#include "encoding/ip.h"
#include "etw/property_reader.h"
#include "etw/windows_version.h"

namespace vantrelo::etw {

namespace {

using encoding::dnstap::DnstapMessage;

constexpr int64_t kTicksPerSecond = 10000000;
constexpr uint32_t kNanosecondsPerTick = 100;
constexpr uint32_t kMaxPort = 65535;

bool switchedOn(const EtwSettings& settings, EventClass eventClass) {
  // Indexed by EventClass.
  const bool switches[] = {settings.clientQuery, settings.clientResponse, settings.resolverQuery,
                           settings.resolverResponse};
  return switches[static_cast<size_t>(eventClass)];
}

// A property whose value the decoder keeps: its role, the name it has in the manifest, and the
// type the role reads.
struct NamedRole {
  PropertyRole role;
  const char* name;
  uint16_t inType;
};
constexpr size_t kNamedRoles = 6;

bool sameName(std::u16string_view name, const char* expected) {
  const std::string_view ascii(expected);
  return std::equal(name.begin(), name.end(), ascii.begin(), ascii.end(),
                    [](char16_t unit, char c) { return unit == static_cast<unsigned char>(c); });
}

// For a log line: the name with anything beyond ASCII shown as '?'.
std::string printable(std::u16string_view name) {
  std::string text;
  for (char16_t unit : name) text.push_back(unit >= 0x20 && unit < 0x7F ? char(unit) : '?');
  return text;
}

// How a property the decoder does not need is stepped over: the declared type it has, the role
// that skips it and the reader that does. In PropertyRole order from kSkipUint8.
struct Skip {
  uint16_t inType;
  PropertyRole role;
  uint32_t (*step)(const EventProperties& event, uint32_t index, uint32_t offset);
};
constexpr Skip kSkips[] = {{kInTypeUint8, PropertyRole::kSkipUint8, skipUint8},
                           {kInTypeUint32, PropertyRole::kSkipUint32, skipUint32},
                           {kInTypeAnsiString, PropertyRole::kSkipAnsi, skipAnsiString},
                           {kInTypeUnicodeString, PropertyRole::kSkipUnicode, skipUnicodeString},
                           {kInTypeUint16, PropertyRole::kSkipUint16, skipUint16},
                           {kInTypeUint64, PropertyRole::kSkipUint64, skipUint64},
                           {kInTypeGuid, PropertyRole::kSkipGuid, skipGuid}};

constexpr size_t skipIndex(PropertyRole role) {
  return static_cast<size_t>(role) - static_cast<size_t>(PropertyRole::kSkipUint8);
}
static_assert([] {
  for (size_t n = 0; n < std::size(kSkips); ++n) {
    if (skipIndex(kSkips[n].role) != n) return false;
  }
  return skipIndex(PropertyRole::kSkipGuid) + 1 == std::size(kSkips);
}());

// The role that steps over a property of a declared type. False for types whose size is not
// known from the declaration alone.
bool skipRole(uint16_t inType, PropertyRole& role) {
  for (const Skip& skip : kSkips) {
    if (skip.inType == inType) {
      role = skip.role;
      return true;
    }
  }
  return false;
}

}  // namespace

EventDecoder::EventDecoder(const EtwSettings& settings, const std::string& hostName,
                           std::string logPrefix)
    : logPrefix_(std::move(logPrefix)) {
  if (settings.windowsVersion == kWindowsUnknown) {
    throw EtwError("Unsupported Windows Version: " + std::to_string(settings.windowsVersion));
  }
  for (uint16_t id = kFirstEventId; id <= kLastEventId; ++id) {
    const EventLayout* layout = findEventLayout(id, settings.windowsVersion);
    if (layout != nullptr && switchedOn(settings, layout->eventClass)) {
      layouts_[id - kFirstEventId] = layout;
    }
  }
  if (settings.identityFromEvent) message_.identity = hostName;
  if (settings.hasVersion) message_.version = settings.version;
  if (settings.hasExtra) message_.extra = settings.extra;
}

const EventDecoder::EventKind& EventDecoder::kindOf(const EventRecordView& event,
                                                    const EventLayout& layout) {
  const uint16_t id = event.eventId();
  const uint8_t version = event.eventVersion();
  for (const EventKind& kind : kinds_) {
    if (kind.id == id && kind.version == version) return kind;
  }
  const EventInformation& info = event.information();
  EventKind kind;
  kind.id = id;
  kind.version = version;
  const uint32_t count = info.propertyCount();
  kind.declarations.reserve(count);
  for (uint32_t index = 0; index < count; ++index)
    kind.declarations.push_back(info.property(index));
  checkLayout(kind, layout, info);
  kinds_.push_back(std::move(kind));
  return kinds_.back();
}

void EventDecoder::checkLayout(EventKind& kind, const EventLayout& layout,
                               const EventInformation& info) {
  const uint32_t count = static_cast<uint32_t>(kind.declarations.size());
  // Every event of the kind fails with the message for too few properties.
  if (count < layout.minimumProperties) return;

  const NamedRole named[kNamedRoles] = {
      {PropertyRole::kTcp, kTcpName, kInTypeUint8},
      {PropertyRole::kServer, layout.serverName, kInTypeAnsiString},
      {PropertyRole::kClient, layout.clientName, kInTypeAnsiString},
      {PropertyRole::kPort, kPortName, kInTypeUint32},
      {PropertyRole::kLength, kLengthName, kInTypeUint32},
      {PropertyRole::kMessage, kMessageName, kInTypeBinary}};
  uint32_t expected[kNamedRoles] = {};
  bool agree = true;
  for (size_t n = 0; n < kNamedRoles; ++n) {
    expected[n] = static_cast<uint32_t>(
        std::find(layout.roles, layout.roles + layout.roleCount, named[n].role) - layout.roles);
    agree = agree && sameName(info.propertyName(expected[n]), named[n].name) &&
            kind.declarations[expected[n]].inType == named[n].inType;
  }
  if (agree) return;

  const std::string what =
      "Event " + std::to_string(kind.id) + " version " + std::to_string(kind.version);
  uint32_t found[kNamedRoles] = {};
  std::string missing;
  for (size_t n = 0; n < kNamedRoles; ++n) {
    found[n] = count;
    for (uint32_t index = 0; index < count && found[n] == count; ++index) {
      if (sameName(info.propertyName(index), named[n].name)) found[n] = index;
    }
    if (found[n] == count) missing += (missing.empty() ? "" : ", ") + std::string(named[n].name);
  }
  const auto unusable = [&](const std::string& why) {
    kind.usable = false;
    log::error(logPrefix_ + what + why + "; its events are skipped");
  };
  if (!missing.empty()) return unusable(" has no property " + missing);
  // The same places with other types: each event reports the type it found, as before.
  if (std::equal(found, found + kNamedRoles, expected)) return;
  constexpr size_t kLength = 4, kMessage = 5;
  if (found[kLength] > found[kMessage]) {
    return unusable(" declares " + std::string(kLengthName) + " after " + kMessageName);
  }

  // The positions found are read for their values, everything before them is stepped over by
  // its declared type.
  const uint32_t last = *std::max_element(found, found + kNamedRoles);
  std::vector<PropertyRole> roles(last + 1, PropertyRole::kSkipUint8);
  for (uint32_t index = 0; index <= last; ++index) {
    const size_t n = static_cast<size_t>(std::find(found, found + kNamedRoles, index) - found);
    if (n < kNamedRoles) {
      roles[index] = named[n].role;
    } else if (!skipRole(kind.declarations[index].inType, roles[index])) {
      return unusable(" declares property " + std::to_string(index) + " (" +
                      printable(info.propertyName(index)) + ") with type " +
                      std::to_string(kind.declarations[index].inType) +
                      ", which cannot be stepped over");
    }
  }
  kind.byName = std::move(roles);
  std::string moves;
  for (size_t n = 0; n < kNamedRoles; ++n) {
    if (found[n] == expected[n]) continue;
    moves += (moves.empty() ? "" : ", ") + std::string(named[n].name) + " from " +
             std::to_string(expected[n]) + " to " + std::to_string(found[n]);
  }
  log::warning(logPrefix_ + what + " has moved its properties (" + moves +
               "); reading them by name");
}

void EventDecoder::handleEvent(const EventRecordView& event) {
  const EventLayout* layout = layoutFor(event.eventId());
  if (layout == nullptr) return;
  const EventKind& kind = kindOf(event, *layout);
  if (!kind.usable) {
    skipped_.fetch_add(1, std::memory_order_relaxed);
    return;
  }

  message_.clear(false);
  // Time stamps before 1970 cannot be expressed in dnstap; they only come from a wrong clock.
  int64_t ticks = event.timeStamp() - kEpochOffset;
  if (ticks < 0) ticks = 0;
  uint64_t seconds = static_cast<uint64_t>(ticks / kTicksPerSecond);
  uint32_t nanoseconds = static_cast<uint32_t>(ticks % kTicksPerSecond) * kNanosecondsPerTick;

  const uint32_t count = static_cast<uint32_t>(kind.declarations.size());
  if (count < layout->minimumProperties) {
    throw EtwError(layout->tooFewText + std::to_string(count));
  }
  const bool byName = !kind.byName.empty();
  const PropertyRole* roles = byName ? kind.byName.data() : layout->roles;
  const uint32_t roleCount = byName ? static_cast<uint32_t>(kind.byName.size()) : layout->roleCount;
  const EventProperties properties{kind.declarations.data(), count, event.userData(),
                                   event.userDataLength()};

  bool isQuery = layout->messageType % 2 == 1;
  std::string& wire = isQuery ? message_.query_message : message_.response_message;
  uint8_t tcp = 0;
  uint32_t port = 0;
  uint32_t length = 0;
  uint32_t offset = 0;
  for (uint32_t index = 0; index < roleCount; ++index) {
    switch (roles[index]) {
      case PropertyRole::kTcp:
        offset = readUint8(properties, index, offset, tcp);
        break;
      case PropertyRole::kServer:
        offset = readAnsiString(properties, index, offset, serverText_);
        break;
      case PropertyRole::kClient:
        offset = readAnsiString(properties, index, offset, clientText_);
        break;
      case PropertyRole::kPort:
        offset = readUint32(properties, index, offset, port);
        break;
      case PropertyRole::kLength:
        offset = readUint32(properties, index, offset, length);
        break;
      case PropertyRole::kMessage:
        offset = readBinary(properties, index, offset, length, wire);
        break;
      case PropertyRole::kSkipUint8:
      case PropertyRole::kSkipUint32:
      case PropertyRole::kSkipAnsi:
      case PropertyRole::kSkipUnicode:
      case PropertyRole::kSkipUint16:
      case PropertyRole::kSkipUint64:
      case PropertyRole::kSkipGuid:
        offset = kSkips[skipIndex(roles[index])].step(properties, index, offset);
        break;
    }
  }

  message_.type = layout->messageType;
  message_.socket_protocol =
      tcp != 0 ? encoding::dnstap::kProtocolTcp : encoding::dnstap::kProtocolUdp;
  if (isQuery) {
    message_.query_time_sec = seconds;
    message_.query_time_nsec = nanoseconds;
  } else {
    message_.response_time_sec = seconds;
    message_.response_time_nsec = nanoseconds;
  }
  encoding::ip::parseIp(message_.response_address, serverText_.data(), serverText_.size());
  // The family follows the client: a dual-stack server answers IPv4 clients on IPv4.
  bool clientIsIpv6 =
      encoding::ip::parseIp(message_.query_address, clientText_.data(), clientText_.size());
  message_.socket_family =
      clientIsIpv6 ? encoding::dnstap::kFamilyInet6 : encoding::dnstap::kFamilyInet;
  if (port > kMaxPort) {
    throw EtwError("Client port " + std::to_string(port) + " is larger than 65535");
  }
  message_.query_port = port;

  if (handler_ != nullptr) handler_(message_, context_);
}

}  // namespace vantrelo::etw
