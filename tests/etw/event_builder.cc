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
// decoder has always read, named as their successors name them. Windows Server 2025's
// EDNS-aware events (284 to 290) extend their older counterparts.
const std::string k256 =
    "TCP:u8 InterfaceIP:A Source:A RD:u8 QNAME:A QTYPE:u32 XID:u32 Port:u32 Flags:u32 "
    "BufferSize:u32 PacketData:bin";
const std::string k257 =
    "TCP:u8 InterfaceIP:A Destination:A AA:u8 AD:u8 QNAME:A QTYPE:u32 XID:u32 DNSSEC:u8 "
    "RCODE:u32 Port:u32 Flags:u32 Scope:U Zone:U";
const std::string k257Tail = " PolicyName:U BufferSize:u32 PacketData:bin AdditionalInfo:U";
const std::string k258 =
    "TCP:u8 InterfaceIP:A Reason:U Destination:A QNAME:A QTYPE:u32 XID:u32 RCODE:u32 Port:u32 "
    "Flags:u32 Zone:U PolicyName:U BufferSize:u32 PacketData:bin AdditionalInfo:U "
    "ElapsedTime:u32 GUID:U";
const std::string k260 =
    "TCP:u8 Destination:A InterfaceIP:A RD:u8 QNAME:A QTYPE:u32 XID:u32 Port:u32 Flags:u32 "
    "RecursionScope:U CacheScope:U";
const std::string k260Latest =
    "TCP:u8 Destination:A InterfaceIP:A RD:u8 QNAME:A QTYPE:u32 QXID:u32 XID:u32 Port:u32 "
    "Flags:u32 RecursionScope:U CacheScope:U PolicyName:U BufferSize:u32 PacketData:bin "
    "AdditionalInfo:U GUID:U";
const std::string k261 =
    "TCP:u8 Source:A InterfaceIP:A AA:u8 AD:u8 QNAME:A QTYPE:u32 XID:u32 Port:u32 Flags:u32 "
    "RecursionScope:U BufferSize:u32 PacketData:bin AdditionalInfo:U";
const std::string k261Latest =
    "TCP:u8 Source:A InterfaceIP:A AA:u8 AD:u8 QNAME:A QTYPE:u32 XID:u32 RecursionDepth:u32 "
    "Port:u32 Flags:u32 RecursionScope:U CacheScope:U BufferSize:u32 PacketData:bin "
    "AdditionalInfo:U GUID:U QueriesAttached:u32";
const std::string kEdns = " EDNSScopeName:U EDNSCorrelationTag:guid";

const std::map<std::pair<uint16_t, uint32_t>, std::string> kTemplates = {
    {{256, 0}, k256 + " AdditionalInfo:U GUID:U"},
    {{257, kWindows2012R2}, k257 + " BufferSize:u32 PacketData:bin"},
    {{257, 0}, k257 + k257Tail + " ElapsedTime:u32 GUID:U"},
    {{257, kWindows2025}, k257 + k257Tail + " ElapsedTime:u32 GUID:U StaleRecordsPresent:U"},
    {{258, 0}, k258},
    {{260, kWindows2012R2}, k260 + " BufferSize:u32 PacketData:bin"},
    {{260, kWindows2016}, k260 + " PolicyName:U BufferSize:u32 PacketData:bin"},
    {{260, 0}, k260Latest},
    {{261, kWindows2012R2}, k261},
    {{261, kWindows2016}, k261 + " GUID:U"},
    {{261, 0}, k261Latest},
    {{287, 0},
     k256 + " GUID:U EDNSExtendedRCodeBits:u8 EDNSFlags:u32 EDNSUdpPayloadSize:u32 "
            "EDNSScopeName:U EDNSVirtualizationInstance:U EDNSDataTag:u64 EDNSCorrelationTag:guid"},
    {{284, 0},
     k257 + k257Tail +
         " DataTag:u64 ElapsedTime:u32 GUID:U EDNSCorrelationTag:guid EDNSScopeName:U "
         "StaleRecordsPresent:U"},
    {{285, 0}, k258 + " EDNSCorrelationTag:guid EDNSScopeName:U"},
    {{289, 0}, k260Latest + kEdns},
    {{290, 0}, k261Latest + kEdns},
};

// The declaration of each template type; strings and the message carry no length.
const std::map<std::string, PropertyInfo> kTypes = {
    {"u8", {kInTypeUint8, 1}},        {"u16", {kInTypeUint16, 2}}, {"u32", {kInTypeUint32, 4}},
    {"u64", {kInTypeUint64, 8}},      {"guid", {kInTypeGuid, 16}}, {"A", {kInTypeAnsiString, 0}},
    {"U", {kInTypeUnicodeString, 0}}, {"bin", {kInTypeBinary, 0}}};

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
  for (std::string word; words >> word;) {
    const std::string name = word.substr(0, word.find(':'));
    const std::string type = word.substr(word.find(':') + 1);
    const PropertyInfo info = kTypes.at(type);
    event.offsets.push_back(static_cast<uint32_t>(event.data.size()));
    event.info.names.emplace_back(name.begin(), name.end());
    event.info.properties.push_back(info);
    std::string& out = event.data;
    if (type == "A") {
      out += name == "InterfaceIP"                       ? v.local
             : name == "Source" || name == "Destination" ? v.remote
                                                         : "example.com.";
      out.push_back('\0');
    } else if (type == "U") {
      out.append("D\0e\0f\0\0\0", 8);  // u"Def"
    } else if (type == "bin") {
      out += v.message;  // its size is declared through BufferSize
    } else {
      const uint64_t number = name == "TCP"          ? v.tcp
                              : name == "Port"       ? v.port
                              : name == "BufferSize" ? v.message.size()
                                                     : 0x0102030405060708;
      for (int i = 0; i < info.length; ++i) out.push_back(static_cast<char>(number >> 8 * (i % 8)));
    }
  }
  event.info.count = static_cast<uint32_t>(event.info.properties.size());
  return event;
}

}  // namespace vantrelo::etw::testing
