// Client-address privacy: the record's query address is cut to a network prefix, or replaced by
// a keyed pseudonym of the same family and size.
//
// A pseudonym is HMAC-SHA-256 of the address bytes under the configured key, cut to the
// address's size, so it is stable across restarts and agents sharing the key and cannot be
// reversed without it. An IPv4 address carried in 16 bytes (socket family INET, or the
// ::ffff:0:0/96 mapping) is treated as the IPv4 address in its last four bytes, so that it gets
// the IPv4 prefix and the same pseudonym as in 4 bytes.
//
// Ownership: owns the key's precomputed HMAC state. Thread-safety: immutable after
// construction; apply() may run on many threads at once.
#pragma once

#include <cstdint>
#include <string>

#include "filter/sha256.h"

namespace vantrelo::filter {

enum class AddressMode { kKeep, kTruncate, kPseudonym };

struct PrivacySettings {
  AddressMode mode = AddressMode::kKeep;
  uint32_t ipv4Prefix = 24;
  uint32_t ipv6Prefix = 56;
  std::string key;  // pseudonym mode only
};

inline constexpr uint32_t kMaxIpv4Prefix = 32;
inline constexpr uint32_t kMaxIpv6Prefix = 128;

class AddressPrivacy {
 public:
  explicit AddressPrivacy(const PrivacySettings& settings);

  // Rewrites `address` (0, 4, 16 or any other number of bytes) in place and returns true when
  // its bytes changed. An address of an unexpected size is zeroed rather than passed on.
  bool apply(std::string& address, uint64_t socketFamily) const;

 private:
  bool rewrite(uint8_t* bytes, size_t size, uint32_t prefix) const;

  const PrivacySettings settings_;
  const HmacSha256 hmac_;
};

}  // namespace vantrelo::filter
