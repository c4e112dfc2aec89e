#include "dns/public_suffix.h"

#include <cctype>
#include <functional>
#include <utility>

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

namespace {

size_t hashText(std::string_view text) { return std::hash<std::string_view>{}(text); }

}  // namespace

void DomainSuffixes::SuffixSet::clear() {
  texts_.clear();
  slots_.clear();
}

void DomainSuffixes::SuffixSet::reserve(size_t count) {
  texts_.reserve(count);
  makeRoom(count);
}

void DomainSuffixes::SuffixSet::makeRoom(size_t count) {
  size_t wanted = 16;
  while (wanted < 2 * count) wanted *= 2;
  if (wanted <= slots_.size()) return;
  slots_.assign(wanted, Slot());
  for (uint32_t index = 0; index < texts_.size(); ++index) {
    place(hashText(texts_[index]), index);
  }
}

void DomainSuffixes::SuffixSet::place(size_t hash, uint32_t index) {
  const size_t mask = slots_.size() - 1;
  size_t at = hash & mask;
  while (slots_[at].text != 0) at = (at + 1) & mask;
  slots_[at] = {hash, index + 1};
}

void DomainSuffixes::SuffixSet::insert(std::string text) {
  if (contains(text)) return;
  makeRoom(texts_.size() + 1);
  texts_.push_back(std::move(text));
  place(hashText(texts_.back()), static_cast<uint32_t>(texts_.size() - 1));
}

bool DomainSuffixes::SuffixSet::contains(std::string_view text) const {
  if (slots_.empty()) return false;
  const size_t hash = hashText(text);
  const size_t mask = slots_.size() - 1;
  for (size_t at = hash & mask; slots_[at].text != 0; at = (at + 1) & mask) {
    if (slots_[at].hash == hash && texts_[slots_[at].text - 1] == text) return true;
  }
  return false;
}

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
    if (ask_config && configured_.contains(suffix)) return start;
    if (ask_builtin && builtin_.contains(suffix)) return previous;
    if (start >= length) return previous;
    previous = start;
    while (start < length && lower_name[start] != '.') ++start;
    if (start < length) ++start;
  }
}

}  // namespace vantrelo::net::dns
