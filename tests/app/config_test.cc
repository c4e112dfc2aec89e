#include "app/config.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace vantrelo::app::config {
namespace {

// The entries read from `text`, each as "key=value;".
std::string entriesOf(const std::string& text) {
  AgentConfig config;
  config.readText(text);
  std::string entries;
  for (const ConfigEntry& entry : config.entries()) entries += entry.key + "=" + entry.value + ";";
  return entries;
}

TEST(ConfigTest, FileSyntax) {
  const struct {
    const char* text;
    const char* entries;
  } cases[] = {
      {"", ""},
      {"# a\n   # b\n\nkey\n", "key=;"},
      {"key value \t words   # note\n", "key=value \t words;"},
      {"message-hostname dns#1 x\n", "message-hostname=dns;"},  // a hash starts a comment
      {"forwarder ipv4 192.0.2.1 6000\n    batch-size=50\n",
       "forwarder=ipv4 192.0.2.1 6000 batch-size=50;"},
      // A blank line ends an entry, so the indented line after it starts a new one.
      {"a 1\n\n   b 2\n", "a=1;b=2;"},
      {"  a 1\n  b 2\n", "a=1 b 2;"},
      {"a 1\r\n  2\r\n\r\nb\r\n", "a=1 2;b=;"},
      {"a # x\n  y\n", "a=;"},  // continuing the comment, not the value
  };
  for (const auto& c : cases) EXPECT_EQ(entriesOf(c.text), c.entries) << c.text;
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

}  // namespace
}  // namespace vantrelo::app::config
