#include "filter/client_address.h"

#include <gtest/gtest.h>

#include <string>

#include "encoding/ip.h"
#include "filter/sha256.h"
#include "wire_builder.h"

namespace vantrelo::filter {
namespace {

using format::testing::ipBytes;

std::string hex(const Sha256Digest& digest) {
  std::string out;
  for (uint8_t b : digest) out += "0123456789abcdef"[b >> 4], out += "0123456789abcdef"[b & 15];
  return out;
}

std::string text(const std::string& address) {
  std::string out;
  const auto* bytes = reinterpret_cast<const uint8_t*>(address.data());
  if (address.size() == 4) encoding::ip::formatIpv4(out, bytes);
  if (address.size() == 16) encoding::ip::formatIpv6(out, bytes);
  return out;
}

TEST(Sha256, KnownAnswers) {
  auto mac = [](const std::string& key, const std::string& data) {
    return hex(HmacSha256(key).mac(reinterpret_cast<const uint8_t*>(data.data()), data.size()));
  };
  EXPECT_EQ(hex(Sha256::digest("")),
            "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(hex(Sha256::digest("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq")),
            "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
  EXPECT_EQ(mac("Jefe", "what do ya want for nothing?"),
            "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843");
  EXPECT_EQ(mac(std::string(131, '\xaa'), "Test Using Larger Than Block-Size Key - Hash Key First"),
            "60e431591ee0b67f0d8a26aacbf5b77f8e0bc6213728c5140546040f0ee37f54");
}

TEST(AddressPrivacy, TruncatesAtEveryPrefixEdge) {
  const std::string v6 = "2001:db8:aaaa:bbbb:cccc:dddd:eeee:ffff";
  const struct {
    uint32_t v4, v6;
    std::string address;
    uint64_t family;
    const char* expected;
  } cases[] = {
      {0, 0, "192.0.2.255", 1, "0.0.0.0"},
      {8, 0, "192.0.2.255", 1, "192.0.0.0"},
      {24, 0, "192.0.2.255", 1, "192.0.2.0"},
      {32, 0, "192.0.2.255", 1, "192.0.2.255"},
      {32, 0, v6, 2, "::"},
      {0, 56, v6, 2, "2001:db8:aaaa:bb00::"},
      {0, 64, v6, 2, "2001:db8:aaaa:bbbb::"},
      {0, 128, v6, 2, "2001:db8:aaaa:bbbb:cccc:dddd:eeee:ffff"},
      // IPv4 carried in 16 bytes gets the IPv4 length, mapped or by family.
      {24, 0, "::ffff:192.0.2.77", 2, "::ffff:c000:200"},
      {8, 128, "::192.0.2.77", 1, "::c000:0"},
  };
  for (const auto& c : cases) {
    std::string address = ipBytes(c.address);
    const std::string before = address;
    const bool changed =
        AddressPrivacy({AddressMode::kTruncate, c.v4, c.v6, ""}).apply(address, c.family);
    EXPECT_EQ(text(address), c.expected) << c.address << " /" << c.v4 << " /" << c.v6;
    EXPECT_EQ(changed, address != before) << c.address;
  }
  std::string odd = "\x01\x02\x03";  // no address of any family: nothing of it goes on
  EXPECT_TRUE(AddressPrivacy({AddressMode::kTruncate, 24, 56, ""}).apply(odd, 1));
  EXPECT_EQ(odd, std::string(3, '\0'));
}

TEST(AddressPrivacy, PseudonymsAreStableAndKeyed) {
  const PrivacySettings keyA{AddressMode::kPseudonym, 24, 56, "key number one, long enough"};
  const PrivacySettings keyB{AddressMode::kPseudonym, 24, 56, "key number two, long enough"};
  for (const char* written : {"192.0.2.7", "2001:db8::7"}) {
    std::string first = ipBytes(written), again = first, other = first;
    EXPECT_TRUE(AddressPrivacy(keyA).apply(first, 0));
    AddressPrivacy(keyA).apply(again, 0);  // after a restart: a new object, the same key
    AddressPrivacy(keyB).apply(other, 0);
    EXPECT_EQ(first.size(), ipBytes(written).size());
    EXPECT_EQ(first, again) << written;
    EXPECT_NE(first, other) << written;
  }
  // One pseudonym for an IPv4 client, whether it comes in 4 bytes or mapped in 16.
  std::string four = ipBytes("192.0.2.7"), mapped = ipBytes("::ffff:192.0.2.7");
  AddressPrivacy(keyA).apply(four, 1);
  AddressPrivacy(keyA).apply(mapped, 2);
  EXPECT_EQ(mapped, ipBytes("::ffff:0.0.0.0").substr(0, 12) + four);
}

}  // namespace
}  // namespace vantrelo::filter
