#include "agent/libZel/smb/ntlm_login.h"

#include <algorithm>
#include <stdexcept>
#include <string_view>

#include "agent/libZel/smb/anonymous_login.h"
#include "agent/libZel/smb/ntlm_message.h"
#include "agent/libZel/wtf8.h"

namespace smb {
namespace {

/// UNLEN and PWLEN of Windows, in UTF-16 units. Providers there keep names and passwords in buffers
/// of that size, and not all of them look whether they fit.
constexpr size_t kMaxCharacters = 256;

/// In UTF-16 units, counted without a copy in UTF-16 that nobody would wipe.
size_t CountUnits(std::string_view wtf8) {
  size_t units = 0;
  uint32_t character = 0;
  while (!wtf8.empty()) {
    const size_t size = DecodeWtf8(wtf8, &character);
    units += character >= 0x10000 && size > 0 ? 2 : 1;
    wtf8.remove_prefix(std::max<size_t>(size, 1));
  }
  return units;
}

void CheckText(const ZelString& text) {
  // Providers take texts that end with a NUL: they must not end before that.
  if (text.Utf8().find('\0') != std::string_view::npos)
    throw std::runtime_error("the user or the password holds a NUL character");
  if (CountUnits(text.Utf8()) > kMaxCharacters)
    throw std::runtime_error("the user or the password has more than 256 characters");
}

NtlmAccount SplitUser(const ZelString& user) {
  const size_t separator = user.Find("\\");
  if (separator == ZelString::kNotFound) return {.domain = {}, .name = user};
  return {.domain = user.SubString(0, separator), .name = user.SubString(separator + 1)};
}

std::unique_ptr<NtlmProvider> MakeProvider(const ZelString& user, const ZelString& password,
                                           const std::string& server) {
  if (user.IsEmpty()) return std::make_unique<AnonymousLogin>();
  const NtlmAccount account = SplitUser(user);
  if (account.name.IsEmpty()) throw std::runtime_error("the user has a domain but no name");
  CheckText(account.domain);
  CheckText(account.name);
  CheckText(password);
  return MakeSystemNtlmProvider(account, password, server);
}

}  // namespace

NtlmLogin::NtlmLogin(const ZelString& user, const ZelString& password, const std::string& server)
    : provider_(MakeProvider(user, password, server)), isAnonymous_(user.IsEmpty()) {}

NtlmLogin::~NtlmLogin() = default;

Bytes NtlmLogin::Next(std::span<const uint8_t> received) {
  if (step_ == Step::kNegotiate) {
    if (!received.empty()) throw std::runtime_error("the server began the log-in itself");
    step_ = Step::kAuthenticate;
    return provider_->Negotiate();
  }
  if (step_ == Step::kDone) throw std::runtime_error("the server does not come to an end");

  // A failure leaves nothing to go on with.
  step_ = Step::kDone;
  CheckNtlmChallenge(received);
  Bytes answer = provider_->Authenticate(received);
  // What the system is set to must not make the password guessable.
  if (!isAnonymous_ && !IsNtlmVersion2Answer(answer))
    throw std::runtime_error("this system does not log in with version 2 of NTLM");
  return answer;
}

Bytes NtlmLogin::SessionKey() const {
  return provider_->SessionKey();
}

}  // namespace smb
