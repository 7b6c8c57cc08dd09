#include "agent/libZel/smb/ntlm_login.h"

#include <stdexcept>

namespace smb {

struct NtlmLogin::Implementation {};

NtlmLogin::NtlmLogin(const ZelString& user, const ZelString&, const std::string&)
    : isAnonymous_(user.IsEmpty()) {}
NtlmLogin::~NtlmLogin() = default;

Bytes NtlmLogin::Next(std::span<const uint8_t>) {
  throw std::runtime_error("not there yet");
}
Bytes NtlmLogin::SessionKey() const {
  return {};
}

}  // namespace smb
