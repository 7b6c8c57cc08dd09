#include "agent/libZel/smb/signing.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <algorithm>
#include <stdexcept>
#include <string_view>

#include "agent/libZel/hmac_sha256.h"

namespace smb {

namespace {

std::string_view TextOf(ByteView bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

std::array<uint8_t, kSha256Bytes> HmacSha256(ByteView key, ByteView message) {
  return ::HmacSha256(TextOf(key), TextOf(message));
}

Signature AesCmac(const Key& key, ByteView message) {
  Signature mac{};
  size_t size = 0;
  const bool isMade =
      EVP_Q_mac(nullptr, "CMAC", nullptr, "AES-128-CBC", nullptr, key.data(), key.size(),
                message.data(), message.size(), mac.data(), mac.size(), &size) != nullptr;
  if (!isMade || size != mac.size()) throw std::runtime_error("AES-128-CMAC does not work");
  return mac;
}

template <typename Half>
Half FirstHalf(const std::array<uint8_t, kSha256Bytes>& mac) {
  Half half{};
  std::copy_n(mac.begin(), half.size(), half.begin());
  return half;
}

/// Of a message whose signature is still zero.
Signature SignatureOf(Dialect dialect, const Key& key, ByteView message) {
  return dialect >= Dialect::k300 ? AesCmac(key, message)
                                  : FirstHalf<Signature>(HmacSha256(key, message));
}

}  // namespace

Key::~Key() {
  OPENSSL_cleanse(data(), size());
}

void PreauthHash::Add(ByteView message) {
  Bytes input(value_.begin(), value_.end());
  input.insert(input.end(), message.begin(), message.end());
  size_t size = 0;
  const bool isMade = EVP_Q_digest(nullptr, "SHA512", nullptr, input.data(), input.size(),
                                   value_.data(), &size) == 1;
  if (!isMade || size != value_.size()) throw std::runtime_error("SHA-512 does not work");
}

Key DeriveKey(ByteView key, std::string_view label, ByteView context) {
  // Counter and length are big-endian.
  constexpr uint8_t kCounter[] = {0, 0, 0, 1};
  constexpr uint8_t kLengthBits[] = {0, 0, 0, 8 * kKeyBytes};
  ByteWriter input;
  input.Raw(kCounter).Raw(ViewOf(label)).U8(0).Raw(context).Raw(kLengthBits);
  std::array<uint8_t, kSha256Bytes> mac = HmacSha256(key, input.Take());
  const Key derived = FirstHalf<Key>(mac);
  OPENSSL_cleanse(mac.data(), mac.size());
  return derived;
}

Key SigningKey(Dialect dialect, ByteView sessionKey, const PreauthHash& preauth) {
  using namespace std::string_view_literals;
  if (sessionKey.size() < kKeyBytes)
    throw std::runtime_error("the log-in has no key for signatures");
  const ByteView base = sessionKey.first(kKeyBytes);
  if (dialect == Dialect::k311) return DeriveKey(base, "SMBSigningKey\0"sv, preauth.Value());
  if (dialect >= Dialect::k300) return DeriveKey(base, "SMB2AESCMAC\0"sv, ViewOf("SmbSign\0"sv));
  Key key{};
  std::copy_n(base.begin(), key.size(), key.begin());
  return key;
}

void Sign(Dialect dialect, const Key& key, Bytes& message) {
  if (message.size() < kHeaderBytes) throw std::runtime_error("there is nothing to sign");
  message[kFlagsOffset] |= kFlagSigned;
  const auto place = message.begin() + kSignatureOffset;
  std::fill_n(place, kSignatureBytes, uint8_t{0});
  const Signature signature = SignatureOf(dialect, key, message);
  std::copy(signature.begin(), signature.end(), place);
}

bool IsSignedWith(Dialect dialect, const Key& key, ByteView message) {
  const bool hasSignature =
      message.size() >= kHeaderBytes && (message[kFlagsOffset] & kFlagSigned) != 0;
  if (!hasSignature) return false;
  Bytes unsignedMessage(message.begin(), message.end());
  const auto place = unsignedMessage.begin() + kSignatureOffset;
  std::fill_n(place, kSignatureBytes, uint8_t{0});
  const Signature expected = SignatureOf(dialect, key, unsignedMessage);
  return CRYPTO_memcmp(expected.data(), message.data() + kSignatureOffset, expected.size()) == 0;
}

}  // namespace smb
