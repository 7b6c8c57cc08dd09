#include "agent/libZelCore/password_hash.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <cstdint>
#include <stdexcept>

#include "agent/libZel/hexadecimal.h"
#include "agent/libZel/whole_number.h"
#include "agent/libZel/wtf8.h"
#include "agent/libZelCore/split_text.h"

namespace {

constexpr size_t kKeyBytes = 32;
constexpr size_t kSaltBytes = 16;
constexpr size_t kLongestPassword = 1024;

/// Cost parameters of RFC 7914, section 2.
struct ScryptCost {
  uint64_t n = 16384;
  uint64_t r = 8;
  uint64_t p = 1;
};
constexpr uint64_t kScryptMemoryBytes = 64 * 1024 * 1024;

/// The bytes of an even number of hexadecimal digits, or nothing.
std::optional<std::string> FromHex(std::string_view hex) {
  if (hex.empty() || hex.size() % 2 != 0) return std::nullopt;
  std::string bytes;
  for (size_t i = 0; i < hex.size(); i += 2) {
    const auto byte = ReadWholeNumber<uint8_t>(hex.substr(i, 2), 16);
    if (!byte) return std::nullopt;
    bytes.push_back(static_cast<char>(*byte));
  }
  return bytes;
}

/// Empty when the cost parameters cannot be used.
std::string Scrypt(std::string_view password, std::string_view salt, const ScryptCost& cost) {
  std::string key(kKeyBytes, '\0');
  const int ok = EVP_PBE_scrypt(password.data(), password.size(),
                                reinterpret_cast<const unsigned char*>(salt.data()), salt.size(),
                                cost.n, cost.r, cost.p, kScryptMemoryBytes,
                                reinterpret_cast<unsigned char*>(key.data()), key.size());
  return ok == 1 ? key : std::string();
}

struct PasswordHash {
  ScryptCost cost;
  std::string salt;
  std::string key;
};

std::optional<PasswordHash> ParseHash(std::string_view text) {
  const auto parts = SplitAt(text, '$');
  if (parts.size() != 6 || parts[0] != "scrypt") return std::nullopt;
  const auto n = ReadWholeNumber<uint64_t>(parts[1]);
  const auto r = ReadWholeNumber<uint64_t>(parts[2]);
  const auto p = ReadWholeNumber<uint64_t>(parts[3]);
  const auto salt = FromHex(parts[4]);
  const auto key = FromHex(parts[5]);
  if (!n || !r || !p || !salt || !key || key->size() != kKeyBytes) return std::nullopt;
  return PasswordHash{{*n, *r, *p}, *salt, *key};
}

/// C0, DEL and C1.
bool IsControl(uint32_t codePoint) {
  return codePoint < 0x20 || (codePoint >= 0x7F && codePoint < 0xA0);
}

/// Characters of UTF-8 text, or nothing when it is not UTF-8 (RFC 3629) or holds control
/// characters.
std::optional<size_t> CountPrintable(std::string_view text) {
  size_t count = 0;
  for (; !text.empty(); ++count) {
    uint32_t codePoint = 0;
    const size_t length = DecodeWtf8(text, &codePoint);
    if (length == 0 || IsSurrogate(codePoint) || IsControl(codePoint)) return std::nullopt;
    text.remove_prefix(length);
  }
  return count;
}

}  // namespace

void CheckPasswordText(std::string_view password) {
  const auto count = CountPrintable(password);
  if (!count) {
    throw std::runtime_error("the password must be UTF-8 text without control characters");
  }
  if (*count < kMinPasswordCharacters) {
    throw std::runtime_error("the password must have at least " +
                             std::to_string(kMinPasswordCharacters) + " characters");
  }
  if (password.size() > kLongestPassword) {
    throw std::runtime_error("the password must have at most " + std::to_string(kLongestPassword) +
                             " bytes");
  }
}

std::string HashPassword(std::string_view password) {
  const ScryptCost cost;
  const std::string salt = RandomBytes(kSaltBytes);
  const std::string key = Scrypt(password, salt, cost);
  if (key.empty()) throw std::runtime_error("the password could not be hashed");
  return "scrypt$" + std::to_string(cost.n) + "$" + std::to_string(cost.r) + "$" +
         std::to_string(cost.p) + "$" + Hexadecimal(salt) + "$" + Hexadecimal(key);
}

bool IsPasswordHash(std::string_view text) {
  return ParseHash(text).has_value();
}

bool IsPasswordOf(std::string_view password, const std::optional<std::string>& hash) {
  const auto parsed = hash ? ParseHash(*hash) : std::nullopt;
  if (!parsed) {
    Scrypt(password, std::string(kSaltBytes, '\0'), ScryptCost());
    return false;
  }
  const std::string key = Scrypt(password, parsed->salt, parsed->cost);
  return !key.empty() && EqualInConstantTime(key, parsed->key);
}

bool EqualInConstantTime(std::string_view a, std::string_view b) {
  return a.size() == b.size() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

std::string RandomBytes(size_t count) {
  std::string bytes(count, '\0');
  if (RAND_bytes(reinterpret_cast<unsigned char*>(bytes.data()), static_cast<int>(count)) != 1) {
    throw std::runtime_error("the system gives no random numbers");
  }
  return bytes;
}
