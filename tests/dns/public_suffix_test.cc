#include "dns/public_suffix.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace ns::net::dns {
namespace {

TEST(BuiltinRulesTest, ListOrderAndForm) {
  const auto& rules = builtin_rules();
  ASSERT_EQ(rules.size(), 6933u);
  EXPECT_EQ(rules.front(), "ac");
  EXPECT_EQ(rules[1], "com.ac");
  EXPECT_EQ(rules.back(), "zuerich");
  size_t wildcards = 0;
  size_t exceptions = 0;
  size_t punycode = 0;
  for (std::string_view rule : rules) {
    if (rule.substr(0, 2) == "*.") ++wildcards;
    if (rule.substr(0, 1) == "!") ++exceptions;
    if (rule.find("xn--") != std::string_view::npos) ++punycode;
  }
  EXPECT_EQ(wildcards, 16u);
  EXPECT_EQ(exceptions, 8u);
  EXPECT_EQ(punycode, 444u);
}

struct DomainCase {
  std::string name;
  bool use_builtin;
  bool use_config;
  std::string domain;
};

class DomainOffsetTest : public ::testing::Test {
 protected:
  std::string domain_of(const DomainSuffixes& suffixes, const DomainCase& c) {
    uint32_t offset = suffixes.domain_offset(c.name.data(), static_cast<uint32_t>(c.name.size()),
                                             c.use_builtin, c.use_config);
    EXPECT_LE(offset, c.name.size());
    return c.name.substr(offset);
  }
};

TEST_F(DomainOffsetTest, WithTrailingDot) {
  DomainSuffixes suffixes;
  suffixes.build_builtin_set(true);
  suffixes.add_configured_suffix("Corp.Example", true);
  EXPECT_EQ(suffixes.builtin_size(), 6933u);
  const std::vector<DomainCase> cases = {
      {"host.example.com.", true, true, "example.com."},
      {"a.b.example.co.uk.", true, true, "example.co.uk."},
      {"com.", true, true, "com."},
      {"co.uk.", true, true, "co.uk."},
      {"host.nosuchtld.", true, true, "nosuchtld."},
      {"www.ck.", true, true, "ck."},  // "!www.ck" and "*.ck" are plain texts here
      {"a.b.ck.", true, true, "ck."},
      {"x.kawasaki.jp.", true, true, "kawasaki.jp."},
      {"x.y.corp.example.", true, true, "corp.example."},
      {"x.y.corp.example.", false, true, "corp.example."},
      {"x.y.corp.example.", true, false, "example."},
      {"corp.example.", true, true, "corp.example."},
      {"host.example.com.", false, true, "com."},  // nothing matches: the last label
      {"host.example.com.", false, false, ""},
      {".", true, true, "."},
      {"", true, true, ""},
      {"xn--55qx5d.cn.", true, true, "xn--55qx5d.cn."},
      {"a.xn--55qx5d.cn.", true, true, "a.xn--55qx5d.cn."},
  };
  for (const DomainCase& c : cases) {
    EXPECT_EQ(domain_of(suffixes, c), c.domain) << c.name << " " << c.use_builtin << c.use_config;
  }
}

TEST_F(DomainOffsetTest, WithoutTrailingDot) {
  DomainSuffixes suffixes;
  suffixes.build_builtin_set(false);
  suffixes.add_configured_suffix("corp.example", false);
  const std::vector<DomainCase> cases = {
      {"host.example.com", true, true, "example.com"},
      {"a.b.example.co.uk", true, true, "example.co.uk"},
      {"com", true, true, "com"},
      {"host.nosuchtld", true, true, "nosuchtld"},
      {"a.b.ck", true, true, "ck"},
      {"x.y.corp.example", true, true, "corp.example"},
      {"x.y.corp.example", true, false, "example"},
      // The trailing-dot form is not in the sets now, so the last label is the domain.
      {"host.example.com.", true, true, "com."},
  };
  for (const DomainCase& c : cases) {
    EXPECT_EQ(domain_of(suffixes, c), c.domain) << c.name << " " << c.use_builtin << c.use_config;
  }
}

TEST_F(DomainOffsetTest, RebuildReplacesBuiltinForm) {
  DomainSuffixes suffixes;
  suffixes.build_builtin_set(false);
  suffixes.build_builtin_set(true);
  EXPECT_EQ(suffixes.builtin_size(), 6933u);
  EXPECT_EQ(domain_of(suffixes, {"host.example.com", true, false, ""}), "com");
  EXPECT_EQ(domain_of(suffixes, {"host.example.com.", true, false, ""}), "example.com.");
}

}  // namespace
}  // namespace ns::net::dns
