#include "agent/libZel/smb/messages.h"

#include <algorithm>
#include <iterator>
#include <stdexcept>
#include <utility>

namespace smb {

namespace {

constexpr uint32_t kVersion1 = 0x424D53FF;
constexpr uint32_t kVersion2 = 0x424D53FE;
constexpr uint32_t kTransform = 0x424D53FD;

constexpr Dialect kDialects[] = {Dialect::k202, Dialect::k210, Dialect::k300, Dialect::k302,
                                 Dialect::k311};

// Negotiate contexts, section 2.2.3.1.
constexpr uint16_t kPreauthContext = 1;
constexpr uint16_t kEncryptionContext = 2;
constexpr uint16_t kSha512 = 1;
constexpr Cipher kCiphers[] = {Cipher::kAes128Gcm, Cipher::kAes128Ccm};

[[noreturn]] void Reject(const char* why) {
  throw std::runtime_error(why);
}

ByteWriter Begin(const Header& header) {
  ByteWriter writer;
  writer.U32(kVersion2).U16(kHeaderBytes).U16(header.creditCharge).U32(0);
  writer.U16(static_cast<uint16_t>(header.command)).U16(header.credits).U32(header.flags).U32(0);
  writer.U64(header.messageId).U32(0).U32(header.treeId).U64(header.sessionId);
  return std::move(writer.Zeros(kSignatureBytes));
}

/// The content of an answer, which begins with its own size.
ByteReader Content(ByteView message, uint16_t structureSize) {
  const ByteReader content(ByteReader(message).Part(
      kHeaderBytes, message.size() - std::min(message.size(), kHeaderBytes)));
  if (content.U16(0) != structureSize)
    Reject("the server's answer has another form than it should");
  return content;
}

/// What an answer carries at a place that it names; without a length the place means nothing.
ByteView Carried(ByteView message, uint16_t offset, uint16_t length) {
  return length == 0 ? ByteView() : ByteReader(message).Part(offset, length);
}

Bytes PreauthData(const Salt& salt) {
  ByteWriter data;
  data.U16(1).U16(static_cast<uint16_t>(salt.size())).U16(kSha512).Raw(salt);
  return data.Take();
}

Bytes EncryptionData() {
  ByteWriter data;
  data.U16(static_cast<uint16_t>(std::size(kCiphers)));
  for (const Cipher cipher : kCiphers) data.U16(static_cast<uint16_t>(cipher));
  return data.Take();
}

void AppendContext(ByteWriter& writer, uint16_t type, ByteView data) {
  writer.AlignTo8().U16(type).U16(static_cast<uint16_t>(data.size())).U32(0).Raw(data);
}

void CheckPreauth(const ByteReader& data) {
  const bool isSha512 = data.U16(0) == 1 && data.U16(4) == kSha512;
  data.Part(6, data.U16(2));
  if (!isSha512) Reject("the server chooses a hash that was not offered");
}

std::optional<Cipher> ParseCipher(const ByteReader& data) {
  if (data.U16(0) != 1) Reject("the server's answer does not name one cipher");
  const uint16_t chosen = data.U16(2);
  // Its way to say that it cannot encrypt.
  if (chosen == 0) return std::nullopt;
  const auto* const cipher = std::find(std::begin(kCiphers), std::end(kCiphers), Cipher{chosen});
  if (cipher == std::end(kCiphers)) Reject("the server chooses a cipher that was not offered");
  return *cipher;
}

/// The contexts of an answer that chooses 3.1.1.
std::optional<Cipher> ParseContexts(const ByteReader& message, size_t offset, uint16_t count) {
  bool hasPreauth = false;
  bool hasCipher = false;
  std::optional<Cipher> cipher;
  for (uint16_t i = 0; i < count; ++i) {
    const uint16_t type = message.U16(offset);
    const uint16_t length = message.U16(offset + 2);
    const ByteReader data(message.Part(offset + 8, length));
    const bool isAgain = (type == kPreauthContext && std::exchange(hasPreauth, true)) ||
                         (type == kEncryptionContext && std::exchange(hasCipher, true));
    if (isAgain) Reject("the server's answer chooses twice");
    if (type == kPreauthContext) CheckPreauth(data);
    if (type == kEncryptionContext) cipher = ParseCipher(data);
    offset += 8 + (size_t{length} + 7) / 8 * 8;
  }
  if (!hasPreauth) Reject("the server does not protect the negotiation");
  return cipher;
}

}  // namespace

bool IsVersion1(ByteView message) {
  return message.size() >= 4 && ByteReader(message).U32(0) == kVersion1;
}

bool IsEncrypted(ByteView message) {
  return message.size() >= 4 && ByteReader(message).U32(0) == kTransform;
}

Header ParseHeader(ByteView message) {
  if (IsVersion1(message)) Reject("the server speaks version 1 of SMB only");
  const ByteReader reader(message);
  if (reader.U32(0) != kVersion2 || reader.U16(4) != kHeaderBytes)
    Reject("the server's answer is none of SMB 2 or 3");
  Header header;
  header.creditCharge = reader.U16(6);
  header.status = reader.U32(8);
  header.command = Command{reader.U16(12)};
  header.credits = reader.U16(14);
  header.flags = reader.U32(kFlagsOffset);
  header.messageId = reader.U64(24);
  const bool isAsync = (header.flags & kFlagAsync) != 0;
  header.treeId = isAsync ? 0 : reader.U32(36);
  header.sessionId = reader.U64(40);
  reader.Part(kSignatureOffset, kSignatureBytes);
  if ((header.flags & kFlagResponse) == 0) Reject("the server's answer is a request");
  if (reader.U32(20) != 0) Reject("the server answers with more than was asked for");
  return header;
}

Bytes BuildNegotiate(const Header& header, const Guid& client, const Salt& salt) {
  constexpr size_t kFixedBytes = 36;
  constexpr auto kCount = static_cast<uint16_t>(std::size(kDialects));
  constexpr size_t kContextsOffset = (kHeaderBytes + kFixedBytes + 2 * kCount + 7) / 8 * 8;
  ByteWriter writer = Begin(header);
  writer.U16(kFixedBytes).U16(kCount).U16(kSigningEnabled).U16(0).U32(kCapabilityEncryption);
  writer.Raw(client).U32(kContextsOffset).U16(2).U16(0);
  for (const Dialect dialect : kDialects) writer.U16(static_cast<uint16_t>(dialect));
  AppendContext(writer, kPreauthContext, PreauthData(salt));
  AppendContext(writer, kEncryptionContext, EncryptionData());
  return writer.Take();
}

Bytes BuildSessionSetup(const Header& header, uint16_t signing, ByteView token) {
  constexpr uint16_t kTokenOffset = kHeaderBytes + 24;
  if (token.size() > 0xFFFF) Reject("the log-in's token is too long");
  ByteWriter writer = Begin(header);
  writer.U16(25).U8(0).U8(static_cast<uint8_t>(signing)).U32(0).U32(0);
  writer.U16(kTokenOffset).U16(static_cast<uint16_t>(token.size())).U64(0).Raw(token);
  return writer.Take();
}

Bytes BuildTreeConnect(const Header& header, ByteView path) {
  constexpr uint16_t kPathOffset = kHeaderBytes + 8;
  if (path.size() > 0xFFFF) Reject("the share's name is too long");
  ByteWriter writer = Begin(header);
  writer.U16(9).U16(0).U16(kPathOffset).U16(static_cast<uint16_t>(path.size())).Raw(path);
  return writer.Take();
}

Bytes BuildEmpty(const Header& header) {
  return Begin(header).U16(4).U16(0).Take();
}

NegotiateReply ParseNegotiateReply(ByteView message) {
  const ByteReader content = Content(message, 65);
  NegotiateReply reply;
  reply.securityMode = content.U16(2);
  reply.dialect = Dialect{content.U16(4)};
  reply.capabilities = content.U32(24);
  // A hint for the log-in, which is not taken: only its place is looked at.
  Carried(message, content.U16(56), content.U16(58));
  content.Part(0, 64);
  if (std::find(std::begin(kDialects), std::end(kDialects), reply.dialect) == std::end(kDialects))
    Reject("the server chooses a dialect that was not offered");

  if (reply.dialect == Dialect::k311) {
    reply.cipher = ParseContexts(ByteReader(message), content.U32(60), content.U16(6));
  } else if (reply.dialect >= Dialect::k300 && (reply.capabilities & kCapabilityEncryption) != 0) {
    reply.cipher = Cipher::kAes128Ccm;
  }
  return reply;
}

SessionSetupReply ParseSessionSetupReply(ByteView message) {
  const ByteReader content = Content(message, 9);
  const ByteView token = Carried(message, content.U16(4), content.U16(6));
  return {content.U16(2), Bytes(token.begin(), token.end())};
}

TreeConnectReply ParseTreeConnectReply(ByteView message) {
  const ByteReader content = Content(message, 16);
  content.Part(0, 16);
  return {content.U8(2), content.U32(4)};
}

void ParseEmptyReply(ByteView message) {
  Content(message, 4).Part(0, 4);
}

const char* NameOf(Dialect dialect) {
  switch (dialect) {
    case Dialect::k202:
      return "2.0.2";
    case Dialect::k210:
      return "2.1";
    case Dialect::k300:
      return "3.0";
    case Dialect::k302:
      return "3.0.2";
    case Dialect::k311:
      return "3.1.1";
  }
  return "unknown";
}

}  // namespace smb
