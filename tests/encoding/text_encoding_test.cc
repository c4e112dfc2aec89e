#include "encoding/text_encoding.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "test_helpers.h"

namespace vantrelo::encoding {
namespace {

using test::b;

const uint8_t* bytes(const std::string& s) { return reinterpret_cast<const uint8_t*>(s.data()); }

// Encoders append their text; the decoders give the data back.
TEST(TextEncodingTest, EncodersAndDecodersRoundTrip) {
  struct Case {
    std::string data, base32hex, base64, hex;
  };
  const Case cases[] = {{"", "", "", ""},
                        {"f", "CO", "Zg==", "66"},
                        {"foo", "CPNMU", "Zm9v", "666F6F"},
                        {"fooba", "CPNMUOJ1", "Zm9vYmE=", "666F6F6261"},
                        {"foobar", "CPNMUOJ1E8", "Zm9vYmFy", "666F6F626172"},
                        {"\xfb\xff\xbf", "VFVRU", "+/+/", "FBFFBF"}};
  for (const Case& c : cases) {
    std::string b32 = ">", b64 = ">", hex = ">", b64Data = ">", hexData = ">";
    base32::base32HexEncode(b32, bytes(c.data), c.data.size());
    base64::base64Encode(b64, bytes(c.data), c.data.size());
    hex::hexEncode(hex, bytes(c.data), c.data.size());
    base64::base64Decode(b64Data, c.base64.data(), c.base64.size());
    hex::hexDecode(hexData, c.hex.data(), c.hex.size());
    EXPECT_EQ(b32 + b64 + hex, ">" + c.base32hex + ">" + c.base64 + ">" + c.hex);
    EXPECT_EQ(b64Data + hexData, ">" + c.data + ">" + c.data);
  }
}

// What the decoders append behind ">", or their failure.
TEST(TextEncodingTest, DecodersTakeMoreThanTheEncodersWriteAndNameWhatTheyRefuse) {
  enum Codec { kBase64, kHex };
  const std::tuple<Codec, std::string, std::string> cases[] = {
      {kBase64, "Zm9v\r\n YmE=", ">fooba"},  // white space anywhere
      {kBase64, " Zg = = ", ">f"},
      {kBase64, "Zh==", ">f"},  // left-over bits are dropped unchecked
      {kBase64, "Zm9vY", "Invalid base64 length: 5"},
      {kBase64, "Z=mA", "Invalid base64 padding"},
      {kBase64, "Zm9-", "Invalid base64 character: 45"},
      {kBase64, "Zm9\xe9", "Invalid base64 character: 233"},
      {kHex, "00fF", b(">\0\xff")},
      {kHex, "ABC", "Hex string length must be even"},
      {kHex, "AbG0", "Invalid character in hex string: 71"}};
  for (const auto& [codec, text, expected] : cases) {
    std::string out = ">";
    const std::string error =
        codec == kBase64
            ? test::errorOf<base64::Base64Error>(
                  [&] { base64::base64Decode(out, text.data(), text.size()); })
            : test::errorOf<hex::HexError>([&] { hex::hexDecode(out, text.data(), text.size()); });
    EXPECT_EQ(error.empty() ? out : error, expected) << text;
  }
}

}  // namespace
}  // namespace vantrelo::encoding
