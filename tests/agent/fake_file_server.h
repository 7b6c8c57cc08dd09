#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "agent/libZel/network/byte_stream.h"
#include "agent/libZel/smb/bytes.h"
#include "agent/libZel/smb/messages.h"
#include "agent/libZel/smb/signing.h"

/// A file server without a network: it answers what is written, and its answers can be read. It
/// knows the user "ann" with the password "Password", who may open the share "docs".
/// What is read beyond its answers fails, as if it had closed the connection.
class FakeFileServer final : public ByteStream {
 public:
  using Bytes = smb::Bytes;
  using Command = smb::Command;

  static constexpr const char* kPassword = "Password";
  static constexpr uint64_t kSessionId = 0x1122334455667788;
  static constexpr uint32_t kTreeId = 7;

  std::string name = "server";  ///< its own, in the paths of shares
  smb::Dialect dialect = smb::Dialect::k311;
  uint16_t securityMode = smb::kSigningEnabled;
  uint16_t sessionFlags = 0;  ///< beside that of an anonymous session
  uint32_t shareFlags = 0;
  uint16_t credits = 1;  ///< granted by each answer
  /// Changes an answer before it is signed.
  std::function<void(Command, Bytes&)> change;
  /// Changes an answer that is otherwise ready.
  std::function<void(Command, Bytes&)> tamper;
  /// What is sent before an answer.
  std::function<Bytes(Command, const Bytes& answer)> before;

  /// Which commands came, in their order, and whether they were signed as they should be.
  std::vector<Command> commands;
  std::vector<bool> wereSigned;
  uint8_t demandedSigning = 0;  ///< by the last request of a log-in
  std::u16string user;
  std::u16string path;

  void Write(std::span<const uint8_t> bytes, Deadline deadline) override;
  void Read(std::span<uint8_t> bytes, Deadline deadline) override;

  /// All that was not read yet.
  Bytes TakeAnswers() { return std::exchange(answers_, {}); }

  /// A message behind its length.
  static Bytes Framed(const Bytes& message);

 private:
  void Answer(const Bytes& request);
  Bytes Begin(const Bytes& request, uint32_t status) const;
  Bytes Negotiate(const Bytes& request) const;
  Bytes SetUp(const Bytes& request);
  Bytes Connect(const Bytes& request);
  Bytes Empty(const Bytes& request) const;

  Bytes answers_;
  smb::PreauthHash preauth_;
  std::optional<smb::Key> key_;
  bool hasChallenged_ = false;
};
