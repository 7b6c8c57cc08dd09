#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "agent/libZel/smb/bytes.h"

// The few messages of SMB 2 and 3 that a log-in and the opening of a share take ([MS-SMB2] section
// 2.2). Building never fails; parsing checks every length and throws std::runtime_error with a
// sentence for the log.

namespace smb {

enum class Dialect : uint16_t {
  k202 = 0x0202,
  k210 = 0x0210,
  k300 = 0x0300,
  k302 = 0x0302,
  k311 = 0x0311,
};

enum class Command : uint16_t {
  kNegotiate = 0,
  kSessionSetup = 1,
  kLogOff = 2,
  kTreeConnect = 3,
  kTreeDisconnect = 4,
};

constexpr uint32_t kFlagResponse = 0x00000001;
constexpr uint32_t kFlagAsync = 0x00000002;
constexpr uint32_t kFlagSigned = 0x00000008;

constexpr uint16_t kSigningEnabled = 0x0001;
constexpr uint16_t kSigningRequired = 0x0002;
constexpr uint32_t kCapabilityEncryption = 0x00000040;

constexpr uint16_t kSessionGuest = 0x0001;
constexpr uint16_t kSessionAnonymous = 0x0002;
constexpr uint16_t kSessionEncrypts = 0x0004;

constexpr uint32_t kShareEncrypts = 0x00008000;

/// Ciphers of encrypted messages ([MS-SMB2] section 2.2.3.1.2).
enum class Cipher : uint16_t { kAes128Ccm = 1, kAes128Gcm = 2 };

constexpr size_t kHeaderBytes = 64;
constexpr size_t kFlagsOffset = 16;
constexpr size_t kSignatureOffset = 48;
constexpr size_t kSignatureBytes = 16;

using Guid = std::array<uint8_t, 16>;
using Salt = std::array<uint8_t, 32>;

struct Header {
  Command command{};
  uint32_t status = 0;
  uint16_t credits = 0;  ///< asked for, or granted
  uint16_t creditCharge = 0;
  uint32_t flags = 0;
  uint64_t messageId = 0;
  uint32_t treeId = 0;  ///< of an asynchronous answer: 0
  uint64_t sessionId = 0;
};

/// Whether the message is one of version 1, which nobody speaks here.
bool IsVersion1(ByteView message);
/// Whether the message is an encrypted one.
bool IsEncrypted(ByteView message);

/// The header of an answer, which must be a single one.
Header ParseHeader(ByteView message);
/// Where the number of a message stands in its header, and its command.
constexpr size_t kCommandOffset = 12;
constexpr size_t kMessageIdOffset = 24;

Bytes BuildNegotiate(const Header& header, const Guid& client, const Salt& salt);
/// `signing` is kSigningEnabled or kSigningRequired, the client's own demand.
Bytes BuildSessionSetup(const Header& header, uint16_t signing, ByteView token);
/// `path` is UTF-16 in little-endian order.
Bytes BuildTreeConnect(const Header& header, ByteView path);
/// Log-off and tree disconnect have no content.
Bytes BuildEmpty(const Header& header);

struct NegotiateReply {
  uint16_t securityMode = 0;
  Dialect dialect{};
  uint32_t capabilities = 0;
  /// What the server has chosen to encrypt with; nothing where it cannot.
  std::optional<Cipher> cipher;
};
/// The dialect must be one of those that `BuildNegotiate` offers; of 3.1.1 the hash of the
/// pre-authentication integrity too.
NegotiateReply ParseNegotiateReply(ByteView message);

struct SessionSetupReply {
  uint16_t flags = 0;
  Bytes token;
};
SessionSetupReply ParseSessionSetupReply(ByteView message);

struct TreeConnectReply {
  uint8_t shareType = 0;
  uint32_t shareFlags = 0;
};
TreeConnectReply ParseTreeConnectReply(ByteView message);

/// Answers to log-off and tree disconnect.
void ParseEmptyReply(ByteView message);

/// "3.1.1", for the log.
const char* NameOf(Dialect dialect);

}  // namespace smb
