#include "agent/libZel/smb/encryption.h"

#include <openssl/evp.h>

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <string_view>

namespace smb {

namespace {

using namespace std::string_view_literals;

// The header before an encrypted message.
constexpr size_t kTransformBytes = 52;
constexpr size_t kTagOffset = 4;
constexpr size_t kNonceOffset = 20;
constexpr size_t kNonceBytes = 16;
constexpr size_t kSizeOffset = 36;
constexpr size_t kTransformFlagsOffset = 42;
constexpr size_t kSessionOffset = 44;
constexpr uint32_t kTransformMagic = 0x424D53FD;
constexpr uint16_t kIsEncrypted = 1;

struct FreeContext {
  void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
};
using Context = std::unique_ptr<EVP_CIPHER_CTX, FreeContext>;

int Length(ByteView bytes) {
  return static_cast<int>(bytes.size());
}

void RequireDone(bool holds) {
  if (!holds) throw std::runtime_error("the encryption of messages does not work");
}

/// A context with its key and nonce; of CCM also with the tag to be checked, which it needs first.
Context BeginCipher(Cipher cipher, bool encrypts, const Key& key, ByteView nonce, Signature& tag) {
  const bool isCcm = cipher == Cipher::kAes128Ccm;
  const int direction = encrypts ? 1 : 0;
  Context context(EVP_CIPHER_CTX_new());
  EVP_CIPHER_CTX* const raw = context.get();
  RequireDone(raw != nullptr);
  const EVP_CIPHER* const kind = isCcm ? EVP_aes_128_ccm() : EVP_aes_128_gcm();
  RequireDone(EVP_CipherInit_ex(raw, kind, nullptr, nullptr, nullptr, direction) == 1);
  const int nonceBytes = isCcm ? 11 : 12;
  RequireDone(EVP_CIPHER_CTX_ctrl(raw, EVP_CTRL_AEAD_SET_IVLEN, nonceBytes, nullptr) == 1);
  const bool setsTag = isCcm || !encrypts;
  void* const known = encrypts ? nullptr : tag.data();
  const auto tagBytes = static_cast<int>(tag.size());
  RequireDone(!setsTag || EVP_CIPHER_CTX_ctrl(raw, EVP_CTRL_AEAD_SET_TAG, tagBytes, known) == 1);
  RequireDone(EVP_CipherInit_ex(raw, nullptr, nullptr, key.data(), nonce.data(), direction) == 1);
  return context;
}

/// Encrypts or decrypts `text`, protecting `header` with it. Of an encryption, `tag` is the result.
/// False when a decryption finds that something was changed.
bool Transform(Cipher cipher, bool encrypts, const Key& key, ByteView nonce, ByteView header,
               ByteView text, Signature& tag, Bytes& result) {
  const Context context = BeginCipher(cipher, encrypts, key, nonce, tag);
  EVP_CIPHER_CTX* const raw = context.get();
  int length = 0;
  const bool isCcm = cipher == Cipher::kAes128Ccm;
  RequireDone(!isCcm || EVP_CipherUpdate(raw, nullptr, &length, nullptr, Length(text)) == 1);
  RequireDone(EVP_CipherUpdate(raw, nullptr, &length, header.data(), Length(header)) == 1);

  result.resize(text.size());
  const bool isDone = EVP_CipherUpdate(raw, result.data(), &length, text.data(), Length(text)) == 1;
  // CCM has checked everything with that.
  if (!isDone && isCcm && !encrypts) return false;
  RequireDone(isDone && static_cast<size_t>(length) == text.size());
  uint8_t unused[16];
  const bool isFinal = (isCcm && !encrypts) || EVP_CipherFinal_ex(raw, unused, &length) == 1;
  if (!encrypts) return isFinal;
  RequireDone(isFinal && EVP_CIPHER_CTX_ctrl(raw, EVP_CTRL_AEAD_GET_TAG,
                                             static_cast<int>(tag.size()), tag.data()) == 1);
  return true;
}

}  // namespace

EncryptionKeys DeriveEncryptionKeys(Dialect dialect, ByteView sessionKey,
                                    const PreauthHash& preauth) {
  if (sessionKey.size() < kKeyBytes)
    throw std::runtime_error("the log-in has no key for encryption");
  const ByteView base = sessionKey.first(kKeyBytes);
  if (dialect == Dialect::k311) {
    return {DeriveKey(base, "SMBC2SCipherKey\0"sv, preauth.Value()),
            DeriveKey(base, "SMBS2CCipherKey\0"sv, preauth.Value())};
  }
  // The blank makes both contexts equally long.
  return {DeriveKey(base, "SMB2AESCCM\0"sv, ViewOf("ServerIn \0"sv)),
          DeriveKey(base, "SMB2AESCCM\0"sv, ViewOf("ServerOut\0"sv))};
}

Bytes Encryption::Encrypt(ByteView message) {
  ByteWriter writer;
  // No nonce comes twice with a key: the key is that of one session.
  writer.U32(kTransformMagic).Zeros(kSignatureBytes).U64(++lastNonce_).U64(0);
  writer.U32(static_cast<uint32_t>(message.size())).U16(0).U16(kIsEncrypted).U64(sessionId_);
  Bytes encrypted = writer.Take();
  const ByteView header = ByteView(encrypted).subspan(kNonceOffset);

  Signature tag{};
  Bytes text;
  Transform(cipher_, true, keys_.toServer, header.first(kNonceBytes), header, message, tag, text);
  std::copy(tag.begin(), tag.end(), encrypted.begin() + kTagOffset);
  encrypted.insert(encrypted.end(), text.begin(), text.end());
  return encrypted;
}

Bytes Encryption::Decrypt(ByteView encrypted) const {
  const ByteReader reader(encrypted);
  const ByteView header = reader.Part(kNonceOffset, kTransformBytes - kNonceOffset);
  const ByteView text = encrypted.subspan(kTransformBytes);
  const bool isForUs = reader.U32(0) == kTransformMagic &&
                       reader.U16(kTransformFlagsOffset) == kIsEncrypted &&
                       reader.U64(kSessionOffset) == sessionId_;
  if (!isForUs || text.empty() || reader.U32(kSizeOffset) != text.size())
    throw std::runtime_error("the server's answer is not encrypted as it should be");

  const ByteView sentTag = reader.Part(kTagOffset, kSignatureBytes);
  Signature tag{};
  std::copy(sentTag.begin(), sentTag.end(), tag.begin());
  Bytes message;
  const bool isIntact = Transform(cipher_, false, keys_.fromServer, header.first(kNonceBytes),
                                  header, text, tag, message);
  if (!isIntact) throw std::runtime_error("the server's encrypted answer was changed");
  return message;
}

}  // namespace smb
