#pragma once

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <array>
#include <cstddef>
#include <stdexcept>
#include <string_view>

constexpr size_t kSha256Bytes = 32;

/// HMAC-SHA256 (RFC 2104). Throws std::runtime_error where the cryptographic library does not offer
/// it.
inline std::array<unsigned char, kSha256Bytes> HmacSha256(std::string_view key,
                                                          std::string_view text) {
  std::array<unsigned char, kSha256Bytes> mac{};
  unsigned size = 0;
  const bool isMade = HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
                           reinterpret_cast<const unsigned char*>(text.data()), text.size(),
                           mac.data(), &size) != nullptr;
  if (!isMade || size != mac.size()) throw std::runtime_error("HMAC-SHA256 does not work");
  return mac;
}
