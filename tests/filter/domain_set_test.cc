#include "filter/domain_set.h"

#include <gtest/gtest.h>

#include <string>

namespace vantrelo::filter {
namespace {

// The asked names are canonical already, as the question reader hands them over.
TEST(DomainSet, NamesAgainstLists) {
  const std::string l63(63, 'x');
  const std::string longest = l63 + "." + l63 + "." + l63 + "." + std::string(61, 'y');
  const struct {
    std::string list;
    std::string name;
    bool covered;
  } cases[] = {
      {"example.com", "example.com", true},
      {"example.com", "b.a.example.com", true},
      {"example.com", "badexample.com", false},
      {"example.com", "example.com.au", false},
      {"a.example.com", "example.com", false},
      {"Example.COM.", "www.example.com", true},  // case and trailing dot of the entry
      {"example.com..", "example.com", true},
      {"  example.com\r", "example.com", true},
      {".", "any.name", true},  // the root holds every name, the root included
      {".", "", true},
      {"example.com", "", false},
      {"# only a comment\n\n", "example.com", false},
      {"x.org # why\nexample.com", "example.com", true},
      {longest, longest, true},
      {longest, "z." + longest, true},
      {longest, longest.substr(1), false},
  };
  for (const auto& c : cases) {
    DomainSet set;
    parseDomainList(c.list, "test", set);
    EXPECT_EQ(set.covers(c.name), c.covered) << c.list << " / " << c.name;
  }
}

TEST(DomainSet, UnusableNames) {
  const std::pair<std::string, const char*> cases[] = {
      {"a..b", "empty label"},
      {".example.com", "empty label"},
      {"a b.com", "white space or control character inside the name"},
      {"x\x01y", "white space or control character inside the name"},
      {std::string(64, 'a') + ".com", "label longer than 63 characters"},
      {std::string(254, 'a'), "name longer than 253 characters"},
      {"   ", "empty name"},
  };
  for (const auto& [name, problem] : cases) {
    std::string found;
    EXPECT_EQ(canonicalName(name, found), "") << name;
    EXPECT_EQ(found, problem) << name;
  }
  DomainSet set;
  EXPECT_THROW(parseDomainList("ok.com\n\na..b\n", "list", set), FilterError);
}

}  // namespace
}  // namespace vantrelo::filter
