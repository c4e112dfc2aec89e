#include "filter/domain_set.h"

#include <gtest/gtest.h>

#include <string>

namespace vantrelo::filter {
namespace {

// The asked names are canonical already, as the question reader hands them over. Exact names,
// case, trailing dots and comment lines of list files run end to end in the relay tests.
TEST(DomainSet, NamesAgainstLists) {
  const std::string l63(63, 'x');
  const std::string longest = l63 + "." + l63 + "." + l63 + "." + std::string(61, 'y');
  const struct {
    std::string list;
    std::string name;
    bool covered;
  } cases[] = {
      {"example.com", "b.a.example.com", true},
      {"example.com", "badexample.com", false},
      {"example.com", "example.com.au", false},
      {"  example.com.\r", "example.com", true},
      {".", "any.name", true},  // the root holds every name, the root included
      {"x.org # why\nexample.com", "example.com", true},
      {longest, longest, true},
      {longest, "z." + longest, true},
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
      {"a b.com", "white space or control character inside the name"},
      {std::string(64, 'a') + ".com", "label longer than 63 characters"},
      {std::string(254, 'a'), "name longer than 253 characters"},
      {"   ", "empty name"},
  };
  for (const auto& [name, problem] : cases) {
    std::string found;
    EXPECT_EQ(canonicalName(name, found), "") << name;
    EXPECT_EQ(found, problem) << name;
  }
}

}  // namespace
}  // namespace vantrelo::filter
