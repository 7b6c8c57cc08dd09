#include "agent/libZelCore/remote_invocation.h"

#include <curl/curl.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <string_view>

#include "agent/libZel/native_path.h"
#include "agent/libZelCore/credentials.h"
#include "agent/libZelCore/invocation_depth.h"
#include "agent/libZelCore/json_codec.h"

namespace {

constexpr size_t kMaxReplyBytes = 64 * 1024 * 1024;
constexpr long kMaxTimeoutMs = 24L * 60 * 60 * 1000;

struct UrlFree {
  void operator()(CURLU* url) const { curl_url_cleanup(url); }
};
struct EasyFree {
  void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
};
struct ListFree {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using Url = std::unique_ptr<CURLU, UrlFree>;
using Easy = std::unique_ptr<CURL, EasyFree>;
using Headers = std::unique_ptr<curl_slist, ListFree>;

// Loading the TLS library takes time and memory, so an agent that calls no other one never does.
void InitialiseOnce() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

std::string Part(CURLU* url, CURLUPart part) {
  char* text = nullptr;
  if (curl_url_get(url, part, &text, 0) != CURLUE_OK) return {};
  std::string result = text;
  curl_free(text);
  return result;
}

struct Address {
  std::string error;
  bool isTls = false;
  std::string host;
  std::string base;  ///< "https://host:port"
};

Address ParseAddress(const std::string& text) {
  const auto failed = [](const char* reason) { return Address{reason, false, {}, {}}; };
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
  if (text.find('@') != std::string::npos) return failed("the address holds credentials");
  const std::string path = Part(url.get(), CURLUPART_PATH);
  if (path != "/" || text.find_first_of("?#") != std::string::npos)
    return failed("the address has more than a host and a port");

  Address address;
  address.isTls = scheme == "https";
  address.host = Part(url.get(), CURLUPART_HOST);
  const std::string port = Part(url.get(), CURLUPART_PORT);
  address.base = scheme + "://" + address.host + (port.empty() ? "" : ":" + port);
  return address;
}

bool IsLoopback(std::string_view host) {
  if (host == "localhost" || host == "[::1]") return true;
  if (!host.starts_with("127.")) return false;
  const bool isNumeric = host.find_first_not_of("0123456789.") == std::string_view::npos;
  return isNumeric && std::count(host.begin(), host.end(), '.') == 3;
}

struct Reply {
  std::string body;
  bool isTooLong = false;
};

size_t ReceiveBody(char* bytes, size_t size, size_t count, void* context) {
  auto& reply = *static_cast<Reply*>(context);
  const size_t length = size * count;
  if (length > kMaxReplyBytes - reply.body.size()) {
    reply.isTooLong = true;
    return 0;
  }
  try {
    reply.body.append(bytes, length);
    return length;
  } catch (const std::bad_alloc&) {
    return 0;
  }
}

uint32_t CodeOf(CURLcode failure) {
  switch (failure) {
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_INVALIDCERTSTATUS:
    case CURLE_SSL_CERTPROBLEM:
      return kInvokeRefused;
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
  if (status == 401 || status == 403 || status == 429)
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
  return ParseAddress(address).error;
}

RemoteInvoker::RemoteInvoker(const Settings& settings)
    : agentName_(settings.agentName),
      secret_(settings.fleetSecret),
      caFile_(FromNativePath(settings.fleetCaFile).Utf8()),
      timeoutMs_(settings.remoteTimeoutMs),
      connectTimeoutMs_(settings.connectTimeoutMs),
      allowPlain_(settings.fleetAllowPlain) {}

RemoteResult RemoteInvoker::Invoke(const std::string& addressText, const std::string& action,
                                   ZelContainer* parameters, uint32_t timeoutMs) const {
  const Address address = ParseAddress(addressText);
  if (!address.error.empty()) return {kInvokeNotConfigured, address.error};
  if (secret_.empty()) return {kInvokeNotConfigured, "[fleet] secret_file is not set"};
  if (address.isTls && caFile_.empty()) return {kInvokeNotConfigured, "[fleet] ca is not set"};
  if (!address.isTls && !allowPlain_ && !IsLoopback(address.host)) {
    return {kInvokeNotConfigured,
            "fleet credentials do not leave this machine without TLS ([fleet] allow_plain = no)"};
  }

  const uint32_t depth = InvocationContext::CurrentDepth() + 1;
  if (depth > kMaxInvocationDepth)
    return {kInvokeRefused, "agents have handed it on to each other too often"};

  InitialiseOnce();
  const Easy easy(curl_easy_init());
  if (!easy) return {kInvokeUnreachable, "libcurl gives no handle"};
  CURL* const curl = easy.get();

  char* const escaped = curl_easy_escape(curl, action.data(), static_cast<int>(action.size()));
  const std::string url = address.base + "/v1/actions/" + (escaped ? escaped : "");
  curl_free(escaped);
  const std::string user = "agent/" + agentName_;
  const std::string password = FleetPassword(secret_, agentName_);
  std::string body;
  EncodeContainer(*parameters, &body);
  Headers headers(curl_slist_append(nullptr, "Content-Type: application/json"));
  if (headers) curl_slist_append(headers.get(), "Expect:");
  const std::string depthField = kInvocationDepthField + (": " + std::to_string(depth));
  if (headers) curl_slist_append(headers.get(), depthField.c_str());

  Reply reply;
  char reason[CURL_ERROR_SIZE] = "";
  const long totalMs =
      std::clamp<long long>(timeoutMs == ~0U ? timeoutMs_ : timeoutMs, 1, kMaxTimeoutMs);
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_PATH_AS_IS, 1L);
  curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 0L);
  curl_easy_setopt(curl, CURLOPT_PROXY, "");  // agents talk to each other directly
  curl_easy_setopt(curl, CURLOPT_NETRC, static_cast<long>(CURL_NETRC_IGNORED));
  curl_easy_setopt(curl, CURLOPT_HTTPAUTH, CURLAUTH_BASIC);
  curl_easy_setopt(curl, CURLOPT_USERNAME, user.c_str());
  curl_easy_setopt(curl, CURLOPT_PASSWORD, password.c_str());
  curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 2L);
  curl_easy_setopt(curl, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
  curl_easy_setopt(curl, CURLOPT_CAINFO, caFile_.empty() ? nullptr : caFile_.c_str());
  curl_easy_setopt(curl, CURLOPT_CAPATH, nullptr);
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, totalMs);
  curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(connectTimeoutMs_));
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers.get());
  curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
  curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.c_str());
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, ReceiveBody);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &reply);
  curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, reason);

  const CURLcode outcome = curl_easy_perform(curl);
  if (reply.isTooLong) return {kInvokeBadReply, "the reply is longer than 64 MiB"};
  if (outcome != CURLE_OK) return {CodeOf(outcome), *reason ? reason : curl_easy_strerror(outcome)};

  long status = 0;
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
  return status == 200 ? FromReply(reply.body, parameters) : FromErrorStatus(status, reply.body);
}
