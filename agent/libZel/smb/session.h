#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

#include "agent/libZel/smb/exchange.h"
#include "libZel/smb.h"
#include "libZel/string.h"

namespace smb {

/// The server has understood the request and says no.
class Refusal : public std::runtime_error {
 public:
  explicit Refusal(uint32_t status);
};

/// An SMB session on a connection: negotiation, log-in, shares, log-off, in this order. A step that
/// fails throws: `Refusal`, after which the session is what it was before, or another
/// std::runtime_error, after which the connection is good for nothing more.
class Session {
 public:
  /// `transport` is the caller's and outlives this object. `server` is the server's address as
  /// text.
  Session(NetbiosSession& transport, std::string server);

  void Negotiate(Deadline deadline);
  void LogIn(const ZelString& user, const ZelString& password, Deadline deadline);
  void OpenShare(const ZelString& share, _CsSmbTreeInfo& tree, Deadline deadline);
  void CloseShare(const _CsSmbTreeInfo& tree, Deadline deadline);
  void LogOff(Deadline deadline);

 private:
  struct LoggedIn {
    Exchange::Answer answer;
    uint16_t flags;
  };

  void CheckLogIn(const LoggedIn& end, bool isAnonymous, ByteView sessionKey);
  void StartEncryption();
  Exchange::Answer Ask(const Bytes& request, Deadline deadline);

  const std::string server_;
  Exchange exchange_;
  PreauthHash preauth_;
  NegotiateReply agreed_;
  /// Where both sides can.
  std::optional<EncryptionKeys> encryptionKeys_;
};

}  // namespace smb
