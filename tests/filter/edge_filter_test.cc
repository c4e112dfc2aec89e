#include "filter/edge_filter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <string>

#include "filter/filter_config.h"
#include "wire_builder.h"

namespace vantrelo::filter {
namespace {

using encoding::dnstap::DnstapMessage;
using format::testing::ipBytes;

constexpr uint16_t kA = 1, kPtr = 12, kSrv = 33;

std::string frameOf(uint64_t type, const std::string& client, const std::string& name,
                    uint16_t qtype, uint16_t id = 0x1234, uint64_t port = 40000) {
  const std::string wire =
      format::testing::Wire().header(id, 0x0100, 1, 0, 0, 0).name(name).u16(qtype).u16(1).bytes();
  std::string out;
  format::testing::makeRecord(type, client.find(':') == std::string::npos ? 1 : 2, 1, client,
                              "192.0.2.53", port, wire)
      .encode(out);
  return out;
}

DnstapMessage decoded(std::string_view frame) {
  DnstapMessage record;
  record.decode(reinterpret_cast<const uint8_t*>(frame.data()), static_cast<uint32_t>(frame.size()),
                0);
  return record;
}

std::shared_ptr<FilterSettings> rules(bool keepList = false) {
  auto settings = std::make_shared<FilterSettings>();
  settings->dropDomains.add("example.com");
  settings->dropDomains.add("in-addr.arpa");
  settings->dropTypes.set(kSrv);
  settings->privacy = {AddressMode::kTruncate, 24, 56, ""};
  if (keepList) {
    settings->keepList = true;
    settings->keepDomains.add("example.org");
    settings->keepDomains.add("example.com");
  }
  return settings;
}

TEST(EdgeFilter, QueryTypesAsTheQueryLogPrintsThem) {
  const std::pair<const char*, int> cases[] = {
      {"PTR", 12},   {"ptr", 12},   {"SRV", 33},      {"TYPE65", 65},   {"type65", 65},
      {"65", 65},    {"HTTPS", 65}, {"NSAP-PTR", 23}, {"65535", 65535}, {"TYPE", -1},
      {"65536", -1}, {"FOO", -1},   {"", -1},         {"TYPE6x", -1},
  };
  for (const auto& [word, expected] : cases) {
    uint16_t type = 7;
    EXPECT_EQ(parseQueryType(word, type) ? type : -1, expected) << word;
  }
}

// Each case runs as a record from the ETW decoder and as a relayed frame, with the same result.
TEST(EdgeFilter, RulesOnCapturedRecordsAndRelayedFramesAlike) {
  enum Outcome { kKept, kDomain, kKeep, kType };
  const struct {
    const char* name;
    uint16_t qtype;
    bool keepList;
    Outcome outcome;
  } cases[] = {
      {"www.example.net", kA, false, kKept},
      {"www.example.com", kA, false, kDomain},
      {"Example.COM", kA, false, kDomain},
      {"7.2.0.192.in-addr.arpa", kPtr, false, kDomain},
      {"_ldap._tcp.dc.corp", kSrv, false, kType},
      {"www.example.org", kA, true, kKept},
      {"www.example.net", kA, true, kKeep},
      {"example.com", kA, true, kDomain},  // the drop list wins over the keep list
  };
  for (const auto& c : cases) {
    for (bool relayed : {false, true}) {
      EdgeFilter filter(rules(c.keepList));
      const std::string frame = frameOf(5, "198.51.100.77", c.name, c.qtype);
      DnstapMessage record = decoded(frame);
      bool kept, changed = false;
      if (relayed) {
        std::string_view event = frame;
        FrameFilter frames(&filter);
        kept = frames.admit(event);
        record = decoded(event);
      } else {
        kept = filter.admit(record, changed);
        EXPECT_EQ(changed, kept);
      }
      const FilterCounts n = filter.counts();
      const uint64_t counted[] = {kept ? 1u : 0u, n.droppedByDomain, n.droppedByKeep,
                                  n.droppedByType};
      for (int outcome = kKept; outcome <= kType; ++outcome) {
        EXPECT_EQ(counted[outcome], outcome == c.outcome ? 1u : 0u) << c.name << relayed;
      }
      if (kept) {
        EXPECT_EQ(record.query_address, ipBytes("198.51.100.0")) << c.name << relayed;
      }
    }
  }
}

TEST(EdgeFilter, UntouchedFramesPassByteForByte) {
  EdgeFilter filter(rules());
  FrameFilter frames(&filter);
  // Already inside its prefix: privacy changes nothing, so the sender's own bytes go on.
  const std::string frame = frameOf(5, "198.51.100.0", "a.example.net", kA);
  std::string_view event = frame;
  ASSERT_TRUE(frames.admit(event));
  EXPECT_EQ(event.data(), frame.data());
  EXPECT_EQ(event.size(), frame.size());

  // Bytes that are not dnstap pass unless the client must be hidden.
  const std::string junk = "\x0a\xff\xff";
  auto listsOnly = std::make_shared<FilterSettings>();
  listsOnly->dropDomains.add("example.com");
  EdgeFilter lists(listsOnly);
  for (auto [filterOf, passes] : {std::pair{&lists, true}, std::pair{&filter, false}}) {
    FrameFilter junkFrames(filterOf);
    event = junk;
    EXPECT_EQ(junkFrames.admit(event), passes);
  }
  EXPECT_EQ(filter.counts().droppedUnreadable, 1u);
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
    const uint64_t port = 1024 + i % 60000;
    DnstapMessage query = decoded(frameOf(5, client, "q.example.net", kA, id, port));
    DnstapMessage response = decoded(frameOf(6, client, "q.example.net", kA, id, port));
    DnstapMessage again = query;
    bool changed;
    const bool queryKept = agentOne.admit(query, changed);
    ASSERT_EQ(agentOne.admit(response, changed), queryKept) << client << " " << id;
    ASSERT_EQ(agentTwo.admit(again, changed), queryKept) << client << " " << id;
    kept += queryKept ? 1 : 0;
  }
  // Binomial(100000, 0.1): within five standard deviations of 10000.
  EXPECT_NEAR(kept, kTransactions / 10, 5 * std::sqrt(kTransactions * 0.1 * 0.9));
  EXPECT_EQ(agentOne.counts().sampledOut, 2u * (kTransactions - kept));
}

}  // namespace
}  // namespace vantrelo::filter
