// Parses arbitrary bytes as a DNS message in both name forms and looks up the domain of every
// name read, which must lie inside the name.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "dns/dns_message.h"
#include "dns/public_suffix.h"

namespace {

const vantrelo::net::dns::DomainSuffixes& suffixes(bool trailing_dot) {
  static const auto build = [](bool dot) {
    vantrelo::net::dns::DomainSuffixes s;
    s.build_builtin_set(dot);
    s.add_configured_suffix("corp.example", dot);
    return s;
  };
  static const vantrelo::net::dns::DomainSuffixes with_dot = build(true);
  static const vantrelo::net::dns::DomainSuffixes without_dot = build(false);
  return trailing_dot ? with_dot : without_dot;
}

void check_domain(const vantrelo::net::dns::DomainSuffixes& s, const std::string& name) {
  auto length = static_cast<uint32_t>(name.size());
  for (int mode = 0; mode < 4; ++mode) {
    if (s.domain_offset(name.data(), length, mode & 1, mode & 2) > length) std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static vantrelo::net::dns::DnsMessage message;  // reused, as the formatters do
  for (bool trailing_dot : {true, false}) {
    vantrelo::net::dns::parse(data, static_cast<uint32_t>(size), message, trailing_dot);
    const auto& s = suffixes(trailing_dot);
    check_domain(s, message.qname_lower);
    for (const auto* section : {&message.answers, &message.authority, &message.additional}) {
      for (const auto& record : *section) check_domain(s, record.name_lower);
    }
  }
  return 0;
}
