#include "filter/filter_config.h"

#include <fstream>
#include <iterator>
#include <optional>

#include "base/error.h"
#include "dns/vocabulary.h"

namespace vantrelo::filter {

namespace {

constexpr std::string_view kTypePrefix = "TYPE";

std::string specified(const char* key, const std::string& value) {
  return std::string(key) + " specified in config file: " + value;
}

FilterError invalid(const char* key, const std::string& value, const std::string& why = {}) {
  return FilterError("Invalid " + specified(key, value) + (why.empty() ? "" : " (" + why + ")"));
}

// Plain decimal digits only, unlike the atoi reading of other keys: a typo such as "/24" must
// not quietly read as 0.
std::optional<uint32_t> digits(std::string_view text, uint32_t maximum) {
  if (text.empty() || text.size() > 10) return std::nullopt;
  uint64_t value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
    value = value * 10 + static_cast<uint64_t>(c - '0');
  }
  if (value > maximum) return std::nullopt;
  return static_cast<uint32_t>(value);
}

std::optional<std::string> first(const KeyLookup& lookup, const char* key) {
  std::vector<std::string> values = lookup(key);
  if (values.empty()) return std::nullopt;
  return std::move(values.front());
}

std::string readWholeFile(const char* key, const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    throw FilterError("Cannot read " + std::string(key) + " " + path + ": " +
                      error::cErrorText(error::lastCError()));
  }
  std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  if (file.bad()) throw FilterError("Cannot read " + std::string(key) + " " + path);
  return text;
}

// Returns true when the keys were present at all.
bool readDomains(const KeyLookup& lookup, const char* nameKey, const char* fileKey,
                 DomainSet& set) {
  bool present = false;
  std::string problem;
  for (const std::string& value : lookup(nameKey)) {
    present = true;
    const std::string name = canonicalName(value, problem);
    if (!problem.empty()) throw invalid(nameKey, value, problem);
    set.add(name);
  }
  for (const std::string& path : lookup(fileKey)) {
    present = true;
    parseDomainList(readWholeFile(fileKey, path), std::string(fileKey) + " " + path, set);
  }
  return present;
}

void readTypes(const KeyLookup& lookup, std::bitset<65536>& types) {
  constexpr const char* kKey = "filter-drop-type";
  for (const std::string& value : lookup(kKey)) {
    size_t at = 0;
    bool any = false;
    while (at < value.size()) {
      const size_t end = std::min(value.find_first_of(" \t", at), value.size());
      if (end > at) {
        uint16_t type = 0;
        if (!parseQueryType(std::string_view(value).substr(at, end - at), type)) {
          throw invalid(kKey, value, "unknown type " + value.substr(at, end - at));
        }
        types.set(type);
        any = true;
      }
      at = end + 1;
    }
    if (!any) throw invalid(kKey, value, "no type given");
  }
}

void readPrivacy(const KeyLookup& lookup, PrivacySettings& privacy) {
  const std::optional<std::string> mode = first(lookup, "filter-client-address");
  if (!mode || *mode == "keep") return;
  if (*mode == "truncate") {
    privacy.mode = AddressMode::kTruncate;
    if (auto text = first(lookup, "filter-client-ipv4-prefix")) {
      const auto bits = digits(*text, kMaxIpv4Prefix);
      if (!bits) throw invalid("filter-client-ipv4-prefix", *text, "0 to 32 bits");
      privacy.ipv4Prefix = *bits;
    }
    if (auto text = first(lookup, "filter-client-ipv6-prefix")) {
      const auto bits = digits(*text, kMaxIpv6Prefix);
      if (!bits) throw invalid("filter-client-ipv6-prefix", *text, "0 to 128 bits");
      privacy.ipv6Prefix = *bits;
    }
    return;
  }
  if (*mode == "pseudonym") {
    privacy.mode = AddressMode::kPseudonym;
    const std::optional<std::string> path = first(lookup, "filter-client-key-file");
    if (!path || path->empty()) {
      throw FilterError("Missing filter-client-key-file for filter-client-address pseudonym");
    }
    privacy.key = readWholeFile("filter-client-key-file", *path);
    if (privacy.key.size() < kMinKeyBytes) {
      throw invalid("filter-client-key-file", *path,
                    "the key holds " + std::to_string(privacy.key.size()) + " bytes, at least " +
                        std::to_string(kMinKeyBytes) + " are needed");
    }
    return;
  }
  throw FilterError("Unknown " + specified("filter-client-address", *mode));
}

}  // namespace

bool parseQueryType(std::string_view word, uint16_t& type) {
  std::string upper(word);
  for (char& c : upper) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  }
  std::string_view number = upper;
  if (number.substr(0, kTypePrefix.size()) == kTypePrefix) number.remove_prefix(kTypePrefix.size());
  if (auto value = digits(number, 65535)) {
    type = static_cast<uint16_t>(*value);
    return true;
  }
  if (auto value = net::dns::kRecordTypes.value_of(upper)) {
    type = *value;
    return true;
  }
  return false;
}

std::shared_ptr<const FilterSettings> readFilterSettings(const KeyLookup& lookup) {
  auto settings = std::make_shared<FilterSettings>();
  readDomains(lookup, "filter-drop-domain", "filter-drop-domain-file", settings->dropDomains);
  settings->keepList =
      readDomains(lookup, "filter-keep-domain", "filter-keep-domain-file", settings->keepDomains);
  // An empty keep list would drop every record: surely a file that lost its names.
  if (settings->keepList && settings->keepDomains.empty()) {
    throw FilterError("No name in filter-keep-domain-file: the keep list would drop every record");
  }
  readTypes(lookup, settings->dropTypes);
  if (auto text = first(lookup, "filter-sample-one-in")) {
    const auto n = digits(*text, UINT32_MAX);
    if (!n || *n < 1) throw invalid("filter-sample-one-in", *text, "a whole number of 1 or more");
    settings->sampleOneIn = *n;
  }
  readPrivacy(lookup, settings->privacy);
  if (!settings->any()) return nullptr;
  return settings;
}

}  // namespace vantrelo::filter
