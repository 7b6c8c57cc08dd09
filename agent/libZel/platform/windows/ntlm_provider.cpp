#include "agent/libZel/smb/ntlm_provider.h"

#define SECURITY_WIN32
#include <windows.h>

#include <security.h>

#include <cstdio>
#include <stdexcept>

#include "agent/libZel/platform/windows/ntlm_session_key.h"
#include "agent/libZel/smb/wide_secret.h"
#include "agent/libZel/system_error_text.h"

namespace smb {
namespace {

constexpr size_t kSessionKeySize = 16;

void Check(SECURITY_STATUS status, const char* what) {
  if (!FAILED(status)) return;
  char number[16];
  std::snprintf(number, sizeof number, "0x%08lX", static_cast<unsigned long>(status));
  throw std::runtime_error(std::string(what) + ": " + SystemErrorText(status) + " (" + number +
                           ")");
}

class SspiProvider : public NtlmProvider {
 public:
  SspiProvider(const NtlmAccount& account, const ZelString& password, const std::string& server)
      : target_(ZelString("cifs/" + server)), passwordDigest_(password) {
    WideSecret name(account.name.Utf8());
    WideSecret domain(account.domain.Utf8());
    WideSecret secret(password.Utf8());
    SEC_WINNT_AUTH_IDENTITY_W identity = {};
    identity.User = name.Get();
    identity.UserLength = static_cast<unsigned long>(name.View().size());
    identity.Domain = domain.Get();
    identity.DomainLength = static_cast<unsigned long>(domain.View().size());
    identity.Password = secret.Get();
    identity.PasswordLength = static_cast<unsigned long>(secret.View().size());
    identity.Flags = SEC_WINNT_AUTH_IDENTITY_UNICODE;

    wchar_t package[] = L"NTLM";
    TimeStamp expiry = {};
    const SECURITY_STATUS status =
        AcquireCredentialsHandleW(nullptr, package, SECPKG_CRED_OUTBOUND, nullptr, &identity,
                                  nullptr, nullptr, &credentials_, &expiry);
    Check(status, "the user and the password were not taken");
  }

  ~SspiProvider() override {
    if (SecIsValidHandle(&context_)) DeleteSecurityContext(&context_);
    FreeCredentialsHandle(&credentials_);
  }

  Bytes Negotiate() override { return Step(nullptr); }

  Bytes Authenticate(std::span<const uint8_t> challenge) override {
    SecBuffer token = {static_cast<unsigned long>(challenge.size()), SECBUFFER_TOKEN,
                       const_cast<uint8_t*>(challenge.data())};
    SecBufferDesc input = {SECBUFFER_VERSION, 1, &token};
    answer_ = Step(&input);
    return answer_;
  }

  Bytes SessionKey() const override {
    SecPkgContext_SessionKey key = {};
    CtxtHandle context = context_;
    const SECURITY_STATUS status = QueryContextAttributesW(&context, SECPKG_ATTR_SESSION_KEY, &key);
    // Wine's provider does not tell it.
    if (status == SEC_E_UNSUPPORTED_FUNCTION) return SessionKeyOfAnswer(answer_, passwordDigest_);
    Check(status, "the log-in has no session key");
    Bytes bytes(key.SessionKey, key.SessionKey + key.SessionKeyLength);
    SecureZeroMemory(key.SessionKey, key.SessionKeyLength);
    FreeContextBuffer(key.SessionKey);
    if (bytes.size() != kSessionKeySize)
      throw std::runtime_error("the log-in's session key has an unexpected size");
    return bytes;
  }

 private:
  Bytes Step(SecBufferDesc* input) {
    // Integrity makes both sides agree on a session key.
    constexpr unsigned long kRequest =
        ISC_REQ_ALLOCATE_MEMORY | ISC_REQ_CONNECTION | ISC_REQ_INTEGRITY;
    SecBuffer token = {0, SECBUFFER_TOKEN, nullptr};
    SecBufferDesc output = {SECBUFFER_VERSION, 1, &token};
    unsigned long attributes = 0;
    TimeStamp expiry = {};
    const SECURITY_STATUS status = InitializeSecurityContextW(
        &credentials_, input != nullptr ? &context_ : nullptr,
        const_cast<wchar_t*>(target_.GetTCHAR()), kRequest, 0, SECURITY_NATIVE_DREP, input, 0,
        &context_, &output, &attributes, &expiry);
    Check(status, "the log-in could not answer the server");
    const auto* const first = static_cast<const uint8_t*>(token.pvBuffer);
    Bytes bytes(first, first + token.cbBuffer);
    FreeContextBuffer(token.pvBuffer);
    return bytes;
  }

  const ZelString target_;
  const PasswordDigest passwordDigest_;
  Bytes answer_;
  CredHandle credentials_ = {};
  CtxtHandle context_ = {static_cast<ULONG_PTR>(-1), static_cast<ULONG_PTR>(-1)};
};

}  // namespace

std::unique_ptr<NtlmProvider> MakeSystemNtlmProvider(const NtlmAccount& account,
                                                     const ZelString& password,
                                                     const std::string& server) {
  return std::make_unique<SspiProvider>(account, password, server);
}

}  // namespace smb
