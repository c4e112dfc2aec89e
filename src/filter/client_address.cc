#include "filter/client_address.h"

#include <algorithm>
#include <cstring>

#include "encoding/dnstap_message.h"

namespace vantrelo::filter {

namespace {

constexpr size_t kIpv4Bytes = 4;
constexpr size_t kIpv6Bytes = 16;
constexpr uint8_t kMappedPrefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};

// Clears every bit behind the first `prefix`; returns true when one was set.
bool truncateBits(uint8_t* bytes, size_t size, uint32_t prefix) {
  bool changed = false;
  for (size_t i = 0; i < size; ++i) {
    const uint32_t bitsKept = prefix > 8 * i ? std::min<uint32_t>(prefix - 8 * i, 8) : 0;
    const uint8_t mask = static_cast<uint8_t>(bitsKept == 8 ? 0xFF : ~(0xFF >> bitsKept));
    const uint8_t kept = bytes[i] & mask;
    changed |= kept != bytes[i];
    bytes[i] = kept;
  }
  return changed;
}

}  // namespace

AddressPrivacy::AddressPrivacy(const PrivacySettings& settings)
    : settings_(settings), hmac_(settings.key) {}

bool AddressPrivacy::rewrite(uint8_t* bytes, size_t size, uint32_t prefix) const {
  if (settings_.mode == AddressMode::kTruncate) return truncateBits(bytes, size, prefix);
  const Sha256Digest mac = hmac_.mac(bytes, size);
  const bool changed = std::memcmp(bytes, mac.data(), size) != 0;
  std::memcpy(bytes, mac.data(), size);
  return changed;
}

bool AddressPrivacy::apply(std::string& address, uint64_t socketFamily) const {
  if (settings_.mode == AddressMode::kKeep || address.empty()) return false;
  auto* bytes = reinterpret_cast<uint8_t*>(address.data());
  if (address.size() == kIpv4Bytes) return rewrite(bytes, kIpv4Bytes, settings_.ipv4Prefix);
  if (address.size() == kIpv6Bytes) {
    const bool carriesIpv4 = socketFamily == encoding::dnstap::kFamilyInet ||
                             std::memcmp(bytes, kMappedPrefix, sizeof kMappedPrefix) == 0;
    if (carriesIpv4) {
      return rewrite(bytes + sizeof kMappedPrefix, kIpv4Bytes, settings_.ipv4Prefix);
    }
    return rewrite(bytes, kIpv6Bytes, settings_.ipv6Prefix);
  }
  return truncateBits(bytes, address.size(), 0);
}

}  // namespace vantrelo::filter
