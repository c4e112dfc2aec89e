#include "filter/edge_filter.h"

#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <string>

#include "filter/filter_config.h"
#include "wire_builder.h"

namespace vantrelo::filter {
namespace {

constexpr uint16_t kA = 1, kSrv = 33;

// A client query from an IPv4 client.
std::string frameOf(const std::string& client, const std::string& name, uint16_t qtype) {
  auto wire = format::testing::Wire().header(0x1234, 0x100, 1, 0, 0, 0).name(name).u16(qtype);
  std::string out;
  format::testing::makeRecord(5, 1, 1, client, "192.0.2.53", 40000, wire.u16(1).bytes())
      .encode(out);
  return out;
}

// Each case runs as a record from the ETW decoder and as a relayed frame, with the same result.
// Sampling keeps query and response together and keeps the share it should: the relay tests
// check every record against the sampling key; here only its counter and its place in the order.
TEST(EdgeFilter, RulesOnCapturedRecordsAndRelayedFramesAlike) {
  constexpr uint32_t kNone = UINT32_MAX;  // samples out about every transaction
  const struct {
    const char* name;
    uint16_t qtype;
    bool keepList;
    uint32_t sampleOneIn;
    std::array<uint64_t, 5> counts;  // kept, dropped by domain, keep list, type, sampled out
  } cases[] = {
      {"www.example.net", kA, false, 1, {1, 0, 0, 0, 0}},
      {"www.example.com", kA, false, kNone, {0, 1, 0, 0, 0}},
      {"_ldap._tcp.dc.corp", kSrv, false, kNone, {0, 0, 0, 1, 0}},
      {"www.example.net", kA, false, kNone, {0, 0, 0, 0, 1}},
      {"www.example.org", kA, true, 1, {1, 0, 0, 0, 0}},
      {"www.example.net", kA, true, 1, {0, 0, 1, 0, 0}},
      {"example.com", kA, true, 1, {0, 1, 0, 0, 0}},  // the drop list wins over the keep list
  };
  for (const auto& c : cases) {
    for (bool relayed : {false, true}) {
      auto settings = std::make_shared<FilterSettings>();
      settings->dropDomains.add("example.com");
      settings->dropTypes.set(kSrv);
      settings->sampleOneIn = c.sampleOneIn;
      settings->privacy = {AddressMode::kTruncate, 24, 56, ""};
      settings->keepList = c.keepList;
      settings->keepDomains.add("example.org");
      settings->keepDomains.add("example.com");
      EdgeFilter filter(settings);
      FrameFilter frames(&filter);
      const std::string frame = frameOf("198.51.100.77", c.name, c.qtype);
      std::string_view event = frame;
      encoding::dnstap::DnstapMessage record;
      record.decode(reinterpret_cast<const uint8_t*>(frame.data()),
                    static_cast<uint32_t>(frame.size()), 0);
      bool changed = false;  // captured records are encoded afresh whatever it says
      const bool kept = relayed ? frames.admit(event) : filter.admit(record, changed);
      const FilterCounts n = filter.counts();
      const std::array<uint64_t, 5> counts{kept, n.droppedByDomain, n.droppedByKeep,
                                           n.droppedByType, n.sampledOut};
      EXPECT_EQ(counts, c.counts) << c.name << relayed;
      std::string survivor(relayed ? event : std::string_view());
      if (!relayed) record.encode(survivor);
      // The client truncated, the rest of the record as it came.
      if (kept) {
        EXPECT_EQ(survivor, frameOf("198.51.100.0", c.name, c.qtype)) << c.name << relayed;
      }
    }
  }
}

// Relayed frames the rules leave alone pass byte for byte in the end-to-end tests; bytes that
// are not dnstap pass too, unless the client must be hidden.
TEST(EdgeFilter, UnreadableFramesPassOnlyWithoutPrivacy) {
  for (const bool hides : {false, true}) {
    auto settings = std::make_shared<FilterSettings>();  // other rules change nothing here
    if (hides) settings->privacy.mode = AddressMode::kTruncate;
    EdgeFilter filter(settings);
    std::string_view event = "\x0a\xff\xff";
    EXPECT_EQ(FrameFilter(&filter).admit(event), !hides);
    EXPECT_EQ(filter.counts().droppedUnreadable, hides ? 1u : 0u);
  }
}

}  // namespace
}  // namespace vantrelo::filter
