// Reads the filter-* configuration keys into the agent-wide FilterSettings.
//
// The keys, in the order they are read (which decides the error reported first):
//   filter-drop-domain <name>           repeatable, one name per line
//   filter-drop-domain-file <path>      repeatable, a file of one name per line
//   filter-keep-domain <name>           repeatable
//   filter-keep-domain-file <path>      repeatable
//   filter-drop-type <type> ...         repeatable, names as the query log prints them or numbers
//   filter-sample-one-in <n>            keep one transaction in n (n >= 1)
//   filter-client-address <mode>        keep, truncate or pseudonym
//   filter-client-ipv4-prefix <bits>    truncate only, 0 to 32, default 24
//   filter-client-ipv6-prefix <bits>    truncate only, 0 to 128, default 56
//   filter-client-key-file <path>       pseudonym only, the key's bytes (at least 16)
// Relative paths are taken from the configuration file's directory, the agent's working
// directory. Stateless; the caller owns the result.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "filter/edge_filter.h"

namespace vantrelo::filter {

// The values of every entry with the key, in file order.
using KeyLookup = std::function<std::vector<std::string>(const char* key)>;

inline constexpr size_t kMinKeyBytes = 16;

// Null when no rule is set, so that a listener then neither builds nor calls a filter. Throws
// FilterError at the first bad value, with the key and the value as written.
std::shared_ptr<const FilterSettings> readFilterSettings(const KeyLookup& lookup);

// A query type as the query log prints it ("PTR", "TYPE65", any letter case) or its number.
// Returns false when the word is neither.
bool parseQueryType(std::string_view word, uint16_t& type);

}  // namespace vantrelo::filter
