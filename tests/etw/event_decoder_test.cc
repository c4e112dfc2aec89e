#include "etw/event_decoder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "base/error.h"
#include "encoding/ip.h"
#include "etw/windows_version.h"
#include "event_builder.h"
#include "net_test_support.h"

namespace vantrelo::etw {
namespace {

using encoding::dnstap::DnstapMessage;
using net::testing::LogRecorder;
using testing::buildEvent;
using testing::buildEventFrom;
using testing::EventValues;
using testing::SyntheticEvent;

// 2023-11-14T22:13:20Z plus 0.1234567 s, in 100-ns ticks since 1601.
constexpr int64_t kTime = 116444736000000000 + 17000000000000000 + 1234567;

// Every class of event on, or with `resolver` false the default client traffic only.
EtwSettings allOn(uint32_t version, bool resolver = true) {
  EtwSettings settings;
  settings.windowsVersion = version;
  settings.resolverQuery = settings.resolverResponse = resolver;
  return settings;
}

std::string text(const std::string& address) {
  std::string out;
  const auto* bytes = reinterpret_cast<const uint8_t*>(address.data());
  if (address.size() == 4) encoding::ip::formatIpv4(out, bytes);
  if (address.size() == 16) encoding::ip::formatIpv6(out, bytes);
  return out;
}

// Family/protocol, then client and server address and port.
std::string endpoints(const DnstapMessage& m) {
  return std::to_string(m.socket_family) + "/" + std::to_string(m.socket_protocol) + " " +
         text(m.query_address) + ":" + std::to_string(m.query_port) + ">" +
         text(m.response_address) + ":" + std::to_string(m.response_port);
}

// Every field an event fills: type, identity|version|extra, endpoints, then the query's and
// the response's message and time.
std::string describe(const DnstapMessage& m) {
  return std::to_string(m.type) + " " + m.identity + "|" + m.version + "|" + m.extra + " " +
         endpoints(m) + " Q" + m.query_message + "@" + std::to_string(m.query_time_sec) + "." +
         std::to_string(m.query_time_nsec) + " R" + m.response_message + "@" +
         std::to_string(m.response_time_sec) + "." + std::to_string(m.response_time_nsec);
}

// A decoder whose handler counts its calls and copies the record it saw.
struct Decoder {
  explicit Decoder(const EtwSettings& settings)
      : decoder(settings, "dns1.example", "Listener[0]: ") {
    decoder.setHandler(
        [](DnstapMessage& message, void* self) {
          ++static_cast<Decoder*>(self)->calls;
          static_cast<Decoder*>(self)->last = message;
        },
        this);
  }
  // "" when the event decodes, else the error text.
  std::string handle(const SyntheticEvent& event) {
    try {
      decoder.handleEvent(event);
    } catch (const error::UnknownError& e) {  // EtwError, or IpError for an address
      return e.what();
    }
    return "";
  }
  EventDecoder decoder;
  int calls = 0;
  DnstapMessage last;
};

// Every template of every release, the real 2022 and 2025 ones among them, decodes without a
// word in the log, and the header set once survives every event. A client event's InterfaceIP
// is the server side; a resolver event's other end (Destination, Source) is the server asked and
// InterfaceIP the asking side. Times before 1970 are zero.
TEST(EventDecoder, EveryTemplateDecodesEveryValue) {
  const std::string kHeader = " dns1.example|Vantrelo 2.4.4|site=ams 1/2 ";
  const std::string kClient = kHeader + "198.51.100.7:41952>192.0.2.53:0 ";
  const std::string kResolver = kHeader + "192.0.2.53:41952>198.51.100.7:0 ";
  const std::string kQuery = "Q\x12\x34\x81@1700000000.123456700 R@0.0";
  const std::string kResponse = "Q@0.0 R\x12\x34\x81@1700000000.123456700";
  const uint32_t kR2 = kWindows2012R2, k16 = kWindows2016, k19 = kWindows2019, k22 = kWindows2022,
                 k25 = kWindows2025;
  const std::tuple<uint16_t, std::vector<uint32_t>, std::string> cases[] = {
      {256, {kR2, k16, k22, k25}, "5" + kClient + kQuery},
      {257, {kR2, k16, k22, k25}, "6" + kClient + kResponse},
      {258, {kR2, k19, k25}, "6" + kClient + kResponse},
      {260, {kR2, k16, k19, k25}, "3" + kResolver + kQuery},
      {261, {kR2, k16, k19, k22}, "4" + kResolver + kResponse},
      {287, {k25, k19}, "5" + kClient + kQuery},
      {284, {k25}, "6" + kClient + kResponse},
      {285, {k25}, "6" + kClient + kResponse},
      {289, {k25}, "3" + kResolver + kQuery},
      {290, {k25}, "4" + kResolver + kResponse}};
  LogRecorder log;
  for (uint32_t version = kR2; version <= k25; ++version) {
    EtwSettings settings = allOn(version);
    settings.hasVersion = settings.hasExtra = true;
    settings.version = "Vantrelo 2.4.4";
    settings.extra = "site=ams";
    Decoder d(settings);
    for (const auto& [id, versions, expected] : cases) {
      if (std::find(versions.begin(), versions.end(), version) == versions.end()) continue;
      d.last = {};
      EXPECT_EQ(d.handle(buildEvent(id, version, {.tcp = 1, .port = 41952, .time = kTime})), "");
      EXPECT_EQ(describe(d.last), expected) << id << " on " << windowsVersionName(version);
    }
    EXPECT_EQ(d.handle(buildEvent(256, version, {.time = 12345})), "");
    EXPECT_EQ(d.last.query_time_sec + d.last.query_time_nsec, 0u);
  }
  EXPECT_EQ(log.lines(), std::vector<std::string>{});
}

// A release that moves what the decoder reads: found by name with one warning, or, when a
// name is missing, one error and every event of the kind skipped. Either way the event
// information is read once for a hundred events.
TEST(EventDecoder, LayoutThatMovedIsFoundByName) {
  const std::string kStart = "TCP:u8 InterfaceIP:A Source:A RD:u8 QNAME:A QTYPE:u32 XID:u32 ";
  const std::string kMoved = "W Listener[0]: Event 256 version 0 has moved its properties (";
  const std::string kSkipped = "; its events are skipped";
  const struct {
    uint16_t id;
    uint32_t version;
    std::string properties;
    std::string log;        // the one line logged
    std::string endpoints;  // "": every event skipped
  } cases[] = {
      // Windows Server 2016 as Microsoft documents it: two scope strings after Flags.
      {261, kWindows2016,
       "TCP:u8 Source:A InterfaceIP:A AA:u8 AD:u8 QNAME:A QTYPE:u32 XID:u32 Port:u32 Flags:u32 "
       "ServerScope:U CacheScope:U BufferSize:u32 PacketData:bin AdditionalInfo:U GUID:U",
       "W Listener[0]: Event 261 version 0 has moved its properties (BufferSize from 11 to 12, "
       "PacketData from 12 to 13); reading them by name",
       "1/2 192.0.2.53:41952>198.51.100.7:0"},
      // New fixed-size values in front of the port, and the port after the message.
      {256, kWindows2022,
       kStart + "Tag:guid Width:u16 Flags:u32 Data:u64 BufferSize:u32 PacketData:bin Port:u32",
       kMoved + "Port from 7 to 13, BufferSize from 9 to 11, PacketData from 10 to 12); "
                "reading them by name",
       "1/2 198.51.100.7:41952>192.0.2.53:0"},
      {256, kWindows2022,
       "TCP:u8 InterfaceIP:A Client:A RD:u8 QNAME:A QTYPE:u32 XID:u32 Port:u32 Flags:u32 "
       "Length:u32 PacketData:bin",
       "E Listener[0]: Event 256 version 0 has no property Source, BufferSize" + kSkipped, ""},
      {256, kWindows2022, kStart + "Port:u32 Flags:u32 PacketData:bin BufferSize:u32",
       "E Listener[0]: Event 256 version 0 declares BufferSize after PacketData" + kSkipped, ""},
      {256, kWindows2022, kStart + "Extra:bin Port:u32 Flags:u32 BufferSize:u32 PacketData:bin",
       "E Listener[0]: Event 256 version 0 declares property 7 (Extra) with type 14, which "
       "cannot be stepped over" +
           kSkipped,
       ""}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.properties);
    LogRecorder log;
    Decoder d(allOn(c.version));
    SyntheticEvent event = buildEventFrom(c.id, c.properties, {.tcp = 1, .port = 41952});
    for (int i = 0; i < 100; ++i) EXPECT_EQ(d.handle(event), "");
    EXPECT_EQ(log.lines(), std::vector<std::string>{c.log});
    EXPECT_EQ(event.informationReads, 1);
    EXPECT_EQ(d.calls, c.endpoints.empty() ? 0 : 100);
    EXPECT_EQ(d.decoder.skippedEvents(), c.endpoints.empty() ? 100u : 0u);
    if (!c.endpoints.empty()) {
      EXPECT_EQ(endpoints(d.last), c.endpoints);
      EXPECT_EQ(d.last.query_message + d.last.response_message, "\x12\x34\x81");
    }
    // Another version of the event is another kind, checked afresh.
    event.version = 1;
    d.handle(event);
    EXPECT_EQ(event.informationReads, 2);
    EXPECT_EQ(log.lines().size(), 2u);
  }
}

// Events damaged in one place, or carrying odd values: the endpoints of what decodes, or the
// failure. Event 256 on 2019 is T S C b a i i P i L M u u. A wrong type or length where the name is
// right is not a move: the event fails with the type it has.
TEST(EventDecoder, MalformedEventsAndOddValues) {
  constexpr uint16_t kCount = 0xFFFF, kCut = 0, kIntact = 0xFFFE;
  struct Case {
    uint16_t id;
    uint32_t version;
    EventValues values;
    uint32_t index;
    PropertyInfo damage;   // {kCount, n}: n properties; {kCut, n}: user data ends n bytes into
                           // property `index`; else the declaration of property `index`
    std::string expected;  // the endpoints, or the error
  };
  const uint32_t kR2 = kWindows2012R2, k19 = kWindows2019, k22 = kWindows2022;
  const std::string few = "Expected at least ", e = "Expected property ";
  const std::string ok = "1/1 198.51.100.7:53000>192.0.2.53:0";
  const EventValues v;
  // clang-format off
  const Case cases[] = {
      {256, k19, v, 0, {kCount, 10}, few + "11 properties for event type 256 but got 10"},
      {261, kR2, v, 0, {kCount, 13},
       few + "14 properties for event type 260 on Windows 2012R2 but got 13"},
      {256, k19, v, 0, {kInTypeUint32, 1}, e + "0 to be a uint8_t but got 8"},
      {256, k19, v, 1, {kInTypeUnicodeString, 0}, e + "1 to be a unicode string but got 1"},
      {256, k19, v, 10, {kInTypeAnsiString, 0}, e + "10 to be binary data but got 2"},
      // The binary property's declared length is not the message's length: not checked.
      {256, k19, v, 10, {kInTypeBinary, 9}, ok},
      {256, k19, v, 5, {kCut, 3}, few + "4 bytes of user data for property 5 but got 3"},
      // An unterminated address text swallows what follows, so the next property runs out.
      {256, k19, v, 2, {kCut, 5}, few + "1 byte of user data for property 3 but got 0"},
      {257, k22, {.tcp = 7, .port = 53}, 0, {kIntact, 0}, "1/2 198.51.100.7:53>192.0.2.53:0"},
      // A dual-stack server: the family follows the client.
      {257, k22, {.local = "2001:db8::53", .remote = "192.0.2.7", .port = 1}, 0, {kIntact, 0},
       "1/1 192.0.2.7:1>2001:db8::53:0"},
      {257, k22, {.port = 65536}, 0, {kIntact, 0}, "Client port 65536 is larger than 65535"},
      {257, k22, {.local = "dns1.example"}, 0, {kIntact, 0},
       "Parse IP address dns1.example failed: Invalid IP address"}};
  // clang-format on
  for (const Case& c : cases) {
    Decoder d(allOn(c.version));
    SyntheticEvent event = buildEvent(c.id, c.version, c.values);
    if (c.damage.inType == kCount) {
      event.info.count = c.damage.length;
    } else if (c.damage.inType == kCut) {
      event.data.resize(event.offsets[c.index] + c.damage.length);
    } else if (c.damage.inType != kIntact) {
      event.info.properties[c.index] = c.damage;
    }
    const std::string error = d.handle(event);
    EXPECT_EQ(error.empty() ? endpoints(d.last) : error, c.expected)
        << c.id << " on " << c.version << " at " << c.index;
    EXPECT_EQ(d.calls, error.empty() ? 1 : 0);
  }
}

// Each switch turns off its own events; by default only client traffic is taken.
TEST(EventDecoder, SwitchesChooseTheEventsTaken) {
  const auto off = [](bool EtwSettings::*which) {
    EtwSettings settings = allOn(kWindows2019);
    settings.*which = false;
    return settings;
  };
  const std::pair<EtwSettings, std::vector<uint16_t>> cases[] = {
      {allOn(kWindows2019), {256, 257, 258, 260, 261, 284, 285, 287, 289, 290}},
      {off(&EtwSettings::clientQuery), {257, 258, 260, 261, 284, 285, 289, 290}},
      {off(&EtwSettings::clientResponse), {256, 260, 261, 287, 289, 290}},
      {off(&EtwSettings::resolverQuery), {256, 257, 258, 261, 284, 285, 287, 290}},
      {off(&EtwSettings::resolverResponse), {256, 257, 258, 260, 284, 285, 287, 289}},
      {allOn(kWindows2016, false), {256, 257, 258, 284, 285, 287}}};
  for (const auto& [settings, expected] : cases) {
    EventDecoder decoder(settings, "host");
    std::vector<uint16_t> wanted;
    for (uint16_t id = 250; id <= 300; ++id) {
      if (decoder.wants(id)) wanted.push_back(id);
    }
    EXPECT_EQ(wanted, expected);
  }
  EXPECT_THROW(EventDecoder(allOn(kWindowsUnknown), "host"), EtwError);
}

}  // namespace
}  // namespace vantrelo::etw
