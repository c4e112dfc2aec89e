#include "filter/edge_filter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include "filter/filter_config.h"
#include "format/message_formatter.h"
#include "wire_builder.h"

namespace vantrelo::filter {
namespace {

using encoding::dnstap::DnstapMessage;
using format::testing::makeRecord;
using format::testing::Wire;

constexpr uint16_t kA = 1, kPtr = 12, kSrv = 33;

std::string question(const std::string& name, uint16_t qtype, uint16_t id = 0x1234,
                     uint16_t flags = 0x0100) {
  return Wire().header(id, flags, 1, 0, 0, 0).name(name).u16(qtype).u16(1).bytes();
}

DnstapMessage record(uint64_t type, const std::string& client, uint64_t port,
                     const std::string& wire) {
  return makeRecord(type, client.find(':') == std::string::npos ? 1 : 2, 1, client, "192.0.2.53",
                    port, wire);
}

std::string encode(DnstapMessage message) {
  std::string out;
  message.encode(out);
  return out;
}

std::shared_ptr<FilterSettings> rules() {
  auto settings = std::make_shared<FilterSettings>();
  settings->dropDomains.add("example.com");
  settings->dropDomains.add("in-addr.arpa");
  settings->dropTypes.set(kSrv);
  settings->privacy = {AddressMode::kTruncate, 24, 56, ""};
  return settings;
}

TEST(EdgeFilter, QueryTypesAsTheQueryLogPrintsThem) {
  struct Case {
    const char* word;
    int type;  // -1: refused
  } cases[] = {
      {"PTR", 12},  {"ptr", 12},   {"SRV", 33},      {"TYPE65", 65}, {"type65", 65},
      {"65", 65},   {"HTTPS", 65}, {"NSAP-PTR", 23}, {"TYPE0", 0},   {"65535", 65535},
      {"TYPE", -1}, {"65536", -1}, {"FOO", -1},      {"", -1},       {"TYPE6x", -1},
  };
  for (const Case& c : cases) {
    uint16_t type = 7;
    EXPECT_EQ(parseQueryType(c.word, type), c.type >= 0) << c.word;
    if (c.type >= 0) {
      EXPECT_EQ(type, c.type) << c.word;
    }
  }
}

// Every case runs twice: as a record handed over by the ETW decoder and as a relayed frame.
TEST(EdgeFilter, RulesOnCapturedRecordsAndRelayedFramesAlike) {
  struct Case {
    std::string name;
    uint16_t qtype;
    bool keepList;  // keep only names under example.org
    bool kept;
    FilterCounts counts;
  } cases[] = {
      {"www.example.net", kA, false, true, {}},
      {"www.example.com", kA, false, false, {1, 0, 0, 0, 0}},
      {"Example.COM", kA, false, false, {1, 0, 0, 0, 0}},
      {"7.2.0.192.in-addr.arpa", kPtr, false, false, {1, 0, 0, 0, 0}},
      {"_ldap._tcp.dc.corp", kSrv, false, false, {0, 0, 1, 0, 0}},
      {"www.example.org", kA, true, true, {}},
      {"www.example.net", kA, true, false, {0, 1, 0, 0, 0}},
      {"example.com", kA, true, false, {1, 0, 0, 0, 0}},  // the drop list wins
  };
  for (const Case& c : cases) {
    auto settings = rules();
    if (c.keepList) {
      settings->keepList = true;
      settings->keepDomains.add("example.org");
      settings->keepDomains.add("example.com");
    }
    for (bool relayed : {false, true}) {
      EdgeFilter filter(settings);
      const DnstapMessage input = record(5, "198.51.100.77", 40000, question(c.name, c.qtype));
      DnstapMessage captured = input;
      bool kept;
      std::string client;
      if (relayed) {
        const std::string frame = encode(input);
        std::string_view event = frame;
        FrameFilter frames(&filter);
        kept = frames.admit(event);
        DnstapMessage out;
        out.decode(reinterpret_cast<const uint8_t*>(event.data()),
                   static_cast<uint32_t>(event.size()), 0);
        client = out.query_address;
      } else {
        bool changed = false;
        kept = filter.admit(captured, changed);
        EXPECT_EQ(changed, kept);
        client = captured.query_address;
      }
      const std::string where = c.name + (relayed ? " relayed" : " captured");
      EXPECT_EQ(kept, c.kept) << where;
      if (kept) {
        EXPECT_EQ(client, format::testing::ipBytes("198.51.100.0")) << where;
      }
      const FilterCounts counts = filter.counts();
      EXPECT_EQ(counts.droppedByDomain, c.counts.droppedByDomain) << where;
      EXPECT_EQ(counts.droppedByKeep, c.counts.droppedByKeep) << where;
      EXPECT_EQ(counts.droppedByType, c.counts.droppedByType) << where;
    }
  }
}

TEST(EdgeFilter, UntouchedFramesPassByteForByte) {
  auto settings = rules();
  EdgeFilter filter(settings);
  FrameFilter frames(&filter);
  // Already inside its prefix: privacy changes nothing, so the sender's bytes go on as they are.
  const std::string frame = encode(record(5, "198.51.100.0", 1000, question("a.example.net", kA)));
  std::string_view event = frame;
  ASSERT_TRUE(frames.admit(event));
  EXPECT_EQ(event.data(), frame.data());
  EXPECT_EQ(event.size(), frame.size());

  // Bytes that are not dnstap pass without filters that need the client, and go with them.
  const std::string junk = "\x0a\xff\xff";
  auto listsOnly = std::make_shared<FilterSettings>();
  listsOnly->dropDomains.add("example.com");
  EdgeFilter lists(listsOnly);
  FrameFilter listFrames(&lists);
  event = junk;
  EXPECT_TRUE(listFrames.admit(event));
  EXPECT_EQ(event, junk);
  event = junk;
  EXPECT_FALSE(frames.admit(event));
  EXPECT_EQ(filter.counts().droppedUnreadable, 1u);

  FrameFilter none(nullptr);
  event = junk;
  EXPECT_TRUE(none.admit(event));
  EXPECT_EQ(event.data(), junk.data());
}

TEST(EdgeFilter, SamplingKeepsPairsTogetherEverywhere) {
  auto settings = std::make_shared<FilterSettings>();
  settings->sampleOneIn = 10;
  EdgeFilter agentOne(settings);
  EdgeFilter agentTwo(std::make_shared<FilterSettings>(*settings));
  constexpr int kTransactions = 100000;
  int kept = 0;
  for (int i = 0; i < kTransactions; ++i) {
    const std::string client = "10." + std::to_string(i % 251) + "." + std::to_string(i % 13) +
                               "." + std::to_string(i % 7);
    const auto id = static_cast<uint16_t>(i * 7919);
    const auto port = static_cast<uint64_t>(1024 + i % 60000);
    DnstapMessage query = record(5, client, port, question("q.example.net", kA, id, 0x0100));
    DnstapMessage response = record(6, client, port, question("q.example.net", kA, id, 0x8180));
    DnstapMessage again = query;
    bool changed;
    const bool queryKept = agentOne.admit(query, changed);
    ASSERT_EQ(agentOne.admit(response, changed), queryKept) << client << " " << id;
    ASSERT_EQ(agentTwo.admit(again, changed), queryKept) << client << " " << id;
    kept += queryKept ? 1 : 0;
  }
  // Binomial(100000, 0.1): five standard deviations either side of 10000.
  const double bound = 5 * std::sqrt(kTransactions * 0.1 * 0.9);
  EXPECT_NEAR(kept, kTransactions / 10, bound);
  EXPECT_EQ(agentOne.counts().sampledOut, 2u * (kTransactions - kept));
}

// What the forwarders make of a filtered relay: the records that should survive, with the
// client shown as truncated, and nothing else.
TEST(EdgeFilter, FormattedOutputOfAFilteredRelay) {
  struct Input {
    const char* name;
    uint16_t qtype;
    uint64_t type;
    bool survives;
  } inputs[] = {
      {"www.example.net", kA, 5, true},       {"www.example.com", kA, 5, false},
      {"_ldap._tcp.dc.corp", kSrv, 5, false}, {"www.example.net", kA, 6, true},
      {"mail.example.org", 15, 5, true},
  };
  for (format::MessageFormat kind :
       {format::MessageFormat::kJson, format::MessageFormat::kQuerylog}) {
    format::MessageSettings settings;
    settings.format = kind;
    settings.hostname = "relay";
    format::MessageFormatter formatter(settings);
    EdgeFilter filter(rules());
    FrameFilter frames(&filter);
    std::string filtered, expected;
    DnstapMessage scratch;
    for (const Input& input : inputs) {
      const std::string wire = question(input.name, input.qtype);
      const std::string frame = encode(record(input.type, "2001:db8:1:2:3::9", 5353, wire));
      std::string_view event = frame;
      if (frames.admit(event)) {
        formatter.formatEvent(reinterpret_cast<const uint8_t*>(event.data()),
                              static_cast<uint32_t>(event.size()), scratch, filtered);
      }
      if (input.survives) {
        const std::string survivor = encode(record(input.type, "2001:db8:1::", 5353, wire));
        formatter.formatEvent(reinterpret_cast<const uint8_t*>(survivor.data()),
                              static_cast<uint32_t>(survivor.size()), scratch, expected);
      }
    }
    EXPECT_EQ(filtered, expected);
    EXPECT_NE(expected.find("2001:db8:1::"), std::string::npos) << expected;
  }
}

}  // namespace
}  // namespace vantrelo::filter
