#include "etw/event_decoder.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "encoding/ip.h"
#include "etw/windows_version.h"
#include "event_builder.h"

namespace ns::etw {
namespace {

using encoding::dnstap::DnstapMessage;
using testing::buildEvent;
using testing::EventValues;
using testing::SyntheticEvent;

// 2023-11-14T22:13:20Z plus 0.1234567 s, in 100-ns ticks since 1601.
constexpr int64_t kTime = 116444736000000000 + 17000000000000000 + 1234567;
const std::string kQuery("\xab\xcd\x01\x00\x00\x01\x00\x00\x00\x00\x00\x00\x00\x00\x01\x00\x01",
                         17);

EtwSettings allOn(uint32_t version) {
  EtwSettings settings;
  settings.windowsVersion = version;
  settings.resolverQuery = settings.resolverResponse = true;
  return settings;
}

// A decoder whose handler counts its calls and copies the record it saw.
struct Decoder {
  explicit Decoder(const EtwSettings& settings) : decoder(settings, "dns1.example") {
    decoder.setHandler(
        [](DnstapMessage& message, void* self) {
          ++static_cast<Decoder*>(self)->calls;
          static_cast<Decoder*>(self)->last = message;
        },
        this);
  }
  // "" when the event decodes, else the EtwError text.
  std::string handle(const SyntheticEvent& event) {
    try {
      decoder.handleEvent(event);
      return "";
    } catch (const EtwError& e) {
      return e.what();
    }
  }
  EventDecoder decoder;
  int calls = 0;
  DnstapMessage last;
};

TEST(EventDecoder, EveryEventAndReleaseLayoutPlacesEveryValue) {
  struct Case {
    uint16_t id;
    std::vector<uint32_t> versions;
    uint64_t type;
  };
  const Case cases[] = {
      {256, {kWindows2012R2, kWindows2016, kWindows2025}, 5},
      {257, {kWindows2012R2, kWindows2016, kWindows2022}, 6},
      {258, {kWindows2012R2, kWindows2019}, 6},
      {260, {kWindows2012R2, kWindows2016, kWindows2019, kWindows2025}, 3},
      {261, {kWindows2012R2, kWindows2016, kWindows2019, kWindows2022}, 4},
  };
  for (const Case& c : cases) {
    for (uint32_t version : c.versions) {
      SCOPED_TRACE(std::to_string(c.id) + " on " + windowsVersionName(version));
      Decoder d(allOn(version));
      d.decoder.handleEvent(buildEvent(c.id, version,
                                       {.tcp = 1,
                                        .server = "192.0.2.53",
                                        .client = "198.51.100.7",
                                        .port = 41952,
                                        .message = kQuery,
                                        .time = kTime}));
      ASSERT_EQ(d.calls, 1);
      const DnstapMessage& m = d.last;
      EXPECT_EQ(m.type, c.type);
      EXPECT_EQ(m.identity, "dns1.example");
      EXPECT_EQ(m.socket_family, 1u);
      EXPECT_EQ(m.socket_protocol, 2u);
      EXPECT_EQ(m.response_address, std::string("\xc0\x00\x02\x35", 4));
      EXPECT_EQ(m.query_address, std::string("\xc6\x33\x64\x07", 4));
      EXPECT_EQ(m.query_port, 41952u);
      EXPECT_EQ(m.response_port, 0u);
      const bool query = c.type % 2 == 1;
      EXPECT_EQ(query ? m.query_message : m.response_message, kQuery);
      EXPECT_EQ(query ? m.response_message : m.query_message, "");
      EXPECT_EQ(query ? m.query_time_sec : m.response_time_sec, 1700000000u);
      EXPECT_EQ(query ? m.query_time_nsec : m.response_time_nsec, 123456700u);
      EXPECT_EQ(query ? m.response_time_sec : m.query_time_sec, 0u);
    }
  }
}

TEST(EventDecoder, TooFewProperties) {
  struct Case {
    uint16_t id;
    uint32_t version;
    uint32_t count;
    std::string message;  // "": decodes
  };
  const std::string r2 = " on Windows 2012R2 but got ";
  const Case cases[] = {
      {256, kWindows2019, 10, "Expected at least 11 properties for event type 256 but got 10"},
      {257, kWindows2012R2, 16, ""},
      {257, kWindows2012R2, 15, "Expected at least 16 properties for event type 257" + r2 + "15"},
      {257, kWindows2016, 16, "Expected at least 17 properties for event type 257 but got 16"},
      {258, kWindows2022, 0, "Expected at least 14 properties for event type 258 but got 0"},
      {260, kWindows2012R2, 12, "Expected at least 13 properties for event type 260" + r2 + "12"},
      {260, kWindows2016, 13,
       "Expected at least 14 properties for event type 260 on Windows 2016 but got 13"},
      {260, kWindows2019, 14, "Expected at least 15 properties for event type 260 but got 14"},
      {261, kWindows2012R2, 13, "Expected at least 14 properties for event type 260" + r2 + "13"},
      {261, kWindows2016, 14, "Expected at least 15 properties for event type 260 but got 14"},
      {261, kWindows2025, 14, "Expected at least 15 properties for event type 260 but got 14"},
  };
  for (const Case& c : cases) {
    Decoder d(allOn(c.version));
    SyntheticEvent event = buildEvent(c.id, c.version);
    event.count = c.count;
    EXPECT_EQ(d.handle(event), c.message) << c.id << " on " << c.version;
    EXPECT_EQ(d.calls, c.message.empty() ? 1 : 0);
  }
}

// Event 256 on 2019 is T S C b a i i P i L M; event 257 has Unicode strings at 12 to 14.
TEST(EventDecoder, BadDeclarationsAndShortUserData) {
  struct Case {
    uint16_t id;
    uint32_t index;
    PropertyInfo declared;  // inType 0: keep the declaration, end the user data `length`
                            // bytes into the property instead
    std::string message;    // "": decodes
  };
  const Case cases[] = {
      {256, 0, {kInTypeUint32, 1}, "Expected property 0 to be a uint8_t but got 8"},
      {256, 0, {kInTypeUint8, 2}, "Expected property 0 to be length 1 but got 2"},
      {256, 1, {kInTypeUnicodeString, 0}, "Expected property 1 to be a unicode string but got 1"},
      {256, 2, {kInTypeAnsiString, 16}, "Expected property 2 to be length 0 but got 16"},
      {256, 4, {kInTypeBinary, 0}, "Expected property 4 to be a unicode string but got 14"},
      {256, 7, {kInTypeUint8, 4}, "Expected property 7 to be a uint32_t but got 4"},
      {256, 9, {kInTypeUint32, 8}, "Expected property 9 to be length 4 but got 8"},
      {256, 10, {kInTypeAnsiString, 0}, "Expected property 10 to be binary data but got 2"},
      // The binary property's declared length is not the message's length: not checked.
      {256, 10, {kInTypeBinary, 9}, ""},
      {257, 13, {kInTypeAnsiString, 0}, "Expected property 13 to be a unicode string but got 2"},
      {257, 14, {kInTypeUnicodeString, 2}, "Expected property 14 to be length 0 but got 2"},
      {256, 0, {0, 0}, "Expected at least 1 byte of user data for property 0 but got 0"},
      {256, 3, {0, 0}, "Expected at least 1 byte of user data for property 3 but got 0"},
      {256, 7, {0, 3}, "Expected at least 4 bytes of user data for property 7 but got 3"},
      {256, 9, {0, 0}, "Expected at least 4 bytes of user data for property 9 but got 0"},
      {256, 10, {0, 16}, "Expected at least 17 bytes of user data for property 10 but got 16"},
      // An address text cut short swallows what follows, so the next property runs out.
      {256, 2, {0, 5}, "Expected at least 1 byte of user data for property 3 but got 0"},
  };
  for (const Case& c : cases) {
    Decoder d(allOn(kWindows2019));
    SyntheticEvent event = buildEvent(c.id, kWindows2019, {.message = kQuery});
    if (c.declared.inType != 0) {
      event.properties[c.index] = c.declared;
    } else {
      event.data.resize(event.offsets[c.index] + c.declared.length);
    }
    EXPECT_EQ(d.handle(event), c.message) << c.index;
    EXPECT_EQ(d.calls, c.message.empty() ? 1 : 0);
  }
}

TEST(EventDecoder, AddressesPortsAndProtocol) {
  struct Case {
    EventValues values;
    uint64_t family;
    uint64_t protocol;
    size_t clientBytes;
    std::string error;  // EtwError text, or ""
  };
  const Case cases[] = {
      {{.tcp = 0, .port = 53}, 1, 1, 4, ""},
      {{.tcp = 7, .port = 53}, 1, 2, 4, ""},
      {{.tcp = 1, .server = "2001:db8::53", .client = "2001:db8::7", .port = 0}, 2, 2, 16, ""},
      // A dual-stack server: the family follows the client.
      {{.server = "2001:db8::53", .client = "192.0.2.7", .port = 1}, 1, 1, 4, ""},
      {{.client = "::ffff:192.0.2.7", .port = 65535}, 2, 1, 16, ""},
      {{.port = 65536}, 0, 0, 0, "Client port 65536 is larger than 65535"},
      {{.port = 0xFFFFFFFF}, 0, 0, 0, "Client port 4294967295 is larger than 65535"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.values.client + " port " + std::to_string(c.values.port));
    Decoder d(allOn(kWindows2022));
    ASSERT_EQ(d.handle(buildEvent(257, kWindows2022, c.values)), c.error);
    if (!c.error.empty()) continue;
    EXPECT_EQ(d.last.socket_family, c.family);
    EXPECT_EQ(d.last.socket_protocol, c.protocol);
    EXPECT_EQ(d.last.query_address.size(), c.clientBytes);
    EXPECT_EQ(d.last.query_port, c.values.port);
  }
  // Texts that are no IP address.
  for (const auto& [server, client] : std::vector<std::pair<std::string, std::string>>{
           {"dns1.example", "192.0.2.7"}, {"192.0.2.53", ""}, {"192.0.2.53", "192.0.2.256"}}) {
    Decoder d(allOn(kWindows2019));
    EXPECT_THROW(
        d.decoder.handleEvent(buildEvent(256, kWindows2019, {.server = server, .client = client})),
        encoding::ip::IpError);
    EXPECT_EQ(d.calls, 0);
  }
}

TEST(EventDecoder, SwitchesAndIgnoredEvents) {
  struct Case {
    uint16_t id;
    bool clientQuery, clientResponse, resolverQuery, resolverResponse;
  };
  const Case cases[] = {
      {259, true, true, true, true},  {255, true, true, true, true},
      {262, true, true, true, true},  {256, false, true, true, true},
      {257, true, false, true, true}, {258, true, false, true, true},
      {260, true, true, false, true}, {261, true, true, true, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.id);
    EtwSettings settings;
    settings.windowsVersion = kWindows2019;
    settings.clientQuery = c.clientQuery;
    settings.clientResponse = c.clientResponse;
    settings.resolverQuery = c.resolverQuery;
    settings.resolverResponse = c.resolverResponse;
    Decoder d(settings);
    d.decoder.handleEvent(buildEvent(256, kWindows2019, {.port = 1}));
    // Built as a valid 256 event, relabelled: an ignored id is not even looked at.
    SyntheticEvent event = buildEvent(256, kWindows2019, {.port = 2});
    event.id = c.id;
    const int calls = d.calls;
    EXPECT_FALSE(d.decoder.wants(c.id));
    d.decoder.handleEvent(event);
    EXPECT_EQ(d.calls, calls);
    EXPECT_EQ(d.decoder.message().query_port, c.clientQuery ? 1u : 0u);
  }
  // By default only client traffic is taken.
  EtwSettings settings;
  settings.windowsVersion = kWindows2016;
  EventDecoder decoder(settings, "host");
  std::vector<bool> wanted;
  for (uint16_t id = 255; id <= 262; ++id) wanted.push_back(decoder.wants(id));
  EXPECT_EQ(wanted, (std::vector<bool>{false, true, true, true, false, false, false, false}));
  settings.windowsVersion = kWindowsUnknown;
  EXPECT_THROW(EventDecoder(settings, "host"), EtwError);
}

TEST(EventDecoder, HeaderFieldsSurviveEveryEventAndEarlyTimesAreZero) {
  EtwSettings settings = allOn(kWindows2019);
  settings.identityFromEvent = false;
  settings.hasVersion = settings.hasExtra = true;
  settings.version = "Vantrelo 2.4.4";
  settings.extra = "site=ams";
  Decoder d(settings);
  d.decoder.handleEvent(buildEvent(256, kWindows2019));
  d.decoder.handleEvent(buildEvent(261, kWindows2019));
  ASSERT_EQ(d.calls, 2);
  EXPECT_EQ(d.last.identity, "");
  EXPECT_EQ(d.last.version, "Vantrelo 2.4.4");
  EXPECT_EQ(d.last.extra, "site=ams");
  // The second event replaced the first one's query fields.
  EXPECT_EQ(d.last.query_message, "");
  EXPECT_EQ(d.last.query_time_sec, 0u);
  // A time before 1970 is zero.
  d.decoder.handleEvent(buildEvent(256, kWindows2019, {.time = 12345}));
  EXPECT_EQ(d.last.query_time_sec, 0u);
  EXPECT_EQ(d.last.query_time_nsec, 0u);
}

}  // namespace
}  // namespace ns::etw
