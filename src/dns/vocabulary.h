// DNS numbers to mnemonics: record types, classes, response codes, DNSSEC algorithms,
// certificate types and dnstap socket protocols. The tables are built from fixed lists during
// static initialisation (first pair wins on a duplicate number) and are read-only afterwards,
// so any thread may look them up without locking.
#pragma once

#include <cstdint>
#include <string>

namespace ns::net::dns {

class NameTable;  // defined in vocabulary.cc

extern const NameTable& kRecordTypes;
extern const NameTable& kClasses;
extern const NameTable& kResponseCodes;
extern const NameTable& kDnssecAlgorithms;
extern const NameTable& kCertificateTypes;
extern const NameTable& kSocketProtocols;

// Appends the table's text for `value`, or `fallback_prefix` followed by the value in decimal.
void append_name(std::string& out_text, const NameTable& table, uint16_t value,
                 const char* fallback_prefix);

}  // namespace ns::net::dns
