#include "filter/filter_config.h"

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <string>
#include <vector>

namespace vantrelo::filter {
namespace {

using Keys = std::multimap<std::string, std::string>;

std::shared_ptr<const FilterSettings> read(const Keys& keys) {
  return readFilterSettings([&keys](const char* key) {
    std::vector<std::string> values;
    for (auto [at, end] = keys.equal_range(key); at != end; ++at) values.push_back(at->second);
    return values;
  });
}

std::string writeFile(const std::string& name, const std::string& text) {
  const std::string path = std::string(VANTRELO_BINARY_DIR) + "/filter_test_" + name;
  std::ofstream(path, std::ios::binary) << text;
  return path;
}

// Lists from files, single drop types, sampling and truncation run end to end; these are the rest.
TEST(FilterConfig, ReadsTheRulesTheRelayTestsLeaveOut) {
  EXPECT_EQ(read({{"filter-sample-one-in", "1"}, {"filter-client-address", "keep"}}), nullptr);
  const std::string key = writeFile("key", "0123456789abcdef0123456789abcdef\n");
  // Query types as the query log prints them: names in any case, TYPEnnn or plain numbers.
  auto settings = read({{"filter-drop-domain", "corp.example."},
                        {"filter-keep-domain", "example"},
                        {"filter-drop-type", "ptr  srv HTTPS"},
                        {"filter-drop-type", "type64 NSAP-PTR 65535"},
                        {"filter-client-address", "pseudonym"},
                        {"filter-client-key-file", key}});
  ASSERT_NE(settings, nullptr);
  EXPECT_TRUE(settings->dropDomains.covers("x.corp.example"));
  EXPECT_TRUE(settings->keepList);
  EXPECT_EQ(settings->dropTypes.count(), 6u);
  for (size_t type : {12u, 33u, 65u, 64u, 23u, 65535u}) EXPECT_TRUE(settings->dropTypes.test(type));
  EXPECT_EQ(settings->privacy.key.size(), 33u);

  settings = read({{"filter-client-address", "truncate"}, {"filter-client-ipv6-prefix", "48"}});
  EXPECT_EQ(settings->privacy.ipv4Prefix, 24u);
  EXPECT_EQ(settings->privacy.ipv6Prefix, 48u);
}

TEST(FilterConfig, ErrorsSayWhatAndWhere) {
  const std::string missing = std::string(VANTRELO_BINARY_DIR) + "/filter_test_no_such_file";
  const std::string shortKey = writeFile("short_key", "too short");
  const std::string badList = writeFile("bad_list", "fine.example\nnot..fine\n");
  const std::string badType = "Invalid filter-drop-type specified in config file: ";
  struct Case {
    Keys keys;
    std::string message;  // a prefix of the error's text
  } cases[] = {
      {{{"filter-keep-domain-file", missing}},
       "Cannot read filter-keep-domain-file " + missing + ": "},
      {{{"filter-drop-domain-file", badList}},
       "Invalid name in filter-drop-domain-file " + badList + " line 2: empty label: not..fine"},
      {{{"filter-keep-domain-file", writeFile("empty", "# nothing yet\n")}},
       "No name in filter-keep-domain-file: the keep list would drop every record"},
      {{{"filter-drop-type", "PTR BOGUS"}}, badType + "PTR BOGUS (unknown type BOGUS)"},
      {{{"filter-drop-type", "TYPE6x"}}, badType + "TYPE6x (unknown type TYPE6x)"},
      {{{"filter-sample-one-in", "0"}},
       "Invalid filter-sample-one-in specified in config file: 0 (a whole number of 1 or more)"},
      {{{"filter-client-address", "truncate"}, {"filter-client-ipv4-prefix", "33"}},
       "Invalid filter-client-ipv4-prefix specified in config file: 33 (0 to 32 bits)"},
      {{{"filter-client-address", "pseudonym"}},
       "Missing filter-client-key-file for filter-client-address pseudonym"},
      {{{"filter-client-address", "pseudonym"}, {"filter-client-key-file", shortKey}},
       "Invalid filter-client-key-file specified in config file: " + shortKey +
           " (the key holds 9 bytes, at least 16 are needed)"},
  };
  for (const Case& c : cases) {
    try {
      read(c.keys);
      ADD_FAILURE() << c.message;
    } catch (const FilterError& failure) {
      EXPECT_EQ(std::string(failure.what()).substr(0, c.message.size()), c.message);
    }
  }
}

}  // namespace
}  // namespace vantrelo::filter
