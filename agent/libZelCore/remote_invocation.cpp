#include "agent/libZelCore/remote_invocation.h"

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <string_view>

#include "agent/libZel/ascii.h"
#include "agent/libZel/http_exchange.h"
#include "agent/libZel/request_proof.h"
#include "agent/libZelCore/credentials.h"
#include "agent/libZelCore/invocation_depth.h"
#include "agent/libZelCore/json_codec.h"
#include "libZel/url.h"

using http_exchange::AgentAddress;
using http_exchange::AgentLogin;

namespace {

constexpr size_t kMaxReplyBytes = 64 * 1024 * 1024;
constexpr long kMaxTimeoutMs = 24L * 60 * 60 * 1000;
constexpr size_t kLongestName = 64;

struct UrlFree {
  void operator()(CURLU* url) const { curl_url_cleanup(url); }
};
using Url = std::unique_ptr<CURLU, UrlFree>;

std::string Part(CURLU* url, CURLUPart part) {
  char* text = nullptr;
  if (curl_url_get(url, part, &text, 0) != CURLUE_OK) return {};
  std::string result = text;
  curl_free(text);
  return result;
}

struct Address {
  std::string error;
  AgentAddress agent;
  bool hasCredentials = false;
  std::string user;
  std::string password;
};

bool IsAgentName(std::string_view name) {
  return !name.empty() && name.size() <= kLongestName &&
         std::all_of(name.begin(), name.end(), IsAsciiNameCharacter);
}

// The name and password of an address; what is wrong with them, or nothing. Both may be empty: an
// agent without a fleet has no more to say.
std::string ReadCredentials(const std::string& text, Address* address) {
  UrlParseInet parts;
  if (parts.LoadUrl(ZelString(text)) == 0) return "the address is not a URL";
  address->user = parts.GetUser().Utf8();
  address->password = parts.GetPassword().Utf8();
  if (address->user.empty() && address->password.empty()) return {};
  address->hasCredentials = true;
  if (!IsAgentName(address->user)) return "the name in the address is not that of an agent";
  return address->password.empty() ? "the address holds a name without a password" : "";
}

Address ParseAddress(const std::string& text) {
  const auto failed = [](const char* reason) {
    Address address;
    address.error = reason;
    return address;
  };
  const auto isVisible = [](unsigned char c) { return c > 0x20 && c < 0x7F; };
  if (!std::all_of(text.begin(), text.end(), isVisible))
    return failed("the address holds blanks or characters beyond ASCII");

  const Url url(curl_url());
  if (!url ||
      curl_url_set(url.get(), CURLUPART_URL, text.c_str(), CURLU_NON_SUPPORT_SCHEME) != CURLUE_OK)
    return failed("the address is not a URL");
  const std::string scheme = Part(url.get(), CURLUPART_SCHEME);
  if (scheme != "http" && scheme != "https")
    return failed("the address does not start with http:// or https://");
  const std::string path = Part(url.get(), CURLUPART_PATH);
  if (path != "/" || text.find_first_of("?#") != std::string::npos)
    return failed("the address has more than a host and a port");

  Address address;
  address.agent.isTls = scheme == "https";
  address.agent.host = Part(url.get(), CURLUPART_HOST);
  address.agent.port = Part(url.get(), CURLUPART_PORT);
  if (text.find('@') != std::string::npos) address.error = ReadCredentials(text, &address);
  return address;
}

uint32_t CodeOf(CURLcode failure) {
  switch (failure) {
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_INVALIDCERTSTATUS:
      return kInvokeRefused;
    case CURLE_SSL_CERTPROBLEM:  // with our own one
    case CURLE_SSL_CACERT_BADFILE:
      return kInvokeNotConfigured;
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_UNSUPPORTED_PROTOCOL:
    case CURLE_WEIRD_SERVER_REPLY:
    case CURLE_WRITE_ERROR:
    case CURLE_BAD_CONTENT_ENCODING:
      return kInvokeBadReply;
    default:
      return kInvokeUnreachable;
  }
}

// The texts of an error reply: {"error":{"code":"...","message":"..."}}.
struct ErrorReply {
  std::string code;
  std::string message;
};

ErrorReply ParseErrorReply(const std::string& body) {
  const JsonDecodeResult decoded = DecodeContainer(body);
  ZelContainer error;
  ZelString code, message;
  decoded.container.GetContainer("error", &error, kNoIndex);
  error.GetString("code", &code, kNoIndex);
  error.GetString("message", &message, kNoIndex);
  return {std::string(code.Utf8()), std::string(message.Utf8())};
}

RemoteResult FromErrorStatus(long status, const std::string& body) {
  const ErrorReply error = ParseErrorReply(body);
  const std::string text =
      "HTTP status " + std::to_string(status) + (error.message.empty() ? "" : ": " + error.message);
  if (status == 401 || status == 403)
    return {kInvokeRefused, "the agent refused the credentials: " + text};
  if (status == 404 && error.code == "unknown_action") return {kInvokeUnknownAction, text};
  if (status == 503) return {kInvokeUnreachable, "the agent is at capacity: " + text};
  return {kInvokeBadReply, "the agent answered with " + text};
}

RemoteResult FromReply(const std::string& body, ZelContainer* parameters) {
  const JsonDecodeResult decoded = DecodeContainer(body);
  if (!decoded.error.empty()) return {kInvokeBadReply, "the reply is malformed: " + decoded.error};
  int64_t code = 0;
  if (!decoded.container.GetInt64("code", &code, kNoIndex) || code < 0 || code > UINT32_MAX)
    return {kInvokeBadReply, "the reply holds no result code"};
  ZelContainer results;
  if (!decoded.container.GetContainer("container", &results, kNoIndex))
    return {kInvokeBadReply, "the reply holds no container"};
  *parameters = std::move(results);
  return {static_cast<uint32_t>(code), {}};
}

}  // namespace

std::string CheckAgentAddress(const std::string& address) {
  if (address.find('@') != std::string::npos) return "the address holds credentials";
  return ParseAddress(address).error;
}

std::string WithoutCredentials(const std::string& address) {
  const size_t at = address.rfind('@');
  if (at == std::string::npos) return address;
  const size_t scheme = address.find("://");
  const std::string start = scheme < at ? address.substr(0, scheme + 3) : std::string();
  return start + address.substr(at + 1);
}

RemoteInvoker::RemoteInvoker(const Settings& settings)
    : own_{settings.agentName, settings.fleetSecret},
      usesTls_(settings.ssl != SslUse::kNone),
      usesProofs_(settings.pac != PacUse::kNone),
      timeoutMs_(settings.remoteTimeoutMs),
      connectTimeoutMs_(settings.connectTimeoutMs),
      allowPlain_(settings.fleetAllowPlain) {
  tls_.authorityFile = settings.fleetCaFile;
  if (!usesTls_) return;
  tls_.certificateFile = settings.certificateFile;
  tls_.privateKeyFile = settings.privateKeyFile;
}

RemoteResult RemoteInvoker::Invoke(const std::string& addressText, const std::string& action,
                                   ZelContainer* parameters, uint32_t timeoutMs) const {
  try {
    Address address = ParseAddress(addressText);
    if (!address.error.empty()) return {kInvokeNotConfigured, address.error};
    address.agent.isTls |= usesTls_;
    const bool needsSecret = usesProofs_ || !address.hasCredentials;
    if (needsSecret && own_.fleetSecret.empty())
      return {kInvokeNotConfigured, "[fleet] secret_file is not set"};
    if (address.agent.isTls && tls_.authorityFile.empty())
      return {kInvokeNotConfigured, "[fleet] ca is not set"};
    const bool isPlain = !address.agent.isTls && !usesProofs_;
    if (isPlain && !allowPlain_ && !http_exchange::IsLoopback(address.agent.host)) {
      return {kInvokeNotConfigured,
              "fleet credentials do not leave this machine without TLS ([fleet] allow_plain = no)"};
    }

    AgentLogin login;
    if (usesProofs_) {
      login.pac = &own_;
    } else if (address.hasCredentials) {
      login.agentName = address.user;
      login.password = address.password;
    } else {
      login.agentName = own_.agentName;
      login.password = FleetPassword(own_.fleetSecret, own_.agentName);
    }
    return Send(address.agent, login, action, parameters, timeoutMs);
  } catch (const std::runtime_error& error) {
    return {kInvokeUnreachable, error.what()};
  }
}

RemoteResult RemoteInvoker::Send(const AgentAddress& address, const AgentLogin& login,
                                 const std::string& action, ZelContainer* parameters,
                                 uint32_t timeoutMs) const {
  const uint32_t depth = InvocationContext::CurrentDepth() + 1;
  if (depth > kMaxInvocationDepth)
    return {kInvokeRefused, "agents have handed it on to each other too often"};

  std::string body;
  EncodeContainer(*parameters, &body);
  BodyDigest digest;
  digest.Add(body);
  const std::string target = "/v1/actions/" + http_exchange::EncodePath(action);

  http_exchange::Request request(address.Base() + target);
  http_exchange::AddressAgent(&request, address, login, "POST", target, digest.Hex());
  if (address.isTls) http_exchange::UseFleetTls(&request, tls_);
  request.AddHeader("Content-Type: application/json");
  request.AddHeader("Expect:");
  request.AddHeader(kInvocationDepthField + (": " + std::to_string(depth)));
  request.Set(CURLOPT_TIMEOUT_MS,
              static_cast<long>(std::clamp<long long>(timeoutMs == ~0U ? timeoutMs_ : timeoutMs, 1,
                                                      kMaxTimeoutMs)));
  request.Set(CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(connectTimeoutMs_));
  request.SetSize(CURLOPT_POSTFIELDSIZE_LARGE, body.size());
  request.Set(CURLOPT_POSTFIELDS, body.c_str());
  std::string reply;
  request.Collect(&reply, kMaxReplyBytes);

  const CURLcode outcome = request.Perform();
  if (request.IsTooLong()) return {kInvokeBadReply, "the reply is longer than 64 MiB"};
  if (outcome != CURLE_OK) return {CodeOf(outcome), request.Reason()};
  const long status = request.Status();
  return status == 200 ? FromReply(reply, parameters) : FromErrorStatus(status, reply);
}
