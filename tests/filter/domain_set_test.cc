#include "filter/domain_set.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace vantrelo::filter {
namespace {

DomainSet setOf(const std::string& listText) {
  DomainSet set;
  parseDomainList(listText, "test", set);
  return set;
}

// The asked names are already canonical, as the question reader hands them over.
TEST(DomainSet, NamesAgainstLists) {
  const std::string label63(63, 'x');
  const std::string longest = label63 + "." + label63 + "." + label63 + "." + std::string(61, 'y');
  struct Case {
    const char* list;
    std::string name;
    bool covered;
  } cases[] = {
      {"example.com", "example.com", true},
      {"example.com", "a.example.com", true},
      {"example.com", "b.a.example.com", true},
      {"example.com", "badexample.com", false},
      {"example.com", "example.com.au", false},
      {"example.com", "com", false},
      {"a.example.com", "example.com", false},
      {"Example.COM.", "www.example.com", true},  // case and trailing dot of the entry
      {"example.com..", "example.com", true},     // every trailing dot goes
      {"  example.com\r", "example.com", true},   // surrounding white space and CR
      {"com", "anything.com", true},
      {".", "any.name", true},  // the root holds every name
      {".", "", true},
      {"example.com", "", false},  // the root name is under no listed name
      {"# only a comment\n\n", "example.com", false},
      {"x.org # why\nexample.com", "example.com", true},
      {"y.example.net\nexample.com\n", "deep.y.example.net", true},
      {longest.c_str(), longest, true},
      {longest.c_str(), "z." + longest, true},
      {longest.c_str(), longest.substr(1), false},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(setOf(c.list).covers(c.name), c.covered) << c.list << " / " << c.name;
  }
}

TEST(DomainSet, ManyNamesAllFound) {
  DomainSet set;
  std::string list;
  for (int i = 0; i < 100000; ++i) list += "host" + std::to_string(i) + ".example.net\n";
  parseDomainList(list, "test", set);
  EXPECT_EQ(set.size(), 100000u);
  for (int i = 0; i < 100000; i += 997) {
    EXPECT_TRUE(set.covers("a.host" + std::to_string(i) + ".example.net"));
  }
  EXPECT_FALSE(set.covers("host100000.example.net"));
  EXPECT_FALSE(set.covers("example.net"));
}

TEST(DomainSet, BadLinesNameTheirPlace) {
  struct Case {
    const char* list;
    const char* message;
  } cases[] = {
      {"ok.com\na..b", "Invalid name in test line 2: empty label: a..b"},
      {".example.com", "Invalid name in test line 1: empty label: .example.com"},
      {"a b.com",
       "Invalid name in test line 1: white space or control character inside the "
       "name: a b.com"},
      {"\n\nx\x01y",
       "Invalid name in test line 3: white space or control character inside the "
       "name: x\x01y"},
  };
  for (const Case& c : cases) {
    DomainSet set;
    try {
      parseDomainList(c.list, "test", set);
      ADD_FAILURE() << c.list;
    } catch (const FilterError& failure) {
      EXPECT_STREQ(failure.what(), c.message);
    }
  }
  std::string problem;
  EXPECT_EQ(canonicalName(std::string(64, 'a') + ".com", problem), "");
  EXPECT_EQ(problem, "label longer than 63 characters");
  EXPECT_EQ(canonicalName(std::string(254, 'a'), problem), "");
  EXPECT_EQ(problem, "name longer than 253 characters");
  EXPECT_EQ(canonicalName("   ", problem), "");
  EXPECT_EQ(problem, "empty name");
}

}  // namespace
}  // namespace vantrelo::filter
