#include "app/config.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace ns::app::config {
namespace {

using Entries = std::vector<std::pair<std::string, std::string>>;

Entries entriesOf(const std::string& text) {
  AgentConfig config;
  config.readText(text);
  Entries entries;
  for (const ConfigEntry& entry : config.entries()) entries.emplace_back(entry.key, entry.value);
  return entries;
}

TEST(ConfigTest, FileSyntax) {
  struct Case {
    const char* name;
    const char* text;
    Entries expected;
  };
  const Case cases[] = {
      {"empty", "", {}},
      {"comments only", "# a\n   # b\n\n", {}},
      {"key and words", "key value words # note\n", {{"key", "value words"}}},
      {"key alone", "key\n", {{"key", ""}}},
      {"trailing blanks before comment",
       "listener ipv4 0.0.0.0 6000   # local",
       {{"listener", "ipv4 0.0.0.0 6000"}}},
      {"hash inside a value", "message-hostname dns#1 x\n", {{"message-hostname", "dns"}}},
      {"hash right after key", "key#value\n", {{"key", ""}}},
      {"inner blanks kept", "k a \t b\n", {{"k", "a \t b"}}},
      {"continuation",
       "forwarder ipv4 192.0.2.1 6000\n    batch-size=50\n",
       {{"forwarder", "ipv4 192.0.2.1 6000 batch-size=50"}}},
      {"comment between entry and continuation",
       "forwarder ipv4 h 1\n# why\n\tbatch-size=5\n",
       {{"forwarder", "ipv4 h 1 batch-size=5"}}},
      {"blank line ends entry; indented line starts a new one",
       "a 1\n\n   b 2\n",
       {{"a", "1"}, {"b", "2"}}},
      {"indented first line", "  a 1\n  b 2\n", {{"a", "1 b 2"}}},
      {"CRLF line ends", "a 1\r\n  2\r\n\r\nb\r\n", {{"a", "1 2"}, {"b", ""}}},
      {"no final line end", "a 1\nb 2", {{"a", "1"}, {"b", "2"}}},
      {"duplicates kept in order", "k 1\nk 2\n", {{"k", "1"}, {"k", "2"}}},
      {"continuation of a comment text", "a # x\n  y\n", {{"a", ""}}},
      {"whitespace-only line with CR", "a 1\n \r\n  b\n", {{"a", "1"}, {"b", ""}}},
  };
  for (const Case& c : cases) EXPECT_EQ(entriesOf(c.text), c.expected) << c.name;
}

TEST(ConfigTest, LookupTakesTheFirstAndLookupAllEveryOccurrence) {
  AgentConfig config;
  config.readText(
      "message-format json\nMessage-Format dnstap\nmessage-format querylog\n"
      "domain-suffix a\nempty\ndomain-suffix b\n");
  EXPECT_EQ(config.lookup("message-format"), "json");
  EXPECT_EQ(config.lookup("Message-Format"), "dnstap");
  EXPECT_EQ(config.lookup("empty"), "");
  EXPECT_FALSE(config.lookup("missing").has_value());
  EXPECT_EQ(config.lookupAll("domain-suffix"), (std::vector<std::string>{"a", "b"}));
  EXPECT_TRUE(config.lookupAll("missing").empty());
}

TEST(ConfigTest, MissingFileNamesThePathAndTheReason) {
  AgentConfig config;
  try {
    config.readFile("no/such/dir/vantrelo.conf");
    FAIL() << "opened a missing file";
  } catch (const ConfigError& e) {
    const std::string message = e.what();
    const std::string prefix = "ifstream(no/such/dir/vantrelo.conf) failed to open: ";
    EXPECT_EQ(message.substr(0, prefix.size()), prefix);
    EXPECT_GT(message.size(), prefix.size());
  }
}

}  // namespace
}  // namespace ns::app::config
