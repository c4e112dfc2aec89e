// A set of domain names that answers "is this name, or a domain it lies under, listed?".
//
// Names are kept in one canonical form: ASCII letters lower-cased, labels joined by '.', no
// trailing dot; the root is the empty name. A lookup hashes every label-boundary suffix of the
// asked name in one right-to-left pass and probes an open-addressing table once per suffix, so
// its cost grows with the name's labels, not with the set's size (100,000 names and more).
//
// Ownership: the set owns its names and table. Thread-safety: filled on one thread, then only
// read; concurrent lookups are safe.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "base/error.h"

namespace vantrelo::filter {

NS_DEFINE_ERROR(FilterError);

// Longest name text accepted, without the trailing dot (a 255-byte wire name).
inline constexpr size_t kMaxNameText = 253;
inline constexpr size_t kMaxLabel = 63;

// Turns one written name into its canonical form. Trailing dots and surrounding white space go;
// "." alone is the root. Returns an empty text and sets `problem` when the name is unusable.
std::string canonicalName(std::string_view written, std::string& problem);

class DomainSet {
 public:
  // Adds a canonical name; a name already held is ignored.
  void add(std::string_view canonical);
  size_t size() const { return entries_.size() + (hasRoot_ ? 1 : 0); }
  bool empty() const { return size() == 0; }

  // True when `canonical` (lower-case, no trailing dot) equals a listed name or lies under one.
  bool covers(std::string_view canonical) const;

 private:
  struct Entry {
    uint32_t offset;  // into names_
    uint32_t length;
  };
  struct Slot {
    uint32_t tag;    // high bits of the suffix hash, to skip most foreign slots unread
    uint32_t entry;  // index into entries_ plus one; 0 marks an empty slot
  };

  bool holds(uint64_t hash, const char* text, size_t length) const;
  void grow();
  void insert(uint64_t hash, uint32_t entry);

  std::string names_;  // every name's text, back to back
  std::vector<Entry> entries_;
  std::vector<Slot> slots_;  // a power of two in size, at most half full
  bool hasRoot_ = false;
};

// Reads a list text of one name per line into `set`. '#' starts a comment that runs to the line
// end; blank lines are skipped; white space around a name (a '\r' before the line end too) is
// ignored. Throws
// FilterError naming `source`, the line number and the problem for an unusable line.
void parseDomainList(std::string_view text, const std::string& source, DomainSet& set);

}  // namespace vantrelo::filter
