#include "agent/libZel/smb/anonymous_login.h"

#include "agent/libZel/smb/ntlm_message.h"

namespace smb {
namespace {

constexpr uint32_t kWantedFlags = kNtlmUnicode | kNtlmRequestTarget | kNtlmNtlm | kNtlmAlwaysSign |
                                  kNtlmExtendedSessionSecurity | kNtlm128;

void Append16(uint16_t number, Bytes* message) {
  message->push_back(static_cast<uint8_t>(number));
  message->push_back(static_cast<uint8_t>(number >> 8));
}
void Append32(uint32_t number, Bytes* message) {
  Append16(static_cast<uint16_t>(number), message);
  Append16(static_cast<uint16_t>(number >> 16), message);
}

Bytes BeginMessage(NtlmMessageType type) {
  Bytes message(kNtlmSignature.begin(), kNtlmSignature.end());
  Append32(static_cast<uint32_t>(type), &message);
  return message;
}

/// The fields of a part of `size` bytes.
void AppendPart(uint16_t size, uint32_t offset, Bytes* message) {
  Append16(size, message);
  Append16(size, message);
  Append32(offset, message);
}

}  // namespace

Bytes AnonymousLogin::Negotiate() {
  Bytes message = BeginMessage(NtlmMessageType::kNegotiate);
  Append32(kWantedFlags, &message);
  AppendPart(0, 0, &message);  // domain
  AppendPart(0, 0, &message);  // workstation
  return message;
}

// [MS-NLMP] 3.2.5.1.2: who is nobody answers with one zero byte instead of the older response, and
// with nothing else.
Bytes AnonymousLogin::Authenticate(std::span<const uint8_t> challenge) {
  constexpr uint32_t kEnd = kAuthenticateSize + 1;
  Bytes message = BeginMessage(NtlmMessageType::kAuthenticate);
  AppendPart(1, kAuthenticateSize, &message);  // older response
  AppendPart(0, kEnd, &message);               // newer response
  AppendPart(0, kEnd, &message);               // domain
  AppendPart(0, kEnd, &message);               // user
  AppendPart(0, kEnd, &message);               // workstation
  AppendPart(0, kEnd, &message);               // session key
  Append32((NtlmChallengeFlags(challenge) & kWantedFlags) | kNtlmAnonymous, &message);
  message.push_back(0);
  return message;
}

}  // namespace smb
