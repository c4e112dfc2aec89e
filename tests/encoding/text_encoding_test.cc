#include "encoding/text_encoding.h"

#include <gtest/gtest.h>

#include <string>

namespace ns::encoding {
namespace {

const uint8_t* bytes(const std::string& s) { return reinterpret_cast<const uint8_t*>(s.data()); }

TEST(TextEncodingTest, EncodersAppendTheirText) {
  struct Case {
    std::string data;
    std::string base32hex;
    std::string base64;
    std::string hex;
  };
  const Case cases[] = {
      {"", "", "", ""},
      {"\xff", "VS", "/w==", "FF"},
      {std::string(5, '\0'), "00000000", "AAAAAAA=", "0000000000"},
      {"f", "CO", "Zg==", "66"},
      {"fo", "CPNG", "Zm8=", "666F"},
      {"foo", "CPNMU", "Zm9v", "666F6F"},
      {"foob", "CPNMUOG", "Zm9vYg==", "666F6F62"},
      {"fooba", "CPNMUOJ1", "Zm9vYmE=", "666F6F6261"},
      {"foobar", "CPNMUOJ1E8", "Zm9vYmFy", "666F6F626172"},
      {"\xfb\xff\xbf", "VFVRU", "+/+/", "FBFFBF"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.hex);
    std::string out = ">";
    base32::base32HexEncode(out, bytes(c.data), c.data.size());
    EXPECT_EQ(out, ">" + c.base32hex);
    out = ">";
    base64::base64Encode(out, bytes(c.data), c.data.size());
    EXPECT_EQ(out, ">" + c.base64);
    out = ">";
    hex::hexEncode(out, bytes(c.data), c.data.size());
    EXPECT_EQ(out, ">" + c.hex);
  }
}

TEST(TextEncodingTest, DecodersAcceptWhatEncodersWriteAndMore) {
  struct Case {
    std::string text;
    std::string data;
  };
  const Case base64Cases[] = {
      {"", ""},
      {"Zm9vYmFy", "foobar"},
      {"Zm9v\r\n YmE=", "fooba"},  // white space anywhere
      {" Zg = = ", "f"},
      {"+/+/", "\xfb\xff\xbf"},
      {"Zh==", "f"},  // left-over bits are dropped unchecked
  };
  for (const Case& c : base64Cases) {
    std::string out = ">";
    base64::base64Decode(out, c.text.data(), c.text.size());
    EXPECT_EQ(out, ">" + c.data) << c.text;
  }
  const Case hexCases[] = {{"", ""}, {"666F6f", "foo"}, {"00fF", std::string("\0\xff", 2)}};
  for (const Case& c : hexCases) {
    std::string out = ">";
    hex::hexDecode(out, c.text.data(), c.text.size());
    EXPECT_EQ(out, ">" + c.data) << c.text;
  }
}

TEST(TextEncodingTest, MalformedTextsFailWithTheirMessage) {
  struct Case {
    std::string text;
    std::string message;
  };
  const Case base64Cases[] = {
      {"Zm9vY", "Invalid base64 length: 5"},    {"Zm9 vY", "Invalid base64 length: 5"},
      {"Z=mA", "Invalid base64 padding"},       {"Zg==Zm9v", "Invalid base64 padding"},
      {"Zm9v Z===", "Invalid base64 padding"},  {"Zm9v====", "Invalid base64 padding"},
      {"Zm9-", "Invalid base64 character: 45"}, {"Zm9\xe9", "Invalid base64 character: 233"},
  };
  for (const Case& c : base64Cases) {
    std::string out;
    try {
      base64::base64Decode(out, c.text.data(), c.text.size());
      ADD_FAILURE() << "no exception for " << c.text;
    } catch (const base64::Base64Error& e) {
      EXPECT_EQ(e.what(), c.message) << c.text;
    }
  }
  struct HexCase {
    std::string text;
    std::string message;
    std::string partial;  // the output as the failure leaves it
  };
  const HexCase hexCases[] = {
      {"ABC", "Hex string length must be even", ""},
      {"AbG0", "Invalid character in hex string: 71", std::string("\xab\0", 2)},
      {"0x12", "Invalid character in hex string: 120", std::string(2, '\0')},
      {"12\xff\xff", "Invalid character in hex string: 255", std::string("\x12\0", 2)},
  };
  for (const HexCase& c : hexCases) {
    std::string out;
    try {
      hex::hexDecode(out, c.text.data(), c.text.size());
      ADD_FAILURE() << "no exception for " << c.text;
    } catch (const hex::HexError& e) {
      EXPECT_EQ(e.what(), c.message) << c.text;
    }
    EXPECT_EQ(out, c.partial) << c.text;
  }
}

}  // namespace
}  // namespace ns::encoding
