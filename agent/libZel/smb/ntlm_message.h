#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace smb {

// The three messages of NTLM ([MS-NLMP] 2.2.1), as far as they are looked at or made here.

constexpr std::array<uint8_t, 8> kNtlmSignature = {'N', 'T', 'L', 'M', 'S', 'S', 'P', 0};

/// The fixed part of an AUTHENTICATE_MESSAGE.
constexpr uint16_t kAuthenticateSize = 64;

enum class NtlmMessageType : uint32_t { kNegotiate = 1, kChallenge = 2, kAuthenticate = 3 };

enum NtlmFlag : uint32_t {
  kNtlmUnicode = 0x1,
  kNtlmRequestTarget = 0x4,
  kNtlmNtlm = 0x200,
  kNtlmAnonymous = 0x800,
  kNtlmAlwaysSign = 0x8000,
  kNtlmExtendedSessionSecurity = 0x80000,
  kNtlm128 = 0x20000000,
  kNtlmKeyExchange = 0x40000000,
};

/// Throws std::runtime_error unless `message` is a whole CHALLENGE_MESSAGE whose parts all lie
/// inside it.
void CheckNtlmChallenge(std::span<const uint8_t> message);

/// The flags of a challenge that was checked.
uint32_t NtlmChallengeFlags(std::span<const uint8_t> challenge);

/// Whether `message` is an AUTHENTICATE_MESSAGE that answers the challenge by version 2.
bool IsNtlmVersion2Answer(std::span<const uint8_t> message);

/// Parts of an AUTHENTICATE_MESSAGE, which must outlive them.
struct NtlmAnswer {
  std::span<const uint8_t> response;  // to the challenge, by version 2
  std::span<const uint8_t> domain;    // as the flags say, UTF-16
  std::span<const uint8_t> user;
  std::span<const uint8_t> sessionKey;  // encrypted; empty when none is exchanged
  uint32_t flags = 0;
};

/// Throws std::runtime_error for what `IsNtlmVersion2Answer` does not accept.
NtlmAnswer ReadNtlmAnswer(std::span<const uint8_t> message);

}  // namespace smb
