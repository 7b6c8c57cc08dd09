#include "agent/libZel/smb/ntlm_provider.h"

#include <gssapi/gssapi.h>
#include <gssapi/gssapi_ext.h>
#include <openssl/crypto.h>

#include <array>
#include <stdexcept>

#include "agent/libZel/smb/password_digest.h"
#include "agent/libZel/wtf8.h"

namespace smb {
namespace {

// The library's own constants are data, which cannot be loaded at first use as functions can.
// 1.3.6.1.4.1.311.2.2.10
gss_OID_desc ntlmMechanism = {10, const_cast<char*>("\x2b\x06\x01\x04\x01\x82\x37\x02\x02\x0a")};
// 1.2.840.113554.1.2.1.1
gss_OID_desc userNameType = {10, const_cast<char*>("\x2a\x86\x48\x86\xf7\x12\x01\x02\x01\x01")};
// 1.2.840.113554.1.2.1.4: "service@host"
gss_OID_desc serviceNameType = {10, const_cast<char*>("\x2a\x86\x48\x86\xf7\x12\x01\x02\x01\x04")};
// 1.2.840.113554.1.2.2.5.5
gss_OID_desc sessionKeyQuestion = {
    11, const_cast<char*>("\x2a\x86\x48\x86\xf7\x12\x01\x02\x02\x05\x05")};

constexpr size_t kSessionKeySize = 16;
constexpr size_t kDigestSize = 16;

/// What GSSAPI allocated.
class Buffer {
 public:
  Buffer() = default;
  ~Buffer() {
    OM_uint32 ignored = 0;
    if (value_.value != nullptr) gss_release_buffer(&ignored, &value_);
  }
  Buffer(const Buffer&) = delete;
  Buffer& operator=(const Buffer&) = delete;

  gss_buffer_t Place() { return &value_; }
  std::string_view Text() const { return {static_cast<const char*>(value_.value), value_.length}; }
  Bytes Copy() const {
    const auto* const first = static_cast<const uint8_t*>(value_.value);
    return {first, first + value_.length};
  }

 private:
  gss_buffer_desc value_ = GSS_C_EMPTY_BUFFER;
};

class Name {
 public:
  Name() = default;
  ~Name() {
    OM_uint32 ignored = 0;
    if (value_ != GSS_C_NO_NAME) gss_release_name(&ignored, &value_);
  }
  Name(const Name&) = delete;
  Name& operator=(const Name&) = delete;

  gss_name_t* Place() { return &value_; }
  gss_name_t Get() const { return value_; }

 private:
  gss_name_t value_ = GSS_C_NO_NAME;
};

std::string GssStatusText(OM_uint32 status, int kind) {
  std::string text;
  OM_uint32 more = 0;
  do {
    Buffer part;
    OM_uint32 ignored = 0;
    if (GSS_ERROR(gss_display_status(&ignored, status, kind, &ntlmMechanism, &more, part.Place())))
      break;
    // Some of the texts come with their terminator.
    text += (text.empty() ? "" : ", ");
    text += std::string_view(part.Text().substr(0, part.Text().find('\0')));
  } while (more != 0);
  return text;
}

void Check(OM_uint32 major, OM_uint32 minor, const std::string& what) {
  if (!GSS_ERROR(major)) return;
  if (GSS_ROUTINE_ERROR(major) == GSS_S_BAD_MECH)
    throw std::runtime_error("GSSAPI has no NTLMSSP mechanism here (gss-ntlmssp)");
  // The general failure says no more than that the mechanism knows the reason.
  const bool knowsReason = GSS_ROUTINE_ERROR(major) == GSS_S_FAILURE && minor != 0;
  throw std::runtime_error(
      what + ": " +
      (knowsReason ? GssStatusText(minor, GSS_C_MECH_CODE) : GssStatusText(major, GSS_C_GSS_CODE)));
}

void Import(const std::string& text, gss_OID type, Name* name) {
  OM_uint32 minor = 0;
  gss_buffer_desc buffer = {text.size(), const_cast<char*>(text.data())};
  const OM_uint32 major = gss_import_name(&minor, &buffer, type, name->Place());
  Check(major, minor, "the log-in's name was not taken");
}

/// The account as the mechanism reads it, which would take "name@domain" apart at the sign and
/// takes it whole when the sign is escaped.
std::string MechanismName(const NtlmAccount& account) {
  std::string name(account.name.Utf8());
  if (!account.domain.IsEmpty()) return std::string(account.domain.Utf8()) + "\\" + name;
  const size_t sign = name.find('@');
  if (sign != std::string::npos) name.insert(sign, "\\");
  return name;
}

/// Sixteen bytes as the mechanism reads them, wiped with the object.
class HexText {
 public:
  explicit HexText(std::span<const uint8_t, kDigestSize> bytes) {
    constexpr char kDigits[] = "0123456789ABCDEF";
    char* place = text_.data();
    for (const uint8_t byte : bytes) {
      *place++ = kDigits[byte >> 4];
      *place++ = kDigits[byte & 0xF];
    }
  }
  ~HexText() { OPENSSL_cleanse(text_.data(), text_.size()); }
  HexText(const HexText&) = delete;
  HexText& operator=(const HexText&) = delete;

  const char* Get() const { return text_.data(); }

 private:
  std::array<char, 2 * kDigestSize + 1> text_ = {};
};

class GssapiProvider : public NtlmProvider {
 public:
  GssapiProvider(const NtlmAccount& account, const ZelString& password, const std::string& server) {
    if (!IsUtf8(account.name.Utf8()) || !IsUtf8(account.domain.Utf8()) || !IsUtf8(password.Utf8()))
      throw std::runtime_error("the user or the password is not valid Unicode");
    Import("cifs@" + server, &serviceNameType, &server_);
    Name user;
    Import(MechanismName(account), &userNameType, &user);

    // The mechanism takes the password, too, but no empty one, and loses the memory in which it
    // digests it.
    const PasswordDigest digest(password);
    const HexText text(digest.Get());
    gss_key_value_element_desc element = {"ntlmssp_nthash", text.Get()};
    const gss_key_value_set_desc store = {1, &element};
    gss_OID_set_desc mechanisms = {1, &ntlmMechanism};
    OM_uint32 minor = 0;
    const OM_uint32 major =
        gss_acquire_cred_from(&minor, user.Get(), GSS_C_INDEFINITE, &mechanisms, GSS_C_INITIATE,
                              &store, &credentials_, nullptr, nullptr);
    Check(major, minor, "the user and the password were not taken");
  }

  ~GssapiProvider() override {
    OM_uint32 ignored = 0;
    if (context_ != GSS_C_NO_CONTEXT) gss_delete_sec_context(&ignored, &context_, nullptr);
    if (credentials_ != GSS_C_NO_CREDENTIAL) gss_release_cred(&ignored, &credentials_);
  }

  Bytes Negotiate() override { return Step({}); }
  Bytes Authenticate(std::span<const uint8_t> challenge) override { return Step(challenge); }

  Bytes SessionKey() const override {
    gss_buffer_set_t keys = GSS_C_NO_BUFFER_SET;
    OM_uint32 minor = 0;
    const OM_uint32 major =
        gss_inquire_sec_context_by_oid(&minor, context_, &sessionKeyQuestion, &keys);
    Check(major, minor, "the log-in has no session key");
    Bytes key;
    if (keys->count > 0 && keys->elements[0].length == kSessionKeySize) {
      const auto* const first = static_cast<const uint8_t*>(keys->elements[0].value);
      key.assign(first, first + kSessionKeySize);
    }
    gss_release_buffer_set(&minor, &keys);
    if (key.empty()) throw std::runtime_error("the log-in's session key has an unexpected size");
    return key;
  }

 private:
  Bytes Step(std::span<const uint8_t> received) {
    gss_buffer_desc input = {received.size(), const_cast<uint8_t*>(received.data())};
    Buffer output;
    OM_uint32 minor = 0;
    // Integrity makes both sides agree on a session key.
    const OM_uint32 major = gss_init_sec_context(
        &minor, credentials_, &context_, server_.Get(), &ntlmMechanism, GSS_C_INTEG_FLAG, 0,
        GSS_C_NO_CHANNEL_BINDINGS, &input, nullptr, output.Place(), nullptr, nullptr);
    Check(major, minor, "the log-in could not answer the server");
    return output.Copy();
  }

  Name server_;
  gss_cred_id_t credentials_ = GSS_C_NO_CREDENTIAL;
  gss_ctx_id_t context_ = GSS_C_NO_CONTEXT;
};

}  // namespace

std::unique_ptr<NtlmProvider> MakeSystemNtlmProvider(const NtlmAccount& account,
                                                     const ZelString& password,
                                                     const std::string& server) {
  return std::make_unique<GssapiProvider>(account, password, server);
}

}  // namespace smb
