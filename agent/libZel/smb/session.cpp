#include "agent/libZel/smb/session.h"

#include <openssl/crypto.h>
#include <openssl/rand.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include "agent/libZel/debug_context.h"
#include "agent/libZel/smb/nt_status.h"
#include "agent/libZel/smb/ntlm_login.h"

namespace smb {

namespace {

/// NTLM needs two.
constexpr int kMostRounds = 4;

template <typename Array>
Array RandomBytes() {
  Array bytes{};
  if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1)
    throw std::runtime_error("there are no random numbers");
  return bytes;
}

ByteView Utf16Of(const ZelString& text) {
  return {reinterpret_cast<const uint8_t*>(text.GetString(kEncodingUtf16)),
          text.GetSize(kEncodingUtf16)};
}

/// The log-in's key, of which the session makes its own.
struct LogInKey {
  Bytes bytes;
  ~LogInKey() { OPENSSL_cleanse(bytes.data(), bytes.size()); }
};

void NoteName(const ZelString& share, _CsSmbTreeInfo& tree) {
  const TCHAR* const name = share.GetTCHAR();
  size_t count = share.GetSize(kEncodingUtf16) / sizeof(TCHAR);
  count = std::min(count, std::size(tree.share) - 1);
  std::copy_n(name, count, tree.share);
  tree.share[count] = 0;
}

}  // namespace

Refusal::Refusal(uint32_t status)
    : std::runtime_error("the server answers " + DescribeStatus(status)) {}

Session::Session(NetbiosSession& transport, std::string server)
    : server_(std::move(server)), exchange_(transport) {}

void Session::Negotiate(Deadline deadline) {
  const Bytes request = BuildNegotiate(exchange_.NextHeader(Command::kNegotiate),
                                       RandomBytes<Guid>(), RandomBytes<Salt>());
  const Exchange::Answer answer = Ask(request, deadline);
  agreed_ = ParseNegotiateReply(answer.message);
  preauth_.Add(request);
  preauth_.Add(answer.message);
  LibraryLog().TraceWithNL("the file server %s speaks SMB %s", server_, NameOf(agreed_.dialect));
}

void Session::LogIn(const ZelString& user, const ZelString& password, Deadline deadline) {
  NtlmLogin login(user, password, server_);
  // Who demands signatures has the end of the log-in signed in every dialect: the proof that the
  // server knows the password. Otherwise it would be so from 3.0 on only.
  const uint16_t signing = login.IsAnonymous() ? kSigningEnabled : kSigningRequired;
  Bytes token = login.Next({});
  for (int round = 1; round <= kMostRounds; ++round) {
    const Bytes request =
        BuildSessionSetup(exchange_.NextHeader(Command::kSessionSetup), signing, token);
    preauth_.Add(request);
    Exchange::Answer answer = exchange_.Perform(request, deadline);
    const uint32_t status = answer.header.status;
    if (status != kStatusSuccess && status != kStatusMoreProcessing) throw Refusal(status);

    const SessionSetupReply reply = ParseSessionSetupReply(answer.message);
    if (answer.header.sessionId == 0)
      throw std::runtime_error("the server's session has no number");
    exchange_.SetSession(answer.header.sessionId);
    if (status == kStatusSuccess) {
      // An answer to the first token would be that of a server which has asked for no password.
      if (round == 1) throw std::runtime_error("the server asks for no proof of the log-in");
      const LogInKey key{login.SessionKey()};
      return CheckLogIn({std::move(answer), reply.flags}, login.IsAnonymous(), key.bytes);
    }
    preauth_.Add(answer.message);
    token = login.Next(reply.token);
  }
  throw std::runtime_error("the server does not come to an end with the log-in");
}

void Session::CheckLogIn(const LoggedIn& end, bool isAnonymous, ByteView sessionKey) {
  const bool isGuest = (end.flags & kSessionGuest) != 0;
  // Some servers flag their guests, whom they let in on purpose, as anonymous as well.
  if (!isAnonymous && !isGuest && (end.flags & kSessionAnonymous) != 0)
    throw std::runtime_error("the server has logged in nobody instead of the user");
  const bool isUnsigned = isAnonymous || isGuest;
  if (isUnsigned && (agreed_.securityMode & kSigningRequired) != 0)
    throw std::runtime_error("the server demands signatures, for which this log-in has no key");
  const bool encrypts = (end.flags & kSessionEncrypts) != 0;
  if (isUnsigned && encrypts)
    throw std::runtime_error("the server demands encryption, for which this session has no key");
  if (!isAnonymous && isGuest) {
    LibraryLog().PrintWithNL(
        "the file server %s has let the user in as a guest: the password was not checked", server_);
  }
  if (isUnsigned) return;

  const Key key = SigningKey(agreed_.dialect, sessionKey, preauth_);
  if (!IsSignedWith(agreed_.dialect, key, end.answer.message))
    throw std::runtime_error("the server does not prove that it knows the password");
  exchange_.StartSigning(agreed_.dialect, key);
  if (agreed_.cipher) encryptionKeys_ = DeriveEncryptionKeys(agreed_.dialect, sessionKey, preauth_);
  if (encrypts) StartEncryption();
}

void Session::StartEncryption() {
  if (!encryptionKeys_)
    throw std::runtime_error("the server demands encryption, for which this session has no key");
  exchange_.StartEncryption(Encryption(*agreed_.cipher, *encryptionKeys_, exchange_.SessionId()));
}

void Session::OpenShare(const ZelString& share, _CsSmbTreeInfo& tree, Deadline deadline) {
  const ZelString path = "\\\\" + ZelString(server_) + "\\" + share;
  const Header header = exchange_.NextHeader(Command::kTreeConnect);
  const Exchange::Answer answer = Ask(BuildTreeConnect(header, Utf16Of(path)), deadline);
  const TreeConnectReply reply = ParseTreeConnectReply(answer.message);
  // The number of the share stands where an asynchronous answer has its own number.
  if ((answer.header.flags & kFlagAsync) != 0)
    throw std::runtime_error("the server's share has no number");
  // Of the share's own messages; those after them may be encrypted as well.
  if ((reply.shareFlags & kShareEncrypts) != 0) StartEncryption();

  tree.treeId = answer.header.treeId;
  tree.shareType = reply.shareType;
  NoteName(share, tree);
}

void Session::CloseShare(const _CsSmbTreeInfo& tree, Deadline deadline) {
  Header header = exchange_.NextHeader(Command::kTreeDisconnect);
  header.treeId = tree.treeId;
  ParseEmptyReply(Ask(BuildEmpty(header), deadline).message);
}

void Session::LogOff(Deadline deadline) {
  ParseEmptyReply(Ask(BuildEmpty(exchange_.NextHeader(Command::kLogOff)), deadline).message);
}

Exchange::Answer Session::Ask(const Bytes& request, Deadline deadline) {
  Exchange::Answer answer = exchange_.Perform(request, deadline);
  if (answer.header.status != kStatusSuccess) throw Refusal(answer.header.status);
  return answer;
}

}  // namespace smb
