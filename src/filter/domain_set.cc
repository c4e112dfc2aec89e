#include "filter/domain_set.h"

#include <cstring>

namespace vantrelo::filter {

namespace {

// FNV-1a over the name's bytes from its last byte towards its first: after the first byte of a
// label has been mixed in, the hash is that of the suffix starting at the label. Insertion and
// lookup walk the same way, so they agree on every suffix.
constexpr uint64_t kHashStart = 0xcbf29ce484222325ULL;
constexpr uint64_t kHashPrime = 0x100000001b3ULL;

constexpr size_t kInitialSlots = 64;

// FNV leaves the low bits weak for short inputs; spread the hash before it picks a slot.
inline uint64_t spread(uint64_t h) {
  h ^= h >> 33;
  h *= 0xff51afd7ed558ccdULL;
  h ^= h >> 33;
  return h;
}

inline uint32_t tagOf(uint64_t spreadHash) { return static_cast<uint32_t>(spreadHash >> 32); }

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

}  // namespace

std::string canonicalName(std::string_view written, std::string& problem) {
  problem.clear();
  while (!written.empty() && isBlank(written.front())) written.remove_prefix(1);
  while (!written.empty() && isBlank(written.back())) written.remove_suffix(1);
  const bool hadText = !written.empty();
  while (!written.empty() && written.back() == '.') written.remove_suffix(1);
  if (written.empty()) {
    if (!hadText) problem = "empty name";
    return {};
  }
  if (written.size() > kMaxNameText) {
    problem = "name longer than " + std::to_string(kMaxNameText) + " characters";
    return {};
  }
  std::string out(written);
  size_t labelStart = 0;
  for (size_t i = 0; i <= out.size(); ++i) {
    if (i == out.size() || out[i] == '.') {
      if (i == labelStart) {
        problem = "empty label";
        return {};
      }
      if (i - labelStart > kMaxLabel) {
        problem = "label longer than " + std::to_string(kMaxLabel) + " characters";
        return {};
      }
      labelStart = i + 1;
      continue;
    }
    const unsigned char c = static_cast<unsigned char>(out[i]);
    if (c <= ' ' || c == 0x7F) {
      problem = "white space or control character inside the name";
      return {};
    }
    if (c >= 'A' && c <= 'Z') out[i] = static_cast<char>(c - 'A' + 'a');
  }
  return out;
}

void DomainSet::add(std::string_view canonical) {
  if (canonical.empty()) {
    hasRoot_ = true;
    return;
  }
  uint64_t hash = kHashStart;
  for (size_t i = canonical.size(); i-- > 0;) {
    hash = (hash ^ static_cast<unsigned char>(canonical[i])) * kHashPrime;
  }
  hash = spread(hash);
  if (!slots_.empty() && holds(hash, canonical.data(), canonical.size())) return;
  if ((entries_.size() + 1) * 2 > slots_.size()) grow();
  entries_.push_back(
      {static_cast<uint32_t>(names_.size()), static_cast<uint32_t>(canonical.size())});
  names_.append(canonical);
  insert(hash, static_cast<uint32_t>(entries_.size()));
}

void DomainSet::grow() {
  std::vector<Slot> old;
  old.swap(slots_);
  slots_.assign(old.empty() ? kInitialSlots : old.size() * 2, Slot{0, 0});
  for (uint32_t index = 1; index <= entries_.size(); ++index) {
    const Entry& entry = entries_[index - 1];
    uint64_t hash = kHashStart;
    for (size_t i = entry.length; i-- > 0;) {
      hash = (hash ^ static_cast<unsigned char>(names_[entry.offset + i])) * kHashPrime;
    }
    insert(spread(hash), index);
  }
}

void DomainSet::insert(uint64_t hash, uint32_t entry) {
  const size_t mask = slots_.size() - 1;
  for (size_t at = hash & mask;; at = (at + 1) & mask) {
    if (slots_[at].entry == 0) {
      slots_[at] = Slot{tagOf(hash), entry};
      return;
    }
  }
}

bool DomainSet::holds(uint64_t hash, const char* text, size_t length) const {
  const size_t mask = slots_.size() - 1;
  const uint32_t tag = tagOf(hash);
  for (size_t at = hash & mask;; at = (at + 1) & mask) {
    const Slot& slot = slots_[at];
    if (slot.entry == 0) return false;
    if (slot.tag != tag) continue;
    const Entry& entry = entries_[slot.entry - 1];
    if (entry.length == length && std::memcmp(names_.data() + entry.offset, text, length) == 0) {
      return true;
    }
  }
}

bool DomainSet::covers(std::string_view canonical) const {
  if (hasRoot_) return true;
  if (slots_.empty() || canonical.empty()) return false;
  uint64_t hash = kHashStart;
  for (size_t i = canonical.size(); i-- > 0;) {
    hash = (hash ^ static_cast<unsigned char>(canonical[i])) * kHashPrime;
    if (i == 0 || canonical[i - 1] == '.') {
      if (holds(spread(hash), canonical.data() + i, canonical.size() - i)) return true;
    }
  }
  return false;
}

void parseDomainList(std::string_view text, const std::string& source, DomainSet& set) {
  std::string problem;
  size_t lineNumber = 0;
  while (!text.empty()) {
    ++lineNumber;
    const size_t end = text.find('\n');
    std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    // '#' never occurs in a host name, so it starts a comment wherever it stands.
    line = line.substr(0, line.find('#'));
    size_t first = 0;
    while (first < line.size() && isBlank(line[first])) ++first;
    if (first == line.size()) continue;
    const std::string name = canonicalName(line, problem);
    if (!problem.empty()) {
      throw FilterError("Invalid name in " + source + " line " + std::to_string(lineNumber) + ": " +
                        problem + ": " + std::string(line.substr(first)));
    }
    set.add(name);
  }
}

}  // namespace vantrelo::filter
