#pragma once

#include <optional>

#include "agent/libZel/smb/encryption.h"
#include "agent/libZel/smb/netbios_session.h"
#include "agent/libZel/smb/signing.h"

namespace smb {

/// Requests and their answers, one after the other: numbers of messages, credits, signatures. What
/// fails throws std::runtime_error with a sentence for the log; no further request then makes
/// sense.
class Exchange {
 public:
  struct Answer {
    Header header;
    Bytes message;  ///< the whole of it
  };

  /// `session` is the caller's and outlives this object.
  explicit Exchange(NetbiosSession& session) : session_(session) {}

  /// The header of the next request.
  Header NextHeader(Command command) const;
  /// Sends the request, which has that header, and waits for its final answer, whatever that says.
  Answer Perform(Bytes request, Deadline deadline);

  /// Answers are from now on of this session only.
  void SetSession(uint64_t sessionId) { sessionId_ = sessionId; }
  uint64_t SessionId() const { return sessionId_; }
  /// Requests are from now on signed; an answer that is not counts as none, unless it says that the
  /// request has failed.
  void StartSigning(Dialect dialect, const Key& key);
  /// Requests are from now on encrypted instead; an answer that is not counts as none. What has
  /// begun goes on: a key must not start over.
  void StartEncryption(const Encryption& encryption);

 private:
  void Send(Bytes request, Deadline deadline);
  Answer Receive(Deadline deadline);
  void CheckBelongs(const Header& answer, Command command, uint64_t messageId) const;
  void CheckSignature(const Answer& answer) const;

  struct Signing {
    Dialect dialect;
    Key key;
  };

  NetbiosSession& session_;
  uint64_t nextMessageId_ = 0;
  uint64_t sessionId_ = 0;
  uint32_t credits_ = 1;
  std::optional<Signing> signing_;
  std::optional<Encryption> encryption_;
};

}  // namespace smb
