// NTLM is made of algorithms that OpenSSL would rather see gone.
#define OPENSSL_SUPPRESS_DEPRECATED
#include "agent/libZel/platform/windows/ntlm_session_key.h"

#include <openssl/crypto.h>
#include <openssl/hmac.h>
#include <openssl/rc4.h>
#include <windows.h>

#include <stdexcept>
#include <string>

#include "agent/libZel/smb/ntlm_message.h"

namespace smb {
namespace {

using Span = std::span<const uint8_t>;

/// As good as the password, or the session's key: wiped with the object.
struct Digest {
  Digest() = default;
  ~Digest() { OPENSSL_cleanse(bytes.data(), bytes.size()); }
  Digest(const Digest&) = delete;
  Digest& operator=(const Digest&) = delete;

  std::array<uint8_t, 16> bytes{};
};

void HmacMd5(Span key, Span bytes, Digest* digest) {
  unsigned size = 0;
  const uint8_t* const made = HMAC(EVP_md5(), key.data(), static_cast<int>(key.size()),
                                   bytes.data(), bytes.size(), digest->bytes.data(), &size);
  if (made == nullptr || size != digest->bytes.size())
    throw std::runtime_error("HMAC-MD5 does not work");
}

std::wstring UpperCase(Span utf16) {
  std::wstring text(utf16.size() / sizeof(wchar_t), L'\0');
  std::copy_n(utf16.begin(), text.size() * sizeof(wchar_t),
              reinterpret_cast<uint8_t*>(text.data()));
  CharUpperBuffW(text.data(), static_cast<DWORD>(text.size()));
  return text;
}

}  // namespace

Bytes SessionKeyOfAnswer(Span authenticate, const PasswordDigest& password) {
  const NtlmAnswer answer = ReadNtlmAnswer(authenticate);
  const std::wstring user = UpperCase(answer.user);
  const auto* const first = reinterpret_cast<const uint8_t*>(user.data());
  Bytes account(first, first + user.size() * sizeof(wchar_t));
  account.insert(account.end(), answer.domain.begin(), answer.domain.end());

  Digest responseKey, base;
  HmacMd5(password.Get(), account, &responseKey);
  HmacMd5(responseKey.bytes, answer.response.first(base.bytes.size()), &base);
  if ((answer.flags & kNtlmKeyExchange) == 0) return {base.bytes.begin(), base.bytes.end()};

  if (answer.sessionKey.size() != base.bytes.size())
    throw std::runtime_error("the log-in's session key has an unexpected size");
  Bytes key(answer.sessionKey.size());
  RC4_KEY state;
  RC4_set_key(&state, static_cast<int>(base.bytes.size()), base.bytes.data());
  RC4(&state, key.size(), answer.sessionKey.data(), key.data());
  OPENSSL_cleanse(&state, sizeof(state));
  return key;
}

}  // namespace smb
