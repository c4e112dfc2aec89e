#include "event_builder.h"

#include <map>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "etw/windows_version.h"

namespace vantrelo::etw::testing {
namespace {

// The provider's templates by event id and release; release 0 stands for every release not
// listed. 2022 and 2025 are exported from the manifests; the older releases are the layouts the
// decoder has always read, named as their successors name them.
const std::map<std::pair<uint16_t, uint32_t>, std::string> kTemplates = {
    {{256, 0},
     "TCP:u8 InterfaceIP:A Source:A RD:u8 QNAME:A QTYPE:u32 XID:u32 Port:u32 Flags:u32 "
     "BufferSize:u32 PacketData:bin AdditionalInfo:U GUID:U"},
    {{257, kWindows2012R2},
     "TCP:u8 InterfaceIP:A Destination:A AA:u8 AD:u8 QNAME:A QTYPE:u32 XID:u32 DNSSEC:u8 "
     "RCODE:u32 Port:u32 Flags:u32 Scope:U Zone:U BufferSize:u32 PacketData:bin"},
    {{257, 0},
     "TCP:u8 InterfaceIP:A Destination:A AA:u8 AD:u8 QNAME:A QTYPE:u32 XID:u32 DNSSEC:u8 "
     "RCODE:u32 Port:u32 Flags:u32 Scope:U Zone:U PolicyName:U BufferSize:u32 PacketData:bin "
     "AdditionalInfo:U ElapsedTime:u32 GUID:U"},
    {{257, kWindows2025},
     "TCP:u8 InterfaceIP:A Destination:A AA:u8 AD:u8 QNAME:A QTYPE:u32 XID:u32 DNSSEC:u8 "
     "RCODE:u32 Port:u32 Flags:u32 Scope:U Zone:U PolicyName:U BufferSize:u32 PacketData:bin "
     "AdditionalInfo:U ElapsedTime:u32 GUID:U StaleRecordsPresent:U"},
    {{258, 0},
     "TCP:u8 InterfaceIP:A Reason:U Destination:A QNAME:A QTYPE:u32 XID:u32 RCODE:u32 Port:u32 "
     "Flags:u32 Zone:U PolicyName:U BufferSize:u32 PacketData:bin AdditionalInfo:U "
     "ElapsedTime:u32 GUID:U"},
    {{260, kWindows2012R2},
     "TCP:u8 Destination:A InterfaceIP:A RD:u8 QNAME:A QTYPE:u32 XID:u32 Port:u32 Flags:u32 "
     "RecursionScope:U CacheScope:U BufferSize:u32 PacketData:bin"},
    {{260, kWindows2016},
     "TCP:u8 Destination:A InterfaceIP:A RD:u8 QNAME:A QTYPE:u32 XID:u32 Port:u32 Flags:u32 "
     "RecursionScope:U CacheScope:U PolicyName:U BufferSize:u32 PacketData:bin"},
    {{260, 0},
     "TCP:u8 Destination:A InterfaceIP:A RD:u8 QNAME:A QTYPE:u32 QXID:u32 XID:u32 Port:u32 "
     "Flags:u32 RecursionScope:U CacheScope:U PolicyName:U BufferSize:u32 PacketData:bin "
     "AdditionalInfo:U GUID:U"},
    {{261, kWindows2012R2},
     "TCP:u8 Source:A InterfaceIP:A AA:u8 AD:u8 QNAME:A QTYPE:u32 XID:u32 Port:u32 Flags:u32 "
     "RecursionScope:U BufferSize:u32 PacketData:bin AdditionalInfo:U"},
    {{261, kWindows2016},
     "TCP:u8 Source:A InterfaceIP:A AA:u8 AD:u8 QNAME:A QTYPE:u32 XID:u32 Port:u32 Flags:u32 "
     "RecursionScope:U BufferSize:u32 PacketData:bin AdditionalInfo:U GUID:U"},
    {{261, 0},
     "TCP:u8 Source:A InterfaceIP:A AA:u8 AD:u8 QNAME:A QTYPE:u32 XID:u32 RecursionDepth:u32 "
     "Port:u32 Flags:u32 RecursionScope:U CacheScope:U BufferSize:u32 PacketData:bin "
     "AdditionalInfo:U GUID:U QueriesAttached:u32"},
    // Windows Server 2025's EDNS-aware events.
    {{287, 0},
     "TCP:u8 InterfaceIP:A Source:A RD:u8 QNAME:A QTYPE:u32 XID:u32 Port:u32 Flags:u32 "
     "BufferSize:u32 PacketData:bin GUID:U EDNSExtendedRCodeBits:u8 EDNSFlags:u32 "
     "EDNSUdpPayloadSize:u32 EDNSScopeName:U EDNSVirtualizationInstance:U EDNSDataTag:u64 "
     "EDNSCorrelationTag:guid"},
    {{284, 0},
     "TCP:u8 InterfaceIP:A Destination:A AA:u8 AD:u8 QNAME:A QTYPE:u32 XID:u32 DNSSEC:u8 "
     "RCODE:u32 Port:u32 Flags:u32 Scope:U Zone:U PolicyName:U BufferSize:u32 PacketData:bin "
     "AdditionalInfo:U DataTag:u64 ElapsedTime:u32 GUID:U EDNSCorrelationTag:guid "
     "EDNSScopeName:U StaleRecordsPresent:U"},
    {{285, 0},
     "TCP:u8 InterfaceIP:A Reason:U Destination:A QNAME:A QTYPE:u32 XID:u32 RCODE:u32 Port:u32 "
     "Flags:u32 Zone:U PolicyName:U BufferSize:u32 PacketData:bin AdditionalInfo:U "
     "ElapsedTime:u32 GUID:U EDNSCorrelationTag:guid EDNSScopeName:U"},
    {{289, 0},
     "TCP:u8 Destination:A InterfaceIP:A RD:u8 QNAME:A QTYPE:u32 QXID:u32 XID:u32 Port:u32 "
     "Flags:u32 RecursionScope:U CacheScope:U PolicyName:U BufferSize:u32 PacketData:bin "
     "AdditionalInfo:U GUID:U EDNSScopeName:U EDNSCorrelationTag:guid"},
    {{290, 0},
     "TCP:u8 Source:A InterfaceIP:A AA:u8 AD:u8 QNAME:A QTYPE:u32 XID:u32 RecursionDepth:u32 "
     "Port:u32 Flags:u32 RecursionScope:U CacheScope:U BufferSize:u32 PacketData:bin "
     "AdditionalInfo:U GUID:U QueriesAttached:u32 EDNSScopeName:U EDNSCorrelationTag:guid"},
};

void appendLittleEndian(std::string& out, uint64_t value, int bytes) {
  for (int i = 0; i < bytes; ++i) out.push_back(static_cast<char>(value >> (8 * i)));
}

}  // namespace

SyntheticEvent buildEvent(uint16_t eventId, uint32_t version, const EventValues& values) {
  auto found = kTemplates.find({eventId, version});
  if (found == kTemplates.end()) found = kTemplates.find({eventId, 0});
  if (found == kTemplates.end()) throw std::logic_error("no template for this event");
  return buildEventFrom(eventId, found->second, values);
}

SyntheticEvent buildEventFrom(uint16_t eventId, const std::string& properties,
                              const EventValues& v) {
  SyntheticEvent event;
  event.id = eventId;
  event.time = v.time;
  std::istringstream words(properties);
  std::string word;
  while (words >> word) {
    const size_t colon = word.find(':');
    const std::string name = word.substr(0, colon);
    const std::string type = word.substr(colon + 1);
    event.offsets.push_back(static_cast<uint32_t>(event.data.size()));
    event.info.names.emplace_back(name.begin(), name.end());
    std::string& out = event.data;
    if (type == "u8") {
      event.info.properties.push_back({kInTypeUint8, 1});
      out.push_back(static_cast<char>(name == "TCP" ? v.tcp : 1));
    } else if (type == "u16") {
      event.info.properties.push_back({kInTypeUint16, 2});
      appendLittleEndian(out, 0x0102, 2);
    } else if (type == "u32") {
      event.info.properties.push_back({kInTypeUint32, 4});
      appendLittleEndian(out,
                         name == "Port"         ? v.port
                         : name == "BufferSize" ? static_cast<uint32_t>(v.message.size())
                                                : 0x01020304,
                         4);
    } else if (type == "u64") {
      event.info.properties.push_back({kInTypeUint64, 8});
      appendLittleEndian(out, 0x0102030405060708, 8);
    } else if (type == "guid") {
      event.info.properties.push_back({kInTypeGuid, 16});
      out.append(16, '\x5a');
    } else if (type == "A") {
      event.info.properties.push_back({kInTypeAnsiString, 0});
      out += name == "InterfaceIP"                       ? v.local
             : name == "Source" || name == "Destination" ? v.remote
                                                         : "example.com.";
      out.push_back('\0');
    } else if (type == "U") {
      event.info.properties.push_back({kInTypeUnicodeString, 0});
      out.append("D\0e\0f\0\0\0", 8);  // u"Def"
    } else if (type == "bin") {
      // The provider declares the message's size through BufferSize, not here.
      event.info.properties.push_back({kInTypeBinary, 0});
      out += v.message;
    } else {
      throw std::logic_error("unknown property type " + type);
    }
  }
  event.info.count = static_cast<uint32_t>(event.info.properties.size());
  return event;
}

}  // namespace vantrelo::etw::testing
