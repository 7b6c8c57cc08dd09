#include "agent/libZel/smb/ntlm_message.h"

#include <algorithm>
#include <stdexcept>

namespace smb {
namespace {

using Span = std::span<const uint8_t>;

constexpr size_t kTypeOffset = 8;

// Of a CHALLENGE_MESSAGE. Very old servers leave the target's information out.
constexpr size_t kTargetNameOffset = 12;
constexpr size_t kChallengeFlagsOffset = 20;
constexpr size_t kShortChallengeSize = 32;
constexpr size_t kTargetInfoOffset = 40;
constexpr size_t kChallengeSize = 48;
constexpr uint16_t kEndOfList = 0;

// Of an AUTHENTICATE_MESSAGE.
constexpr size_t kNtResponseOffset = 20;
constexpr size_t kDomainOffset = 28;
constexpr size_t kUserOffset = 36;
constexpr size_t kSessionKeyOffset = 52;
constexpr size_t kAnswerFlagsOffset = 60;
// An answer by version 1 is 24 bytes; one by version 2 has 16, then at least 28 that it covers.
constexpr size_t kSmallestVersion2Response = 44;

uint16_t Number16(Span bytes, size_t offset) {
  return static_cast<uint16_t>(bytes[offset] | bytes[offset + 1] << 8);
}
uint32_t Number32(Span bytes, size_t offset) {
  return Number16(bytes, offset) | static_cast<uint32_t>(Number16(bytes, offset + 2)) << 16;
}

bool IsMessage(Span message, NtlmMessageType type, size_t smallestSize) {
  return message.size() >= smallestSize &&
         std::equal(kNtlmSignature.begin(), kNtlmSignature.end(), message.begin()) &&
         Number32(message, kTypeOffset) == static_cast<uint32_t>(type);
}

/// The part that the fields at `offset` tell of. False when it leaves the message.
bool GetPart(Span message, size_t offset, Span* part) {
  const size_t size = Number16(message, offset);
  const size_t start = Number32(message, offset + 4);
  if (start > message.size() || size > message.size() - start) return false;
  *part = message.subspan(start, size);
  return true;
}

/// Whether the list of pairs comes to its end inside `list`.
bool IsPairList(Span list) {
  while (list.size() >= 4) {
    const size_t size = Number16(list, 2);
    if (size > list.size() - 4) return false;
    if (Number16(list, 0) == kEndOfList) return size == 0;
    list = list.subspan(4 + size);
  }
  return false;
}

}  // namespace

void CheckNtlmChallenge(Span message) {
  Span name;
  Span info;
  const bool isChallenge = IsMessage(message, NtlmMessageType::kChallenge, kShortChallengeSize) &&
                           GetPart(message, kTargetNameOffset, &name);
  if (!isChallenge) throw std::runtime_error("the server's log-in message is malformed");
  if (message.size() < kChallengeSize) return;
  if (!GetPart(message, kTargetInfoOffset, &info) || (!info.empty() && !IsPairList(info)))
    throw std::runtime_error("the server's log-in message is malformed");
}

uint32_t NtlmChallengeFlags(Span challenge) {
  return Number32(challenge, kChallengeFlagsOffset);
}

bool IsNtlmVersion2Answer(Span message) {
  Span response;
  return IsMessage(message, NtlmMessageType::kAuthenticate, kAuthenticateSize) &&
         GetPart(message, kNtResponseOffset, &response) &&
         response.size() >= kSmallestVersion2Response;
}

NtlmAnswer ReadNtlmAnswer(Span message) {
  NtlmAnswer answer;
  const bool isWhole = IsNtlmVersion2Answer(message) &&
                       GetPart(message, kNtResponseOffset, &answer.response) &&
                       GetPart(message, kDomainOffset, &answer.domain) &&
                       GetPart(message, kUserOffset, &answer.user) &&
                       GetPart(message, kSessionKeyOffset, &answer.sessionKey);
  if (!isWhole) throw std::runtime_error("the log-in's answer is malformed");
  answer.flags = Number32(message, kAnswerFlagsOffset);
  return answer;
}

}  // namespace smb
