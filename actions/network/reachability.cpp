#include "actions/network/reachability.h"

#include "module/module.h"

namespace {

/// A host, a backslash and a share, after two backslashes or none.
constexpr const char* kSharePath = R"(^(?:\\\\)?([^\\]+)\\(.+)$)";
/// The NetBIOS session service (RFC 1002 section 4.3).
constexpr unsigned short kNetBiosSessionPort = 139;
/// SMB in a NetBIOS session.
constexpr int kNotDirect = 0;
/// The name by which every file server can be called.
constexpr const char* kAnyFileServer = "*SMBSERVER";

constexpr long kGetTimeoutSeconds = 30;

ResultCode Answer(ZelContainer* params, ShareCheck result, ResultCode code) {
  params->SetInt32("ConnectionResult", static_cast<int32_t>(result), kNoIndex);
  return code;
}

/// A share, and who opens it.
struct ShareLogin {
  const ZelString& share;
  const ZelString& user;
  const ZelString& password;
};

/// How far a check has come.
struct SmbCheck {
  enum class Reached { kNothing, kTcp, kNetBios, kSession, kShare };

  CsSmbClient& client;
  Reached reached = Reached::kNothing;
  _CsSmbTreeInfo tree{};
};

ShareCheck Open(SmbCheck* check, const ZelString& host, const IpAddress& address,
                const ShareLogin& login) {
  CsSmbClient& client = check->client;
  if (!client.TcpConnect(address.GetAsInt32(), kNetBiosSessionPort)) {
    Logger().PrintWithNL("Failed to connect to %S at TCP level", host);
    return ShareCheck::kNotConnected;
  }
  check->reached = SmbCheck::Reached::kTcp;

  if (!client.NbtSessionRequest(kAnyFileServer)) {
    Logger().PrintWithNL("Failed to connect to %S at NetBIOS level", host);
    return ShareCheck::kNotConnected;
  }
  check->reached = SmbCheck::Reached::kNetBios;

  if (!client.SmbSessionNegotiate()) {
    Logger().PrintWithNL("Failed to negotiate SMB session with %S", host);
    return ShareCheck::kNotConnected;
  }

  if (!client.SmbSessionSetup(login.user, login.password)) {
    Logger().PrintWithNL("Failed to authenticate SMB session with %S", host);
    return ShareCheck::kNotAuthenticated;
  }
  check->reached = SmbCheck::Reached::kSession;

  if (!client.SmbTreeConnect(login.share, check->tree)) {
    Logger().PrintWithNL("Failed to connect to share %S", login.share);
    return ShareCheck::kShareRefused;
  }
  check->reached = SmbCheck::Reached::kShare;
  return ShareCheck::kOpened;
}

/// Takes back what was reached, the last step first.
void Disconnect(SmbCheck* check) {
  using Reached = SmbCheck::Reached;
  CsSmbClient& client = check->client;
  if (check->reached >= Reached::kShare) client.SmbTreeDisconnect(check->tree);
  if (check->reached >= Reached::kSession) client.SmbSessionLogOff();
  if (check->reached >= Reached::kNetBios) client.NbtDisconnect();
  if (check->reached >= Reached::kTcp) client.TcpDisconnect();
}

}  // namespace

ResultCode CoreUtilsPingICMP(ZelContainer* params) {
  const ZelString address = ReadString(*params, "PingAddr");
  params->Clear();

  params->SetBool(kResult, PingICMP(address), kNoIndex);
  return kSuccess;
}

ResultCode CoreUtilsCheckSMBShare(ZelContainer* params) {
  const ZelString path = ReadString(*params, "SmbPathShare");
  const ZelString user = ReadString(*params, "SmbUser");
  const ZelString password = ReadString(*params, "SmbPassword");
  params->Clear();

  ZelVector<ZelString> captures;
  if (!FindPcre(path, kSharePath, captures, 0, 1, 1) || captures.size() != 2) return kBadParameter;
  const ZelString& host = captures[0];
  const ZelString& share = captures[1];
  params->SetString("TargetHost", host, kNoIndex);
  params->SetString("TargetShare", share, kNoIndex);

  IpAddress address;
  if (!address.SetTo(host) && !address.SetToHostName(host)) {
    Logger().PrintWithNL("Failed to handle host %S", host);
    return Answer(params, ShareCheck::kHostUnknown, kFailure);
  }

  CsSmbClient client(kNotDirect);
  SmbCheck check{client};
  const ShareCheck result = Open(&check, host, address, {share, user, password});
  Disconnect(&check);
  return Answer(params, result, result == ShareCheck::kOpened ? kSuccess : kSmbStepFailed);
}

ResultCode CoreUtilsCheckHTTPConnection(ZelContainer* params) {
  const ZelString url = ReadString(*params, "HTTPCheckURL");

  long long received = 0;
  const int succeeded = CurlAdvancedGet(url, "", "", "", "", "", 0, kGetTimeoutSeconds, received,
                                        true, nullptr, nullptr);

  params->SetInt32("HTTPCheckUrlResult", succeeded != 0 ? 1 : 0, kNoIndex);
  return kSuccess;
}
