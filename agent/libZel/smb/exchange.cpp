#include "agent/libZel/smb/exchange.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "agent/libZel/smb/nt_status.h"

namespace smb {

namespace {

/// More than a log-in takes; how many the server grants is its own affair.
constexpr uint16_t kCreditsAskedFor = 8;
constexpr uint32_t kMostCredits = 0xFFFF;
/// Of one request; servers send one.
constexpr int kMostInterims = 16;

bool IsInterim(const Header& answer) {
  return answer.status == kStatusPending && (answer.flags & kFlagAsync) != 0;
}

}  // namespace

Header Exchange::NextHeader(Command command) const {
  Header header;
  header.command = command;
  header.credits = kCreditsAskedFor;
  header.messageId = nextMessageId_;
  header.sessionId = sessionId_;
  return header;
}

Exchange::Answer Exchange::Perform(Bytes request, Deadline deadline) {
  if (credits_ == 0) throw std::runtime_error("the server grants no further request");
  --credits_;
  ++nextMessageId_;
  const ByteReader asked(request);
  const uint64_t messageId = asked.U64(kMessageIdOffset);
  const Command command{asked.U16(kCommandOffset)};
  Send(std::move(request), deadline);

  for (int interims = 0; interims <= kMostInterims; ++interims) {
    Answer answer = Receive(deadline);
    CheckBelongs(answer.header, command, messageId);
    credits_ = std::min(credits_ + answer.header.credits, kMostCredits);
    // It says nothing but that the final answer takes its time, and need not be signed.
    if (IsInterim(answer.header)) continue;
    CheckSignature(answer);
    return answer;
  }
  throw std::runtime_error("the server puts off its answer without an end");
}

void Exchange::Send(Bytes request, Deadline deadline) {
  if (encryption_) return session_.Send(encryption_->Encrypt(request), deadline);
  if (signing_) Sign(signing_->dialect, signing_->key, request);
  session_.Send(request, deadline);
}

Exchange::Answer Exchange::Receive(Deadline deadline) {
  Answer answer;
  answer.message = session_.Receive(deadline);
  if (IsEncrypted(answer.message) != encryption_.has_value()) {
    throw std::runtime_error(encryption_ ? "the server's answer is not encrypted"
                                         : "the server's answer is encrypted, which is too early");
  }
  if (encryption_) answer.message = encryption_->Decrypt(answer.message);
  answer.header = ParseHeader(answer.message);
  return answer;
}

void Exchange::StartSigning(Dialect dialect, const Key& key) {
  signing_ = Signing{dialect, key};
}

void Exchange::StartEncryption(const Encryption& encryption) {
  if (!encryption_) encryption_ = encryption;
}

void Exchange::CheckBelongs(const Header& answer, Command command, uint64_t messageId) const {
  const bool isOfSession = sessionId_ == 0 || answer.sessionId == sessionId_;
  if (answer.messageId != messageId || answer.command != command || !isOfSession)
    throw std::runtime_error("the server answers another request");
}

void Exchange::CheckSignature(const Answer& answer) const {
  // Nobody can change an encrypted answer, nor make one.
  if (encryption_) return;
  if (!signing_ || IsSignedWith(signing_->dialect, signing_->key, answer.message)) return;
  const bool isSigned = (answer.header.flags & kFlagSigned) != 0;
  if (isSigned) throw std::runtime_error("the signature of the server's answer is wrong");
  // Servers that do not know the session any more cannot sign.
  if (answer.header.status != kStatusSuccess) return;
  throw std::runtime_error("the server's answer is not signed");
}

}  // namespace smb
