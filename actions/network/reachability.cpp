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
  if (!client.TcpConnect(address.GetAsInt32(), kNetBiosSessionPort)) {
    Logger().PrintWithNL("Failed to connect to %S at TCP level", host);
    return Answer(params, ShareCheck::kNotConnected, kSmbStepFailed);
  }

  if (!client.NbtSessionRequest(kAnyFileServer)) {
    Logger().PrintWithNL("Failed to connect to %S at NetBIOS level", host);
    client.TcpDisconnect();
    return Answer(params, ShareCheck::kNotConnected, kSmbStepFailed);
  }

  if (!client.SmbSessionNegotiate()) {
    Logger().PrintWithNL("Failed to negotiate SMB session with %S", host);
    client.NbtDisconnect();
    client.TcpDisconnect();
    return Answer(params, ShareCheck::kNotConnected, kSmbStepFailed);
  }

  if (!client.SmbSessionSetup(user, password)) {
    Logger().PrintWithNL("Failed to authenticate SMB session with %S", host);
    client.NbtDisconnect();
    client.TcpDisconnect();
    return Answer(params, ShareCheck::kNotAuthenticated, kSmbStepFailed);
  }

  _CsSmbTreeInfo tree{};
  if (!client.SmbTreeConnect(share, tree)) {
    Logger().PrintWithNL("Failed to connect to share %S", share);
    client.SmbSessionLogOff();
    client.NbtDisconnect();
    client.TcpDisconnect();
    return Answer(params, ShareCheck::kShareRefused, kSmbStepFailed);
  }

  client.SmbTreeDisconnect(tree);
  client.SmbSessionLogOff();
  client.NbtDisconnect();
  client.TcpDisconnect();
  return Answer(params, ShareCheck::kOpened, kSuccess);
}

ResultCode CoreUtilsCheckHTTPConnection(ZelContainer* params) {
  const ZelString url = ReadString(*params, "HTTPCheckURL");

  long long received = 0;
  const int succeeded = CurlAdvancedGet(url, "", "", "", "", "", 0, kGetTimeoutSeconds, received,
                                        true, nullptr, nullptr);

  params->SetInt32("HTTPCheckUrlResult", succeeded != 0 ? 1 : 0, kNoIndex);
  return kSuccess;
}
