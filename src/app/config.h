// The configuration file as an ordered list of key and value entries.
//
// Lines hold "key value words # comment"; an indented line continues the entry above it, a blank
// line ends it, and a comment line may stand between an entry and its continuations. There is no
// '=', no quoting and no escape. AgentConfig owns its entries; it is filled once and then only
// read, so concurrent lookups are safe, but filling it is not.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/error.h"

namespace vantrelo::app::config {

NS_DEFINE_ERROR(ConfigError);

struct ConfigEntry {
  std::string key;
  std::string value;
};

class AgentConfig {
 public:
  // Appends the entries of the file; throws ConfigError when it cannot be opened.
  void readFile(const std::string& path);
  // Appends the entries of a configuration text.
  void readText(std::string_view text);

  // The value of the first entry with this key (compared byte for byte), if any.
  std::optional<std::string> lookup(std::string_view key) const;
  // The values of every entry with this key, in file order.
  std::vector<std::string> lookupAll(std::string_view key) const;

  const std::vector<ConfigEntry>& entries() const { return entries_; }

 private:
  void addLine(std::string_view line);
  void flushPending();

  std::vector<ConfigEntry> entries_;
  std::string pending_;
};

}  // namespace vantrelo::app::config
