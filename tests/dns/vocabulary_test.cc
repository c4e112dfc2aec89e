#include "dns/vocabulary.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace ns::net::dns {
namespace {

struct LookupCase {
  const NameTable* table;
  uint16_t value;
  const char* prefix;
  const char* text;
};

TEST(VocabularyTest, NamesAndFallbacks) {
  const std::vector<LookupCase> cases = {
      {&kRecordTypes, 0, "TYPE", "RESERVED0"},
      {&kRecordTypes, 1, "TYPE", "A"},
      {&kRecordTypes, 23, "TYPE", "NSAP-PTR"},
      {&kRecordTypes, 53, "TYPE", "SMIMEA"},
      {&kRecordTypes, 54, "TYPE", "TYPE54"},
      {&kRecordTypes, 55, "TYPE", "HIP"},
      {&kRecordTypes, 68, "TYPE", "BRID"},
      {&kRecordTypes, 69, "TYPE", "TYPE69"},
      {&kRecordTypes, 128, "TYPE", "NXNAME"},
      {&kRecordTypes, 264, "TYPE", "IPN"},
      {&kRecordTypes, 32768, "TYPE", "TA"},
      {&kRecordTypes, 32769, "TYPE", "DLV"},
      {&kRecordTypes, 65280, "TYPE", "TYPE65280"},
      {&kRecordTypes, 65535, "TYPE", "TYPE65535"},
      {&kClasses, 1, "CLASS", "IN"},
      {&kClasses, 2, "CLASS", "CLASS2"},
      {&kClasses, 254, "CLASS", "NONE"},
      {&kClasses, 255, "CLASS", "ANY"},
      {&kResponseCodes, 0, "RCODE", "NOERROR"},
      {&kResponseCodes, 9, "RCODE", "NOTAUTH"},
      {&kResponseCodes, 11, "RCODE", "DSOTYPENI"},
      {&kResponseCodes, 12, "RCODE", "RCODE12"},
      {&kResponseCodes, 16, "RCODE", "BADVERS"},  // listed again as BADSIG; the first wins
      {&kResponseCodes, 23, "RCODE", "BADCOOKIE"},
      {&kDnssecAlgorithms, 9, "", "9"},
      {&kDnssecAlgorithms, 13, "", "ECDSA256"},
      {&kDnssecAlgorithms, 254, "", "PRIVATEOID"},
      {&kCertificateTypes, 9, "", "9"},
      {&kCertificateTypes, 253, "", "URI"},
      {&kSocketProtocols, 0, "PROTO", "PROTO0"},
      {&kSocketProtocols, 5, "PROTO", "DNSCryptUDP"},
      {&kSocketProtocols, 7, "PROTO", "DOQ"},
      {&kSocketProtocols, 9, "PROTO", "PROTO9"},
  };
  for (const LookupCase& c : cases) {
    std::string out = "x";
    append_name(out, *c.table, c.value, c.prefix);
    EXPECT_EQ(out, std::string("x") + c.text) << c.value;
  }
}

TEST(VocabularyTest, TableSizesAfterDuplicatesDropped) {
  EXPECT_EQ(kRecordTypes.size(), 98u);
  EXPECT_EQ(kClasses.size(), 6u);
  EXPECT_EQ(kResponseCodes.size(), 20u);
  EXPECT_EQ(kDnssecAlgorithms.size(), 17u);
  EXPECT_EQ(kCertificateTypes.size(), 10u);
  EXPECT_EQ(kSocketProtocols.size(), 7u);
}

TEST(VocabularyTest, AppendDecimal) {
  for (uint32_t value : {0u, 7u, 10u, 65535u, 4294967295u}) {
    std::string out;
    append_decimal(out, value);
    EXPECT_EQ(out, std::to_string(value));
  }
}

}  // namespace
}  // namespace ns::net::dns
