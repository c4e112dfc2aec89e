#include "etw/event_decoder.h"

#include <string>

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

}  // namespace

EventDecoder::EventDecoder(const EtwSettings& settings, const std::string& hostName) {
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

void EventDecoder::handleEvent(const EventRecordView& event) {
  const EventLayout* layout = layoutFor(event.eventId());
  if (layout == nullptr) return;

  message_.clear(false);
  // Time stamps before 1970 cannot be expressed in dnstap; they only come from a wrong clock.
  int64_t ticks = event.timeStamp() - kEpochOffset;
  if (ticks < 0) ticks = 0;
  uint64_t seconds = static_cast<uint64_t>(ticks / kTicksPerSecond);
  uint32_t nanoseconds = static_cast<uint32_t>(ticks % kTicksPerSecond) * kNanosecondsPerTick;

  uint32_t count = event.propertyCount();
  if (count < layout->minimumProperties) {
    throw EtwError(layout->tooFewText + std::to_string(count));
  }

  bool isQuery = layout->messageType % 2 == 1;
  std::string& wire = isQuery ? message_.query_message : message_.response_message;
  uint8_t tcp = 0;
  uint32_t port = 0;
  uint32_t length = 0;
  uint32_t offset = 0;
  for (uint32_t index = 0; index < layout->roleCount; ++index) {
    switch (layout->roles[index]) {
      case PropertyRole::kTcp:
        offset = readUint8(event, index, offset, tcp);
        break;
      case PropertyRole::kServer:
        offset = readAnsiString(event, index, offset, serverText_);
        break;
      case PropertyRole::kClient:
        offset = readAnsiString(event, index, offset, clientText_);
        break;
      case PropertyRole::kPort:
        offset = readUint32(event, index, offset, port);
        break;
      case PropertyRole::kLength:
        offset = readUint32(event, index, offset, length);
        break;
      case PropertyRole::kMessage:
        offset = readBinary(event, index, offset, length, wire);
        break;
      case PropertyRole::kSkipUint8:
        offset = skipUint8(event, index, offset);
        break;
      case PropertyRole::kSkipUint32:
        offset = skipUint32(event, index, offset);
        break;
      case PropertyRole::kSkipAnsi:
        offset = skipAnsiString(event, index, offset);
        break;
      case PropertyRole::kSkipUnicode:
        offset = skipUnicodeString(event, index, offset);
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
