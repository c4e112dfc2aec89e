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
using testing::EventBuilder;
using testing::SyntheticEvent;

// 2023-11-14T22:13:20Z plus 0.1234567 s, in 100-ns ticks since 1601.
constexpr int64_t kTime = 116444736000000000 + 17000000000000000 + 1234567;
const std::string kQuery("\xab\xcd\x01\x00\x00\x01\x00\x00\x00\x00\x00\x00\x00\x00\x01\x00\x01",
                         17);

EtwSettings allOn(uint32_t version) {
  EtwSettings settings;
  settings.windowsVersion = version;
  settings.resolverQuery = true;
  settings.resolverResponse = true;
  return settings;
}

// Counts handler calls and copies the record the handler saw.
struct Capture {
  int calls = 0;
  DnstapMessage last;
  static void handler(DnstapMessage& message, void* context) {
    auto* self = static_cast<Capture*>(context);
    ++self->calls;
    self->last = message;
  }
};

struct DecoderFixture {
  explicit DecoderFixture(const EtwSettings& settings, const std::string& host = "dns1.example")
      : decoder(settings, host) {
    decoder.setHandler(&Capture::handler, &capture);
  }
  EventDecoder decoder;
  Capture capture;
};

std::string expectError(EventDecoder& decoder, const SyntheticEvent& event) {
  try {
    decoder.handleEvent(event);
  } catch (const EtwError& e) {
    return e.what();
  }
  return "<no EtwError>";
}

struct LayoutCase {
  uint16_t id;
  uint32_t version;
  uint64_t type;
};

class EveryLayout : public ::testing::TestWithParam<LayoutCase> {};

TEST_P(EveryLayout, PlacesEveryValue) {
  const LayoutCase& c = GetParam();
  DecoderFixture f(allOn(c.version));
  SyntheticEvent event = EventBuilder(c.id, c.version)
                             .tcp(1)
                             .server("192.0.2.53")
                             .client("198.51.100.7")
                             .port(41952)
                             .message(kQuery)
                             .time(kTime)
                             .build();
  f.decoder.handleEvent(event);
  ASSERT_EQ(f.capture.calls, 1);
  const DnstapMessage& m = f.capture.last;
  EXPECT_EQ(m.type, c.type);
  EXPECT_EQ(m.identity, "dns1.example");
  EXPECT_EQ(m.socket_family, 1u);
  EXPECT_EQ(m.socket_protocol, 2u);
  EXPECT_EQ(m.response_address, std::string("\xc0\x00\x02\x35", 4));
  EXPECT_EQ(m.query_address, std::string("\xc6\x33\x64\x07", 4));
  EXPECT_EQ(m.query_port, 41952u);
  EXPECT_EQ(m.response_port, 0u);
  bool query = c.type % 2 == 1;
  EXPECT_EQ(query ? m.query_message : m.response_message, kQuery);
  EXPECT_EQ(query ? m.response_message : m.query_message, "");
  EXPECT_EQ(query ? m.query_time_sec : m.response_time_sec, 1700000000u);
  EXPECT_EQ(query ? m.query_time_nsec : m.response_time_nsec, 123456700u);
  EXPECT_EQ(query ? m.response_time_sec : m.query_time_sec, 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Events, EveryLayout,
    ::testing::Values(LayoutCase{256, kWindows2012R2, 5}, LayoutCase{256, kWindows2016, 5},
                      LayoutCase{256, kWindows2025, 5}, LayoutCase{257, kWindows2012R2, 6},
                      LayoutCase{257, kWindows2016, 6}, LayoutCase{257, kWindows2022, 6},
                      LayoutCase{258, kWindows2012R2, 6}, LayoutCase{258, kWindows2019, 6},
                      LayoutCase{260, kWindows2012R2, 3}, LayoutCase{260, kWindows2016, 3},
                      LayoutCase{260, kWindows2019, 3}, LayoutCase{260, kWindows2025, 3},
                      LayoutCase{261, kWindows2012R2, 4}, LayoutCase{261, kWindows2016, 4},
                      LayoutCase{261, kWindows2019, 4}, LayoutCase{261, kWindows2022, 4}),
    [](const ::testing::TestParamInfo<LayoutCase>& info) {
      return "Event" + std::to_string(info.param.id) + "Version" +
             std::to_string(info.param.version);
    });

TEST(EventDecoder, TooFewProperties) {
  struct Case {
    uint16_t id;
    uint32_t version;
    uint32_t count;
    const char* message;  // nullptr: decodes
  };
  const Case cases[] = {
      {256, kWindows2019, 10, "Expected at least 11 properties for event type 256 but got 10"},
      {257, kWindows2012R2, 16, nullptr},
      {257, kWindows2012R2, 15,
       "Expected at least 16 properties for event type 257 on Windows 2012R2 but got 15"},
      {257, kWindows2016, 16, "Expected at least 17 properties for event type 257 but got 16"},
      {258, kWindows2022, 0, "Expected at least 14 properties for event type 258 but got 0"},
      {260, kWindows2012R2, 12,
       "Expected at least 13 properties for event type 260 on Windows 2012R2 but got 12"},
      {260, kWindows2016, 13,
       "Expected at least 14 properties for event type 260 on Windows 2016 but got 13"},
      {260, kWindows2019, 14, "Expected at least 15 properties for event type 260 but got 14"},
      {261, kWindows2012R2, 13,
       "Expected at least 14 properties for event type 260 on Windows 2012R2 but got 13"},
      {261, kWindows2016, 14, "Expected at least 15 properties for event type 260 but got 14"},
      {261, kWindows2025, 14, "Expected at least 15 properties for event type 260 but got 14"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.id) + " on version " + std::to_string(c.version));
    DecoderFixture f(allOn(c.version));
    SyntheticEvent event = EventBuilder(c.id, c.version).build();
    event.count = c.count;
    if (c.message == nullptr) {
      f.decoder.handleEvent(event);
      EXPECT_EQ(f.capture.calls, 1);
    } else {
      EXPECT_EQ(expectError(f.decoder, event), c.message);
      EXPECT_EQ(f.capture.calls, 0);
    }
  }
}

TEST(EventDecoder, BadDeclarations) {
  struct Case {
    uint16_t id;
    uint32_t index;
    uint16_t inType;
    uint16_t length;
    const char* message;  // nullptr: decodes
  };
  // Event 256 on 2019: T S C b a i i P i L M.
  const Case cases[] = {
      {256, 0, kInTypeUint32, 1, "Expected property 0 to be a uint8_t but got 8"},
      {256, 0, kInTypeUint8, 2, "Expected property 0 to be length 1 but got 2"},
      {256, 1, kInTypeUnicodeString, 0, "Expected property 1 to be a unicode string but got 1"},
      {256, 2, kInTypeAnsiString, 16, "Expected property 2 to be length 0 but got 16"},
      {256, 4, kInTypeBinary, 0, "Expected property 4 to be a unicode string but got 14"},
      {256, 7, kInTypeUint8, 4, "Expected property 7 to be a uint32_t but got 4"},
      {256, 9, kInTypeUint32, 8, "Expected property 9 to be length 4 but got 8"},
      {256, 10, kInTypeAnsiString, 0, "Expected property 10 to be binary data but got 2"},
      // The binary property's declared length is not the message's length: not checked.
      {256, 10, kInTypeBinary, 9, nullptr},
      // Event 257 on 2019: the Unicode strings at 12 to 14.
      {257, 13, kInTypeAnsiString, 0, "Expected property 13 to be a unicode string but got 2"},
      {257, 14, kInTypeUnicodeString, 2, "Expected property 14 to be length 0 but got 2"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.index);
    DecoderFixture f(allOn(kWindows2019));
    SyntheticEvent event = EventBuilder(c.id, kWindows2019).build();
    event.properties[c.index] = {c.inType, c.length};
    if (c.message == nullptr) {
      f.decoder.handleEvent(event);
      EXPECT_EQ(f.capture.calls, 1);
    } else {
      EXPECT_EQ(expectError(f.decoder, event), c.message);
    }
  }
}

TEST(EventDecoder, ShortUserData) {
  struct Case {
    uint32_t index;  // user data ends `keep` bytes into this property of event 256
    uint32_t keep;
    const char* message;
  };
  const Case cases[] = {
      {0, 0, "Expected at least 1 byte of user data for property 0 but got 0"},
      {3, 0, "Expected at least 1 byte of user data for property 3 but got 0"},
      {7, 3, "Expected at least 4 bytes of user data for property 7 but got 3"},
      {9, 0, "Expected at least 4 bytes of user data for property 9 but got 0"},
      {10, 16, "Expected at least 17 bytes of user data for property 10 but got 16"},
      // An address text cut short swallows what follows, so the next property runs out.
      {2, 5, "Expected at least 1 byte of user data for property 3 but got 0"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.index);
    DecoderFixture f(allOn(kWindows2019));
    SyntheticEvent event = EventBuilder(256, kWindows2019).message(kQuery).build();
    event.data.resize(event.offsetOf(c.index) + c.keep);
    EXPECT_EQ(expectError(f.decoder, event), c.message);
    EXPECT_EQ(f.capture.calls, 0);
  }
}

TEST(EventDecoder, AddressesPortsAndProtocol) {
  struct Case {
    std::string server;
    std::string client;
    uint8_t tcp;
    uint32_t port;
    uint64_t family;
    uint64_t protocol;
    size_t clientBytes;
    const char* error;  // EtwError text, or nullptr
  };
  const Case cases[] = {
      {"192.0.2.53", "198.51.100.7", 0, 53, 1, 1, 4, nullptr},
      {"192.0.2.53", "198.51.100.7", 7, 53, 1, 2, 4, nullptr},
      {"2001:db8::53", "2001:db8::7", 1, 0, 2, 2, 16, nullptr},
      // A dual-stack server: the family follows the client.
      {"2001:db8::53", "192.0.2.7", 0, 1, 1, 1, 4, nullptr},
      {"192.0.2.53", "::ffff:192.0.2.7", 0, 65535, 2, 1, 16, nullptr},
      {"192.0.2.53", "198.51.100.7", 0, 65536, 0, 0, 0, "Client port 65536 is larger than 65535"},
      {"192.0.2.53", "198.51.100.7", 0, 0xFFFFFFFF, 0, 0, 0,
       "Client port 4294967295 is larger than 65535"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.client + " port " + std::to_string(c.port));
    DecoderFixture f(allOn(kWindows2022));
    SyntheticEvent event = EventBuilder(257, kWindows2022)
                               .server(c.server)
                               .client(c.client)
                               .tcp(c.tcp)
                               .port(c.port)
                               .build();
    if (c.error != nullptr) {
      EXPECT_EQ(expectError(f.decoder, event), c.error);
      EXPECT_EQ(f.capture.calls, 0);
      continue;
    }
    f.decoder.handleEvent(event);
    ASSERT_EQ(f.capture.calls, 1);
    EXPECT_EQ(f.capture.last.socket_family, c.family);
    EXPECT_EQ(f.capture.last.socket_protocol, c.protocol);
    EXPECT_EQ(f.capture.last.query_address.size(), c.clientBytes);
    EXPECT_EQ(f.capture.last.query_port, c.port);
  }
}

TEST(EventDecoder, UnparsableAddressIsAnIpError) {
  const std::pair<const char*, const char*> cases[] = {
      {"dns1.example", "192.0.2.7"}, {"192.0.2.53", ""}, {"192.0.2.53", "192.0.2.256"}};
  for (const auto& [server, client] : cases) {
    DecoderFixture f(allOn(kWindows2019));
    SyntheticEvent event = EventBuilder(256, kWindows2019).server(server).client(client).build();
    EXPECT_THROW(f.decoder.handleEvent(event), encoding::ip::IpError) << server << " " << client;
    EXPECT_EQ(f.capture.calls, 0);
  }
}

TEST(EventDecoder, IgnoredEventsChangeNothing) {
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
    DecoderFixture f(settings);
    f.decoder.handleEvent(EventBuilder(256, kWindows2019).port(1).build());
    uint64_t before = f.decoder.message().query_port;
    // Built as a valid 256 event, relabelled: an ignored id is not even looked at.
    SyntheticEvent event = EventBuilder(256, kWindows2019).port(2).build();
    event.id = c.id;
    int calls = f.capture.calls;
    EXPECT_FALSE(f.decoder.wants(c.id));
    f.decoder.handleEvent(event);
    EXPECT_EQ(f.capture.calls, calls);
    EXPECT_EQ(f.decoder.message().query_port, before);
  }
}

TEST(EventDecoder, DefaultSwitchesTakeClientTrafficOnly) {
  EtwSettings settings;
  settings.windowsVersion = kWindows2016;
  EventDecoder decoder(settings, "host");
  std::vector<bool> wanted;
  for (uint16_t id = 255; id <= 262; ++id) wanted.push_back(decoder.wants(id));
  EXPECT_EQ(wanted, (std::vector<bool>{false, true, true, true, false, false, false, false}));
}

TEST(EventDecoder, HeaderFieldsSurviveEveryEvent) {
  EtwSettings settings = allOn(kWindows2019);
  settings.identityFromEvent = false;
  settings.hasVersion = true;
  settings.version = "Vantrelo 2.4.4";
  settings.hasExtra = true;
  settings.extra = "site=ams";
  DecoderFixture f(settings);
  f.decoder.handleEvent(EventBuilder(256, kWindows2019).build());
  f.decoder.handleEvent(EventBuilder(261, kWindows2019).build());
  ASSERT_EQ(f.capture.calls, 2);
  EXPECT_EQ(f.capture.last.identity, "");
  EXPECT_EQ(f.capture.last.version, "Vantrelo 2.4.4");
  EXPECT_EQ(f.capture.last.extra, "site=ams");
  // The second event replaced the first one's query fields.
  EXPECT_EQ(f.capture.last.query_message, "");
  EXPECT_EQ(f.capture.last.query_time_sec, 0u);
}

TEST(EventDecoder, TimeBeforeUnixEpochIsZero) {
  DecoderFixture f(allOn(kWindows2019));
  f.decoder.handleEvent(EventBuilder(256, kWindows2019).time(12345).build());
  EXPECT_EQ(f.capture.last.query_time_sec, 0u);
  EXPECT_EQ(f.capture.last.query_time_nsec, 0u);
}

TEST(EventDecoder, UnknownWindowsVersionIsRejected) {
  EtwSettings settings;
  settings.windowsVersion = kWindowsUnknown;
  EXPECT_THROW(EventDecoder(settings, "host"), EtwError);
}

}  // namespace
}  // namespace ns::etw
