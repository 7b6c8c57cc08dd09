#include "agent/libZel/smb/signing.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string_view>

#include "tests/agent/smb_test.h"

namespace {

using namespace smb;
using namespace std::string_view_literals;

ByteView ViewOf(std::string_view text) {
  return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

/// 80 bytes, counted but for the first four.
Bytes Message() {
  Bytes message = {0xFE, 'S', 'M', 'B'};
  for (uint8_t i = 4; i < 80; ++i) message.push_back(i);
  return message;
}

Bytes SignatureOf(const Bytes& message) {
  return Bytes(message.begin() + kSignatureOffset,
               message.begin() + kSignatureOffset + kSignatureBytes);
}

TEST(SmbSigning, UsesTheLogInsKeyItselfForVersionTwo) {
  EXPECT_EQ(kSessionKey, SigningKey(Dialect::k202, kSessionKey, {}));
  EXPECT_EQ(kSessionKey, SigningKey(Dialect::k210, kSessionKey, {}));
}

TEST(SmbSigning, DerivesTheKeyOfVersionThree) {
  const Key expected = {0x0B, 0x7E, 0x9C, 0x5C, 0xAC, 0x36, 0xC0, 0xF6,
                        0xEA, 0x9A, 0xB2, 0x75, 0x29, 0x8C, 0xED, 0xCE};
  EXPECT_EQ(expected, SigningKey(Dialect::k300, kSessionKey, {}));
  EXPECT_EQ(expected, SigningKey(Dialect::k302, kSessionKey, {}));
}

// The expected values were computed with Python's hashlib and hmac.
TEST(SmbSigning, DerivesTheKeyOf311FromAllThatWasSaid) {
  PreauthHash preauth;
  preauth.Add(ViewOf("negotiate"));
  preauth.Add(ViewOf("answer"));
  preauth.Add(ViewOf("setup"));
  const ByteView hash = preauth.Value();
  EXPECT_EQ(Bytes({0xB8, 0x84, 0x2C, 0x29, 0xF9, 0xC2, 0x0F, 0x57}),
            Bytes(hash.begin(), hash.begin() + 8));
  const Key expected = {0x5A, 0xB8, 0x2F, 0x51, 0x3E, 0xA7, 0xDC, 0x7A,
                        0x7F, 0xF8, 0x64, 0x40, 0x92, 0xAE, 0x75, 0xAE};
  EXPECT_EQ(expected, SigningKey(Dialect::k311, kSessionKey, preauth));
  preauth.Add(ViewOf(""));
  EXPECT_NE(expected, SigningKey(Dialect::k311, kSessionKey, preauth));
}

TEST(SmbSigning, TakesTheFirstSixteenBytesOfALongerKey) {
  Bytes longer(kSessionKey.begin(), kSessionKey.end());
  longer.push_back(1);
  EXPECT_EQ(kSessionKey, SigningKey(Dialect::k210, longer, {}));
  EXPECT_EQ(SigningKey(Dialect::k300, kSessionKey, {}), SigningKey(Dialect::k300, longer, {}));
}

TEST(SmbSigning, RefusesAKeyThatIsTooShort) {
  EXPECT_THROW(SigningKey(Dialect::k311, Bytes(15), {}), std::runtime_error);
  EXPECT_THROW(SigningKey(Dialect::k202, {}, {}), std::runtime_error);
}

// The expected values were computed with Python's hmac and with the command "openssl mac".
TEST(SmbSigning, SignsVersionTwoByHmac) {
  Bytes message = Message();
  Sign(Dialect::k210, kCounted, message);
  EXPECT_EQ(Bytes({0xB2, 0xF9, 0x90, 0x42, 0xE4, 0xB3, 0x4C, 0x09, 0xD1, 0x34, 0xAA, 0x4E, 0x65,
                   0x7A, 0x37, 0x28}),
            SignatureOf(message));
}

TEST(SmbSigning, SignsVersionThreeByCmac) {
  for (const Dialect dialect : {Dialect::k300, Dialect::k302, Dialect::k311}) {
    Bytes message = Message();
    Sign(dialect, kCounted, message);
    EXPECT_EQ(Bytes({0x82, 0xE0, 0x02, 0x23, 0x27, 0x0E, 0x22, 0x85, 0x5C, 0xB3, 0x1F, 0x2C, 0xAB,
                     0xF0, 0xC4, 0x32}),
              SignatureOf(message));
  }
}

TEST(SmbSigning, SaysInTheFlagsThatAMessageIsSigned) {
  Bytes message = Message();
  message[kFlagsOffset] = 0;
  Sign(Dialect::k311, kCounted, message);
  EXPECT_EQ(kFlagSigned, message[kFlagsOffset]);
}

TEST(SmbSigning, KnowsItsSignatures) {
  for (const Dialect dialect : {Dialect::k202, Dialect::k210, Dialect::k300, Dialect::k311}) {
    Bytes message = Message();
    Sign(dialect, kCounted, message);
    EXPECT_TRUE(IsSignedWith(dialect, kCounted, message));
    EXPECT_FALSE(IsSignedWith(dialect, kSessionKey, message));
  }
}

TEST(SmbSigning, NoticesEveryChange) {
  Bytes message = Message();
  Sign(Dialect::k311, kCounted, message);
  for (size_t i = 0; i < message.size(); ++i) {
    Bytes changed = message;
    changed[i] ^= 0x40;
    EXPECT_FALSE(IsSignedWith(Dialect::k311, kCounted, changed)) << i;
  }
}

TEST(SmbSigning, TakesNothingUnsigned) {
  Bytes message = Message();
  Sign(Dialect::k311, kCounted, message);
  message[kFlagsOffset] &= static_cast<uint8_t>(~kFlagSigned);
  EXPECT_FALSE(IsSignedWith(Dialect::k311, kCounted, message));
  EXPECT_FALSE(IsSignedWith(Dialect::k311, kCounted, Bytes(63)));
  EXPECT_FALSE(IsSignedWith(Dialect::k311, kCounted, {}));
}

}  // namespace
