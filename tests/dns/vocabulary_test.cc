#include "dns/vocabulary.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

namespace ns::net::dns {
namespace {

TEST(VocabularyTest, NamesAndFallbacks) {
  struct Case {
    const NameTable* table;
    const char* prefix;
    std::string pairs;  // value and name, alternating
  };
  const std::vector<Case> cases = {
      {&kRecordTypes, "TYPE",
       "0 RESERVED0 1 A 23 NSAP-PTR 53 SMIMEA 54 TYPE54 55 HIP 68 BRID 69 TYPE69 128 NXNAME "
       "264 IPN 32768 TA 32769 DLV 65535 TYPE65535"},
      {&kClasses, "CLASS", "1 IN 2 CLASS2 254 NONE 255 ANY"},
      // 16 is listed again as BADSIG; the first name wins.
      {&kResponseCodes, "RCODE", "0 NOERROR 11 DSOTYPENI 12 RCODE12 16 BADVERS 23 BADCOOKIE"},
      {&kDnssecAlgorithms, "", "9 9 13 ECDSA256 254 PRIVATEOID"},
      {&kCertificateTypes, "", "9 9 253 URI"},
      {&kSocketProtocols, "PROTO", "0 PROTO0 5 DNSCryptUDP 7 DOQ 9 PROTO9"},
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
  // Duplicate values are dropped from the tables.
  const std::vector<size_t> sizes = {kRecordTypes.size(),      kClasses.size(),
                                     kResponseCodes.size(),    kDnssecAlgorithms.size(),
                                     kCertificateTypes.size(), kSocketProtocols.size()};
  EXPECT_EQ(sizes, (std::vector<size_t>{98, 6, 20, 17, 10, 7}));
}

}  // namespace
}  // namespace ns::net::dns
