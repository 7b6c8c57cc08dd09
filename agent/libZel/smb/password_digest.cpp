// NTLM is made of an algorithm that OpenSSL would rather see gone.
#define OPENSSL_SUPPRESS_DEPRECATED
#include "agent/libZel/smb/password_digest.h"

#include <openssl/crypto.h>
#include <openssl/md4.h>

#include <bit>

#include "agent/libZel/smb/wide_secret.h"

namespace smb {

static_assert(std::endian::native == std::endian::little, "the digest is one of UTF-16LE");

PasswordDigest::PasswordDigest(const ZelString& password) {
  const WideSecret text(password.Utf8());
  const std::span<const uint16_t> units = text.View();
  MD4(reinterpret_cast<const uint8_t*>(units.data()), units.size_bytes(), value_.data());
}

PasswordDigest::~PasswordDigest() {
  OPENSSL_cleanse(value_.data(), value_.size());
}

}  // namespace smb
