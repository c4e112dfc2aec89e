// DNS numbers to mnemonics: record types, classes, response codes, DNSSEC algorithms,
// certificate types and dnstap socket protocols. The tables are built from fixed lists at compile
// time (first pair wins on a duplicate number) and are read-only constants, so any thread may look
// them up without locking, also during another module's static initialisation.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vantrelo::net::dns {

// One (number, mnemonic) pair of a table.
struct NameEntry {
  uint16_t value;
  std::string_view text;
};

// A read-only view of a table sorted by number, without duplicate numbers. It does not own the
// entries: they are compile-time constants of vocabulary.cc. Thread-safe.
class NameTable {
 public:
  constexpr NameTable(const NameEntry* entries, size_t count) : entries_(entries), count_(count) {}

  // The text for `value`, or an empty view when the table does not hold it.
  std::string_view find(uint16_t value) const;
  // The number whose text is `text` (compared byte for byte), for reading configured names.
  std::optional<uint16_t> value_of(std::string_view text) const;
  size_t size() const { return count_; }

 private:
  const NameEntry* entries_;
  size_t count_;
};

extern const NameTable& kRecordTypes;
extern const NameTable& kClasses;
extern const NameTable& kResponseCodes;
extern const NameTable& kDnssecAlgorithms;
extern const NameTable& kCertificateTypes;
extern const NameTable& kSocketProtocols;

// Appends the table's text for `value`, or `fallback_prefix` followed by the value in decimal.
void append_name(std::string& out_text, const NameTable& table, uint16_t value,
                 const char* fallback_prefix);

// Appends `value` in plain decimal without allocating a temporary.
void append_decimal(std::string& out_text, uint32_t value);

}  // namespace vantrelo::net::dns
