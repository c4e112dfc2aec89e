#include "dns/vocabulary.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

namespace vantrelo::net::dns {
namespace {

TEST(VocabularyTest, NamesAndFallbacks) {
  struct Case {
    const NameTable* table;
    const char* prefix;
    std::string pairs;  // value and name, alternating
  };
  const std::vector<Case> cases = {
      {&kRecordTypes, "TYPE",
       "0 RESERVED0 23 NSAP-PTR 54 TYPE54 69 TYPE69 128 NXNAME 32769 DLV 65535 TYPE65535"},
      {&kClasses, "CLASS", "1 IN 2 CLASS2 254 NONE 255 ANY"},
      // 16 is listed again as BADSIG; the first name wins.
      {&kResponseCodes, "RCODE", "0 NOERROR 11 DSOTYPENI 12 RCODE12 16 BADVERS 23 BADCOOKIE"},
      {&kDnssecAlgorithms, "", "9 9 13 ECDSA256 254 PRIVATEOID"},
      {&kSocketProtocols, "PROTO", "0 PROTO0 4 DOH 5 DNSCryptUDP 6 DNSCryptTCP 7 DOQ 9 PROTO9"},
  };
  for (const Case& c : cases) {
    std::istringstream pairs(c.pairs);
    uint16_t value = 0;
    for (std::string name; pairs >> value >> name;) {
      std::string out = "x";
      append_name(out, *c.table, value, c.prefix);
      EXPECT_EQ(out, "x" + name);
    }
  }
}

}  // namespace
}  // namespace vantrelo::net::dns
