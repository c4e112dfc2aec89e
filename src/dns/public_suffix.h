// The domain of a name: the registered part under a public suffix, or a configured suffix.
//
// The built-in rules are the ICANN section of the Public Suffix List, compiled into the program.
// A DomainSuffixes object owns the two lookup sets in the stored form (lower case, with a
// trailing "." in the trailing-dot form). It is filled while the configuration is read and only
// read afterwards, so any number of forwarder threads may call domain_offset at once; filling is
// not thread-safe.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace vantrelo::net::dns {

// The built-in rule list in the list's own order, exactly as written ("ac", "com.ac", ... "*.ck",
// "!www.ck" ...), for print-psl.
const std::vector<std::string_view>& builtin_rules();

class DomainSuffixes {
 public:
  // Empties the built-in set and inserts every built-in rule in the stored form.
  void build_builtin_set(bool trailing_dot);
  // Inserts one configured suffix in the stored form. The caller has already removed trailing
  // dots and refused an empty suffix.
  void add_configured_suffix(std::string_view text, bool trailing_dot);

  // Offset in `lower_name` at which its domain starts; `length` when neither set is used. Wildcard
  // and exception rules match only as exact texts, which no printed name is. Allocates nothing.
  uint32_t domain_offset(const char* lower_name, uint32_t length, bool use_builtin,
                         bool use_config) const;

  size_t builtin_size() const { return builtin_.size(); }
  size_t configured_size() const { return configured_.size(); }

 private:
  // A set of texts searched with a string_view into the name, without building a string. Every
  // suffix of every printed name is looked up, most of them in vain, so a lookup is one hash and
  // a short walk over a flat table of stored hashes: no division, no pointer chasing.
  class SuffixSet {
   public:
    void clear();
    void reserve(size_t count);
    void insert(std::string text);
    bool contains(std::string_view text) const;
    size_t size() const { return texts_.size(); }
    bool empty() const { return texts_.empty(); }

   private:
    struct Slot {
      size_t hash = 0;
      uint32_t text = 0;  // 1 + index into texts_; 0 marks a free slot
    };
    // Grows slots_ so that `count` texts leave it at most half full.
    void makeRoom(size_t count);
    // Puts texts_[index] into a free slot of slots_, which has room.
    void place(size_t hash, uint32_t index);

    std::vector<std::string> texts_;
    std::vector<Slot> slots_;  // a power of two long, at most half full
  };

  static void insert(SuffixSet& set, std::string_view text, bool trailing_dot);

  SuffixSet builtin_;
  SuffixSet configured_;
};

}  // namespace vantrelo::net::dns
