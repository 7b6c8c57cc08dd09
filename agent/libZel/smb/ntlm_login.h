#pragma once

#include <memory>
#include <span>
#include <string>

#include "agent/libZel/smb/ntlm_provider.h"
#include "libZel/string.h"

namespace smb {

/// The client's side of a log-in with NTLM version 2 ([MS-NLMP]), by the system's own means: GSSAPI
/// with its NTLMSSP mechanism, on Windows SSPI. What fails throws std::runtime_error with a
/// sentence for the log, which never holds the password. One thread at a time.
class NtlmLogin {
 public:
  /// `user` is "name", "DOMAIN\name" or "name@domain"; an empty one logs in anonymously (the
  /// password is then not looked at). A name with "@" is sent as it is, without a domain: such
  /// names are known to domains only. `server` is the server's address as the log-in names it.
  NtlmLogin(const ZelString& user, const ZelString& password, const std::string& server);
  ~NtlmLogin();
  NtlmLogin(const NtlmLogin&) = delete;
  NtlmLogin& operator=(const NtlmLogin&) = delete;

  /// The next token for the server: at first without one of the server's (NEGOTIATE_MESSAGE), then
  /// with its CHALLENGE_MESSAGE (AUTHENTICATE_MESSAGE). There is no third one.
  Bytes Next(std::span<const uint8_t> received);
  bool IsAnonymous() const { return isAnonymous_; }
  /// The 16 bytes of the exported session key, once the last token was made; of an anonymous
  /// log-in, none.
  Bytes SessionKey() const;

 private:
  enum class Step { kNegotiate, kAuthenticate, kDone };

  std::unique_ptr<NtlmProvider> provider_;
  bool isAnonymous_;
  Step step_ = Step::kNegotiate;
};

}  // namespace smb
