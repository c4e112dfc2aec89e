// SHA-256 and HMAC-SHA-256 in portable code, so that every platform's build derives the same
// client pseudonyms without a cryptographic library (the Windows build is one static program).
//
// HmacSha256 keeps the key's inner and outer pad states, so each message costs two block
// compressions plus its own length. Objects are plain values: const methods are thread-safe.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace vantrelo::filter {

using Sha256Digest = std::array<uint8_t, 32>;

class Sha256 {
 public:
  Sha256();
  void update(const uint8_t* data, size_t size);
  Sha256Digest finish();

  static Sha256Digest digest(std::string_view data);

 private:
  friend class HmacSha256;
  void compress(const uint8_t* block);

  std::array<uint32_t, 8> state_;
  std::array<uint8_t, 64> buffer_{};
  uint64_t length_ = 0;  // bytes hashed so far
};

class HmacSha256 {
 public:
  explicit HmacSha256(std::string_view key);
  Sha256Digest mac(const uint8_t* data, size_t size) const;

 private:
  Sha256 inner_;  // state after the key XOR ipad block
  Sha256 outer_;  // state after the key XOR opad block
};

}  // namespace vantrelo::filter
