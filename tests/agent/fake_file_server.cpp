#include "tests/agent/fake_file_server.h"

#include <algorithm>
#include <array>
#include <stdexcept>

#include "agent/libZel/smb/nt_status.h"
#include "tests/agent/ntlm_verifier.h"

using namespace smb;

namespace {

constexpr uint8_t kSessionRequest = 0x81;
constexpr std::array<uint8_t, 16> kPasswordHash = {0xA4, 0xF4, 0x9C, 0x40, 0x65, 0x10, 0xBD, 0xCA,
                                                   0xB6, 0x82, 0x4E, 0xE7, 0xC3, 0x0F, 0xD8, 0x52};
constexpr uint32_t kLogonFailure = 0xC000006D;
constexpr uint32_t kBadNetworkName = 0xC00000CC;

std::u16string TextIn(ByteView bytes) {
  std::u16string text;
  for (size_t i = 0; i + 1 < bytes.size(); i += 2)
    text += static_cast<char16_t>(bytes[i] | bytes[i + 1] << 8);
  return text;
}

void AddTo(Bytes& bytes, const Bytes& tail) {
  bytes.insert(bytes.end(), tail.begin(), tail.end());
}

}  // namespace

void FakeFileServer::Write(std::span<const uint8_t> bytes, Deadline) {
  if (bytes[0] == kSessionRequest) return AddTo(answers_, {0x82, 0, 0, 0});
  Answer(Bytes(bytes.begin() + 4, bytes.end()));
}

void FakeFileServer::Read(std::span<uint8_t> bytes, Deadline) {
  if (bytes.size() > answers_.size())
    throw std::runtime_error("receiving: the other side closed the connection");
  std::copy_n(answers_.begin(), bytes.size(), bytes.begin());
  answers_.erase(answers_.begin(), answers_.begin() + static_cast<ptrdiff_t>(bytes.size()));
}

FakeFileServer::Bytes FakeFileServer::Framed(const Bytes& message) {
  const size_t length = message.size();
  Bytes framed = {0, static_cast<uint8_t>(length >> 16), static_cast<uint8_t>(length >> 8),
                  static_cast<uint8_t>(length)};
  AddTo(framed, message);
  return framed;
}

void FakeFileServer::Answer(const Bytes& request) {
  const Command command{ByteReader(request).U16(kCommandOffset)};
  commands.push_back(command);
  wereSigned.push_back(key_ && IsSignedWith(dialect, *key_, request));

  const bool isBeforeLogIn = command <= Command::kSessionSetup;
  if (isBeforeLogIn) preauth_.Add(request);
  Bytes answer;
  if (command == Command::kNegotiate) answer = Negotiate(request);
  if (command == Command::kSessionSetup) answer = SetUp(request);
  if (command == Command::kTreeConnect) answer = Connect(request);
  if (command > Command::kTreeConnect || command == Command::kLogOff) answer = Empty(request);

  if (change) change(command, answer);
  if (key_) Sign(dialect, *key_, answer);
  if (tamper) tamper(command, answer);
  if (isBeforeLogIn && !key_) preauth_.Add(answer);
  if (before) AddTo(answers_, before(command, answer));
  AddTo(answers_, Framed(answer));
}

FakeFileServer::Bytes FakeFileServer::Begin(const Bytes& request, uint32_t status) const {
  const ByteReader asked(request);
  ByteWriter answer;
  answer.U32(0x424D53FE).U16(64).U16(1).U32(status).U16(asked.U16(kCommandOffset)).U16(credits);
  answer.U32(kFlagResponse).U32(0).U64(asked.U64(kMessageIdOffset)).U32(0);
  const bool isTreeConnect = Command{asked.U16(kCommandOffset)} == Command::kTreeConnect;
  answer.U32(isTreeConnect ? kTreeId : asked.U32(36));
  answer.U64(hasChallenged_ ? kSessionId : 0).Zeros(kSignatureBytes);
  return answer.Take();
}

FakeFileServer::Bytes FakeFileServer::Negotiate(const Bytes& request) const {
  const bool hasContexts = dialect == Dialect::k311;
  ByteWriter body;
  body.Raw(Begin(request, kStatusSuccess));
  body.U16(65).U16(securityMode).U16(static_cast<uint16_t>(dialect)).U16(hasContexts ? 1 : 0);
  body.Zeros(16).U32(0).U32(65536).U32(65536).U32(65536).U64(0).U64(0);
  body.U16(128).U16(0).U32(hasContexts ? 128 : 0);
  if (!hasContexts) return body.Take();
  body.U16(1).U16(6 + 32).U32(0).U16(1).U16(32).U16(1).Zeros(32);
  return body.Take();
}

FakeFileServer::Bytes FakeFileServer::SetUp(const Bytes& request) {
  const ByteReader asked(request);
  const ByteView token = asked.Part(asked.U16(kHeaderBytes + 12), asked.U16(kHeaderBytes + 14));
  demandedSigning = asked.U8(kHeaderBytes + 3);
  Bytes challenge;
  uint32_t status = kStatusSuccess;
  uint16_t flags = sessionFlags;
  if (!hasChallenged_) {
    hasChallenged_ = true;
    challenge = NtlmVerifier::Challenge();
    status = kStatusMoreProcessing;
  } else {
    const NtlmVerifier proof(token);
    user = proof.User();
    const bool isRight = user.empty() || (user == u"ann" && proof.IsMadeWith(kPasswordHash));
    if (!isRight) status = kLogonFailure;
    if (user.empty()) flags |= kSessionAnonymous;
    if (status == kStatusSuccess && (flags & (kSessionAnonymous | kSessionGuest)) == 0)
      key_ = SigningKey(dialect, proof.SessionKey(kPasswordHash), preauth_);
  }
  ByteWriter body;
  body.Raw(Begin(request, status)).U16(9).U16(flags).U16(72);
  return body.U16(static_cast<uint16_t>(challenge.size())).Raw(challenge).Take();
}

FakeFileServer::Bytes FakeFileServer::Connect(const Bytes& request) {
  const ByteReader asked(request);
  path = TextIn(asked.Part(asked.U16(kHeaderBytes + 4), asked.U16(kHeaderBytes + 6)));
  const bool isThere = path == u"\\\\" + std::u16string(name.begin(), name.end()) + u"\\docs";
  ByteWriter body;
  body.Raw(Begin(request, isThere ? kStatusSuccess : kBadNetworkName));
  return body.U16(16).U8(1).U8(0).U32(shareFlags).U32(0).U32(0x1FF).Take();
}

FakeFileServer::Bytes FakeFileServer::Empty(const Bytes& request) const {
  ByteWriter body;
  return body.Raw(Begin(request, kStatusSuccess)).U16(4).U16(0).Take();
}
