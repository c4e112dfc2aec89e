#include "filter/client_address.h"

#include <gtest/gtest.h>

#include <string>

#include "encoding/dnstap_message.h"
#include "encoding/ip.h"
#include "filter/sha256.h"
#include "wire_builder.h"

namespace vantrelo::filter {
namespace {

using format::testing::ipBytes;

std::string hex(const uint8_t* bytes, size_t size) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  for (size_t i = 0; i < size; ++i) {
    out += kDigits[bytes[i] >> 4];
    out += kDigits[bytes[i] & 15];
  }
  return out;
}

std::string text(const std::string& address) {
  std::string out;
  if (address.size() == 4)
    encoding::ip::formatIpv4(out, reinterpret_cast<const uint8_t*>(address.data()));
  if (address.size() == 16)
    encoding::ip::formatIpv6(out, reinterpret_cast<const uint8_t*>(address.data()));
  return out;
}

TEST(Sha256, KnownAnswers) {
  const Sha256Digest empty = Sha256::digest("");
  EXPECT_EQ(hex(empty.data(), 32),
            "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  const Sha256Digest twoBlocks =
      Sha256::digest("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq");
  EXPECT_EQ(hex(twoBlocks.data(), 32),
            "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
  // HMAC test cases with a short key and with a key longer than a block.
  const std::string data = "what do ya want for nothing?";
  const Sha256Digest shortKey =
      HmacSha256("Jefe").mac(reinterpret_cast<const uint8_t*>(data.data()), data.size());
  EXPECT_EQ(hex(shortKey.data(), 32),
            "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843");
  const std::string longData = "Test Using Larger Than Block-Size Key - Hash Key First";
  const Sha256Digest longKey =
      HmacSha256(std::string(131, '\xaa'))
          .mac(reinterpret_cast<const uint8_t*>(longData.data()), longData.size());
  EXPECT_EQ(hex(longKey.data(), 32),
            "60e431591ee0b67f0d8a26aacbf5b77f8e0bc6213728c5140546040f0ee37f54");
}

TEST(AddressPrivacy, TruncatesAtEveryPrefixEdge) {
  struct Case {
    uint32_t v4;
    uint32_t v6;
    const char* address;
    uint64_t family;
    const char* expected;
  } cases[] = {
      {0, 0, "192.0.2.255", 1, "0.0.0.0"},
      {8, 0, "192.0.2.255", 1, "192.0.0.0"},
      {24, 0, "192.0.2.255", 1, "192.0.2.0"},
      {32, 0, "192.0.2.255", 1, "192.0.2.255"},
      {0, 0, "2001:db8:aaaa:bbbb:cccc:dddd:eeee:ffff", 2, "::"},
      {0, 56, "2001:db8:aaaa:bbbb:cccc:dddd:eeee:ffff", 2, "2001:db8:aaaa:bb00::"},
      {0, 64, "2001:db8:aaaa:bbbb:cccc:dddd:eeee:ffff", 2, "2001:db8:aaaa:bbbb::"},
      {0, 128, "2001:db8:aaaa:bbbb:cccc:dddd:eeee:ffff", 2,
       "2001:db8:aaaa:bbbb:cccc:dddd:eeee:ffff"},
      // IPv4 carried in 16 bytes keeps the IPv4 length, mapped or by family.
      {24, 0, "::ffff:192.0.2.77", 2, "::ffff:c000:200"},
      {8, 128, "::192.0.2.77", 1, "::c000:0"},
  };
  for (const Case& c : cases) {
    AddressPrivacy privacy({AddressMode::kTruncate, c.v4, c.v6, ""});
    std::string address = ipBytes(c.address);
    const std::string before = address;
    const bool changed = privacy.apply(address, c.family);
    EXPECT_EQ(text(address), c.expected) << c.address << " /" << c.v4 << " /" << c.v6;
    EXPECT_EQ(changed, address != before) << c.address;
  }
  AddressPrivacy privacy({AddressMode::kTruncate, 24, 56, ""});
  std::string empty, odd = "\x01\x02\x03";
  EXPECT_FALSE(privacy.apply(empty, 1));
  EXPECT_TRUE(privacy.apply(odd, 1));
  EXPECT_EQ(odd, std::string(3, '\0'));
}

TEST(AddressPrivacy, PseudonymsAreStableAndKeyed) {
  const PrivacySettings keyA{AddressMode::kPseudonym, 24, 56, "key number one, long enough"};
  const PrivacySettings keyB{AddressMode::kPseudonym, 24, 56, "key number two, long enough"};
  for (const char* written : {"192.0.2.7", "2001:db8::7"}) {
    std::string first = ipBytes(written), again = first, other = first;
    EXPECT_TRUE(AddressPrivacy(keyA).apply(first, 0));
    AddressPrivacy(keyA).apply(again, 0);  // a restart: a new object, the same key
    AddressPrivacy(keyB).apply(other, 0);
    EXPECT_EQ(first.size(), ipBytes(written).size());
    EXPECT_EQ(first, again) << written;
    EXPECT_NE(first, other) << written;
    EXPECT_NE(first, ipBytes(written)) << written;
  }
  // An IPv4 client gets one pseudonym whether it arrives in 4 or in 16 bytes.
  std::string four = ipBytes("192.0.2.7"), mapped = ipBytes("::ffff:192.0.2.7");
  AddressPrivacy(keyA).apply(four, 1);
  AddressPrivacy(keyA).apply(mapped, 2);
  EXPECT_EQ(mapped.substr(12), four);
  EXPECT_EQ(mapped.substr(0, 12), ipBytes("::ffff:0.0.0.0").substr(0, 12));
}

}  // namespace
}  // namespace vantrelo::filter
