#include "filter/client_address.h"

#include <gtest/gtest.h>

#include <string>

#include "wire_builder.h"

namespace vantrelo::filter {
namespace {

using format::testing::ipBytes;

TEST(AddressPrivacy, TruncatesAndPseudonymisesEachFamily) {
  const std::string v6 = "2001:db8:aaaa:bbbb:cccc:dddd:eeee:ffff";
  // Keys longer than a block are hashed first; 120 bytes also take a padding block of their own.
  const std::string key = "key number one, long enough", k120(120, 'k'), k128(128, 'k');
  const struct {
    uint32_t v4, v6;
    std::string key;  // none: truncate
    std::string address;
    uint64_t family;
    const char* expected;
  } cases[] = {
      {0, 0, "", "192.0.2.255", 1, "0.0.0.0"},
      {24, 0, "", "192.0.2.255", 1, "192.0.2.0"},
      {32, 0, "", "192.0.2.255", 1, "192.0.2.255"},
      {32, 0, "", v6, 2, "::"},
      {0, 56, "", v6, 2, "2001:db8:aaaa:bb00::"},
      {0, 128, "", v6, 2, "2001:db8:aaaa:bbbb:cccc:dddd:eeee:ffff"},
      // IPv4 carried in 16 bytes gets the IPv4 length, mapped or by family.
      {24, 0, "", "::ffff:192.0.2.77", 2, "::ffff:c000:200"},
      {8, 128, "", "::192.0.2.77", 1, "::c000:0"},
      // Pseudonyms outlive restarts and upgrades: the HMAC-SHA-256 of the address bytes under
      // the key, cut to their length; one pseudonym for an IPv4 client, in 4 bytes or mapped.
      {24, 56, key, "192.0.2.7", 1, "245.150.232.198"},
      {24, 56, key, "::ffff:192.0.2.7", 2, "::ffff:245.150.232.198"},
      {24, 56, key, "2001:db8::7", 2, "728a:aeb:d863:a664:6197:4a8d:20bd:6a9e"},
      {24, 56, k120, "192.0.2.7", 1, "57.167.199.215"},
      {24, 56, k128, "2001:db8::7", 2, "1f8c:1b4f:3070:6793:4a92:45d7:963:406e"},
  };
  for (const auto& c : cases) {
    std::string address = ipBytes(c.address);
    const AddressMode mode = c.key.empty() ? AddressMode::kTruncate : AddressMode::kPseudonym;
    const bool changed = AddressPrivacy({mode, c.v4, c.v6, c.key}).apply(address, c.family);
    EXPECT_EQ(address, ipBytes(c.expected)) << c.address << " /" << c.v4 << " /" << c.v6;
    EXPECT_EQ(changed, address != ipBytes(c.address)) << c.address;
  }
  std::string odd = "\x01\x02\x03";  // no address of any family: nothing of it goes on
  EXPECT_TRUE(AddressPrivacy({AddressMode::kTruncate, 24, 56, ""}).apply(odd, 1));
  EXPECT_EQ(odd, std::string(3, '\0'));
}

}  // namespace
}  // namespace vantrelo::filter
