#include "agent/libZel/smb/encryption.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <string_view>

#include "tests/agent/smb_test.h"

namespace {

using namespace smb;
using testing::HasSubstr;

const Key kOther = {1};
constexpr uint64_t kSession = 0x1122334455667788;
constexpr size_t kTransformBytes = 52;

const Bytes kHello = {'h', 'e', 'l', 'l', 'o'};

class SmbEncryption : public testing::TestWithParam<Cipher> {
 protected:
  /// The server's side: the keys change places.
  const Encryption server_{GetParam(), {kOther, kCounted}, kSession};
  Encryption client_{GetParam(), {kCounted, kOther}, kSession};

  std::string FailureWith(const Bytes& encrypted) const {
    return FailureOf([&] { server_.Decrypt(encrypted); });
  }
};

TEST_P(SmbEncryption, IsUndoneByTheOtherSide) {
  for (const size_t size : {1u, 16u, 64u, 1000u}) {
    const Bytes message(size, 0x5A);
    EXPECT_EQ(message, server_.Decrypt(client_.Encrypt(message)));
  }
}

TEST_P(SmbEncryption, SaysWhoseTheMessageIs) {
  const Bytes encrypted = client_.Encrypt(kHello);
  const ByteReader reader(encrypted);
  EXPECT_EQ(kTransformBytes + kHello.size(), reader.Size());
  EXPECT_TRUE(IsEncrypted(encrypted));
  EXPECT_EQ(kHello.size(), reader.U32(36));
  EXPECT_EQ(1, reader.U16(42));
  EXPECT_EQ(kSession, reader.U64(44));
}

TEST_P(SmbEncryption, NeverTakesANonceTwice) {
  EXPECT_NE(client_.Encrypt(kHello), client_.Encrypt(kHello));
}

TEST_P(SmbEncryption, NoticesEveryChange) {
  const Bytes encrypted = client_.Encrypt(kHello);
  for (size_t i = 0; i < encrypted.size(); ++i) {
    // Of the nonce, a cipher takes as many bytes as it needs, but all are protected.
    Bytes changed = encrypted;
    changed[i] ^= 0x40;
    EXPECT_NE("none", FailureWith(changed)) << i;
  }
}

TEST_P(SmbEncryption, TakesNothingThatIsCutOff) {
  const Bytes encrypted = client_.Encrypt(kHello);
  for (size_t size = 0; size < encrypted.size(); ++size) {
    EXPECT_NE("none", FailureWith(Bytes(encrypted.begin(),
                                        encrypted.begin() + static_cast<ptrdiff_t>(size))))
        << size;
  }
}

TEST_P(SmbEncryption, TakesNothingOfAnotherSessionOrKey) {
  Encryption otherSession(GetParam(), {kCounted, kOther}, kSession + 1);
  EXPECT_THAT(FailureWith(otherSession.Encrypt(kHello)), HasSubstr("not encrypted as it should"));
  Encryption otherKey(GetParam(), {kOther, kCounted}, kSession);
  EXPECT_THAT(FailureWith(otherKey.Encrypt(kHello)), HasSubstr("was changed"));
}

INSTANTIATE_TEST_SUITE_P(Ciphers, SmbEncryption,
                         testing::Values(Cipher::kAes128Ccm, Cipher::kAes128Gcm),
                         [](const auto& parameter) {
                           return parameter.param == Cipher::kAes128Ccm ? "Ccm" : "Gcm";
                         });

// The expected values of both tests were computed with Python's hmac and cryptography.
TEST(SmbEncryptionExamples, AreTheSameElsewhere) {
  const struct {
    Cipher cipher;
    Bytes tagAndText;
  } examples[] = {
      {Cipher::kAes128Ccm, {0xA1, 0xD1, 0x62, 0x67, 0xF7, 0x97, 0xEE, 0x9C, 0x02, 0x82, 0xE8,
                            0x80, 0x54, 0x38, 0x7D, 0xFD, 0x16, 0xA5, 0x74, 0x26, 0xA8}},
      {Cipher::kAes128Gcm, {0xB0, 0xE3, 0x08, 0x18, 0xF6, 0x35, 0x22, 0x12, 0x49, 0xDC, 0x5D,
                            0xB8, 0xB1, 0x05, 0xFB, 0x6E, 0x24, 0xD8, 0xB5, 0x69, 0xF2}},
  };
  for (const auto& [cipher, tagAndText] : examples) {
    const Bytes encrypted = Encryption(cipher, {kCounted, kOther}, kSession).Encrypt(kHello);
    Bytes found(encrypted.begin() + 4, encrypted.begin() + 20);
    found.insert(found.end(), encrypted.begin() + kTransformBytes, encrypted.end());
    EXPECT_EQ(tagAndText, found);
  }
}

TEST(SmbEncryptionKeys, AreDerivedForEachDirection) {
  const EncryptionKeys old = DeriveEncryptionKeys(Dialect::k300, kSessionKey, {});
  EXPECT_EQ((Key{0xFA, 0xD2, 0x77, 0x96, 0x66, 0x5B, 0x31, 0x3E, 0xBB, 0x57, 0x8F, 0x38, 0x86, 0x32,
                 0xB4, 0xF7}),
            old.toServer);
  EXPECT_EQ((Key{0xB0, 0xF0, 0x42, 0x7F, 0x7C, 0xEB, 0x41, 0x6D, 0x1D, 0x9D, 0xCC, 0x0C, 0xD4, 0xF9,
                 0x94, 0x47}),
            old.fromServer);
  PreauthHash preauth;
  const std::string_view said = "negotiate";
  preauth.Add({reinterpret_cast<const uint8_t*>(said.data()), said.size()});
  const EncryptionKeys fresh = DeriveEncryptionKeys(Dialect::k311, kSessionKey, preauth);
  EXPECT_EQ((Key{0x97, 0x4A, 0xC0, 0x2D, 0x9E, 0xAB, 0xB6, 0x36, 0xB9, 0x8E, 0x32, 0x71, 0xD3, 0x29,
                 0xE6, 0x8D}),
            fresh.toServer);
  EXPECT_EQ((Key{0xF9, 0xBA, 0xF6, 0x1C, 0xF6, 0xAB, 0x08, 0xA7, 0x6D, 0xD5, 0x74, 0x3C, 0xE4, 0x6B,
                 0xC5, 0x3E}),
            fresh.fromServer);
  EXPECT_THROW(DeriveEncryptionKeys(Dialect::k311, Bytes(15), preauth), std::runtime_error);
}

}  // namespace
