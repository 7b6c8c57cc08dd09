#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace smb {

// The three messages of NTLM ([MS-NLMP] 2.2.1), as far as they are looked at or made here.

constexpr std::array<uint8_t, 8> kNtlmSignature = {'N', 'T', 'L', 'M', 'S', 'S', 'P', 0};

enum class NtlmMessageType : uint32_t { kNegotiate = 1, kChallenge = 2, kAuthenticate = 3 };

enum NtlmFlag : uint32_t {
  kNtlmUnicode = 0x1,
  kNtlmRequestTarget = 0x4,
  kNtlmNtlm = 0x200,
  kNtlmAnonymous = 0x800,
  kNtlmAlwaysSign = 0x8000,
  kNtlmExtendedSessionSecurity = 0x80000,
  kNtlm128 = 0x20000000,
};

/// Throws std::runtime_error unless `message` is a whole CHALLENGE_MESSAGE whose parts all lie
/// inside it.
void CheckNtlmChallenge(std::span<const uint8_t> message);

/// The flags of a challenge that was checked.
uint32_t NtlmChallengeFlags(std::span<const uint8_t> challenge);

/// Whether `message` is an AUTHENTICATE_MESSAGE that answers the challenge by version 2.
bool IsNtlmVersion2Answer(std::span<const uint8_t> message);

}  // namespace smb
