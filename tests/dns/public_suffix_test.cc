#include "dns/public_suffix.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace vantrelo::net::dns {
namespace {

TEST(DomainOffsetTest, BuiltinAndConfiguredSuffixes) {
  struct Case {
    std::string name;
    bool use_builtin;
    bool use_config;
    std::string domain;
  };
  // Both sets are built in the trailing-dot form first, then rebuilt without it.
  const std::vector<Case> with_dot = {
      {"host.example.com.", true, true, "example.com."},
      {"a.b.example.co.uk.", true, true, "example.co.uk."},
      {"host.nosuchtld.", true, true, "nosuchtld."},
      {"www.ck.", true, true, "ck."},  // "!www.ck" and "*.ck" are plain texts here
      {"x.y.corp.example.", true, true, "corp.example."},
      {"x.y.corp.example.", false, true, "corp.example."},
      {"x.y.corp.example.", true, false, "example."},
      {"host.example.com.", false, true, "com."},  // nothing matches: the last label
      {".", true, true, "."},
      {"", true, true, ""},
      {"a.xn--55qx5d.cn.", true, true, "a.xn--55qx5d.cn."},
  };
  const std::vector<Case> without_dot = {
      {"host.example.com", true, true, "example.com"},
      {"x.y.corp.example", true, false, "example"},
      // The trailing-dot form is not in the sets now, so the last label is the domain.
      {"host.example.com.", true, true, "com."},
  };
  DomainSuffixes suffixes;
  for (bool trailing_dot : {true, false}) {
    suffixes.build_builtin_set(trailing_dot);
    suffixes.add_configured_suffix(trailing_dot ? "Corp.Example" : "corp.example", trailing_dot);
    EXPECT_EQ(suffixes.builtin_size(), 6933u);
    for (const Case& c : trailing_dot ? with_dot : without_dot) {
      uint32_t offset = suffixes.domain_offset(c.name.data(), static_cast<uint32_t>(c.name.size()),
                                               c.use_builtin, c.use_config);
      ASSERT_LE(offset, c.name.size());
      EXPECT_EQ(c.name.substr(offset), c.domain) << c.name << " " << c.use_builtin << c.use_config;
    }
  }
}

}  // namespace
}  // namespace vantrelo::net::dns
