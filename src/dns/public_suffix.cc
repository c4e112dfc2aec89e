#include "dns/public_suffix.h"

#include <cctype>

#include "dns/public_suffix_rules.h"

namespace vantrelo::net::dns {

const std::vector<std::string_view>& builtin_rules() {
  static const std::vector<std::string_view> rules(std::begin(kPublicSuffixRules),
                                                   std::end(kPublicSuffixRules));
  return rules;
}

// Built during static initialisation so that print-psl and the first configuration read find
// the list ready, before any thread starts.
[[maybe_unused]] static const auto& kRulesAtStart = builtin_rules();

void DomainSuffixes::insert(SuffixSet& set, std::string_view text, bool trailing_dot) {
  std::string stored;
  stored.reserve(text.size() + 1);
  for (char c : text) {
    stored.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(c))));
  }
  if (trailing_dot) stored.push_back('.');
  set.insert(std::move(stored));
}

void DomainSuffixes::build_builtin_set(bool trailing_dot) {
  builtin_.clear();
  builtin_.reserve(builtin_rules().size());
  for (std::string_view rule : builtin_rules()) insert(builtin_, rule, trailing_dot);
}

void DomainSuffixes::add_configured_suffix(std::string_view text, bool trailing_dot) {
  insert(configured_, text, trailing_dot);
}

uint32_t DomainSuffixes::domain_offset(const char* lower_name, uint32_t length, bool use_builtin,
                                       bool use_config) const {
  if (!use_builtin && !use_config) return length;
  // An empty set is not asked: that would still hash every suffix of the name.
  const bool ask_config = use_config && !configured_.empty();
  const bool ask_builtin = use_builtin && !builtin_.empty();
  uint32_t start = 0;
  uint32_t previous = 0;
  // Suffixes are tried from the longest down to the empty text behind the last label.
  for (;;) {
    std::string_view suffix(lower_name + start, length - start);
    if (ask_config && configured_.find(suffix) != configured_.end()) return start;
    if (ask_builtin && builtin_.find(suffix) != builtin_.end()) return previous;
    if (start >= length) return previous;
    previous = start;
    while (start < length && lower_name[start] != '.') ++start;
    if (start < length) ++start;
  }
}

}  // namespace vantrelo::net::dns
