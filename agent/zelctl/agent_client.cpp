#include "agent/zelctl/agent_client.h"

#include <curl/curl.h>

#include <limits>
#include <utility>

#include "agent/libZel/curl_url.h"
#include "agent/libZel/http_exchange.h"
#include "agent/libZelCore/json_codec.h"
#include "agent/zelctl/failure.h"
#include "agent/zelctl/interruption.h"

namespace {

constexpr long kConnectTimeoutMs = 10000;
constexpr size_t kMaxReplyBytes = 64 * 1024 * 1024;

struct FreeText {
  void operator()(char* text) const { curl_free(text); }
};
using CurlText = std::unique_ptr<char, FreeText>;

struct FreeHeaders {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using CurlHeaders = std::unique_ptr<curl_slist, FreeHeaders>;

CurlUrl ParseUrl(const std::string& text) {
  const auto refuse = [&text](const std::string& why) {
    // Before an "@" there may be credentials, which should stay off screens and logs.
    const std::string shown = text.find('@') == std::string::npos ? text + " " : "";
    throw Failure(ExitStatus::kUsage, "the agent's address " + shown + why);
  };
  CurlUrl url(text, CURLU_NON_SUPPORT_SCHEME);
  if (url.Result() != CURLUE_OK)
    refuse(std::string("is no URL: ") + curl_url_strerror(url.Result()));

  const bool hasUser = !url.Part(CURLUPART_USER).empty() || !url.Part(CURLUPART_PASSWORD).empty();
  if (hasUser) refuse("must not hold credentials; use --user and --password-file");
  const std::string scheme = url.Part(CURLUPART_SCHEME);
  if (scheme != "http" && scheme != "https") refuse("is neither http:// nor https://");
  const bool hasMore = url.Part(CURLUPART_PATH) != "/" || !url.Part(CURLUPART_QUERY).empty() ||
                       !url.Part(CURLUPART_FRAGMENT).empty();
  if (hasMore) refuse("must end after the port");
  return url;
}

size_t AppendBody(char* data, size_t size, size_t count, void* target) {
  auto* body = static_cast<std::string*>(target);
  if (size * count > kMaxReplyBytes - body->size()) return 0;
  body->append(data, size * count);
  return size * count;
}

/// Called about once a second while a request waits.
int StopWhenInterrupted(void*, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
  return Interruption::IsRequested() ? 1 : 0;
}

/// "message (code)" of {"error":{"code":...,"message":...}}, or the status alone.
std::string DescribeError(long status, const std::string& body, std::string* code) {
  const JsonDecodeResult reply = DecodeContainer(body);
  ZelContainer error;
  ZelString codeText;
  ZelString message;
  const std::string statusText = "HTTP status " + std::to_string(status);
  if (!reply.error.empty() || !reply.container.GetContainer("error", &error, kNoIndex)) {
    return statusText;
  }
  error.GetString("code", &codeText, kNoIndex);
  error.GetString("message", &message, kNoIndex);
  *code = codeText.Utf8();
  return std::string(message.Utf8()) + " (" + statusText + ", " + *code + ")";
}

[[noreturn]] void ThrowError(long status, const std::string& body) {
  std::string code;
  const std::string description = DescribeError(status, body, &code);
  // Without the protocol's error code the answer comes from something that is no agent.
  if (code.empty()) {
    throw Failure(ExitStatus::kAgentRefused, "this does not answer as an agent: " + description,
                  body);
  }
  const bool isRequestWrong = status == 400 || status == 404 || status == 405 || status == 411 ||
                              status == 413 || status == 415 || status == 431;
  if (isRequestWrong) throw Failure(ExitStatus::kUsage, "the agent says: " + description, body);
  throw Failure(ExitStatus::kAgentRefused, "the agent refuses: " + description, body);
}

[[noreturn]] void ThrowNotProtocol(const std::string& what, const std::string& body) {
  throw Failure(ExitStatus::kAgentRefused, "this does not answer as an agent: " + what, body);
}

}  // namespace

struct AgentClient::Connection {
  Connection() : handle(curl_easy_init()) {}
  ~Connection() { curl_easy_cleanup(handle); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  CURL* handle;
  std::string scheme;
  std::string host;
  char errorText[CURL_ERROR_SIZE] = {};
};

AgentClient::AgentClient(AgentAddress address) : address_(std::move(address)) {
  curl_global_init(CURL_GLOBAL_DEFAULT);
  const CurlUrl url = ParseUrl(address_.url);
  while (address_.url.ends_with('/')) address_.url.pop_back();
  connection_ = std::make_unique<Connection>();
  connection_->scheme = url.Part(CURLUPART_SCHEME);
  connection_->host = url.Part(CURLUPART_HOST);
}

AgentClient::~AgentClient() = default;

bool AgentClient::SendsPasswordInClear() const {
  return !address_.user.empty() && connection_->scheme == "http" &&
         !http_exchange::IsLoopback(connection_->host);
}

std::string AgentClient::Request(const std::string& path, const std::string* body) {
  CURL* const curl = connection_->handle;
  const std::string url = address_.url + path;
  std::string reply;
  curl_easy_reset(curl);
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 0L);
  curl_easy_setopt(curl, CURLOPT_NOPROXY, "*");
  curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, kConnectTimeoutMs);
  curl_easy_setopt(curl, CURLOPT_TCP_KEEPALIVE, 1L);
  curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, connection_->errorText);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &AppendBody);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &reply);
  curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
  curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, &StopWhenInterrupted);

  curl_easy_setopt(curl, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
  curl_easy_setopt(curl, CURLOPT_SSL_OPTIONS, static_cast<long>(CURLSSLOPT_NATIVE_CA));
  if (!address_.caFile.empty()) {
    curl_easy_setopt(curl, CURLOPT_SSL_OPTIONS, 0L);
    curl_easy_setopt(curl, CURLOPT_CAINFO, address_.caFile.c_str());
    curl_easy_setopt(curl, CURLOPT_CAPATH, nullptr);
  }
  if (!address_.user.empty()) {
    curl_easy_setopt(curl, CURLOPT_HTTPAUTH, static_cast<long>(CURLAUTH_BASIC));
    curl_easy_setopt(curl, CURLOPT_USERNAME, address_.user.c_str());
    curl_easy_setopt(curl, CURLOPT_PASSWORD, address_.password.c_str());
  }

  CurlHeaders headers;
  if (body != nullptr) {
    headers.reset(curl_slist_append(nullptr, "Content-Type: application/json"));
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers.get());
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body->data());
    curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body->size()));
  }

  connection_->errorText[0] = '\0';
  const CURLcode result = curl_easy_perform(curl);
  if (result == CURLE_ABORTED_BY_CALLBACK) {
    throw Failure(ExitStatus::kActionFailed,
                  "interrupted; what the agent was asked for may go on there");
  }
  if (result != CURLE_OK) {
    const char* const detail = connection_->errorText;
    throw Failure(ExitStatus::kAgentRefused,
                  "no answer from " + address_.url + ": " +
                      (reply.size() > 0 && result == CURLE_WRITE_ERROR ? "the reply is too large"
                       : *detail != '\0'                               ? detail
                                         : curl_easy_strerror(result)));
  }
  long status = 0;
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
  if (status != 200) ThrowError(status, reply);
  return reply;
}

std::string AgentClient::Health() {
  return Request("/v1/health", nullptr);
}

std::string AgentClient::ActionList() {
  return Request("/v1/actions", nullptr);
}

ActionReply AgentClient::Call(const std::string& action, const std::string& parameters) {
  const CurlText name(
      curl_easy_escape(connection_->handle, action.data(), static_cast<int>(action.size())));
  ActionReply reply;
  reply.body = Request(std::string("/v1/actions/") + name.get(), &parameters);

  const JsonDecodeResult decoded = DecodeContainer(reply.body);
  if (!decoded.error.empty()) ThrowNotProtocol(decoded.error, reply.body);
  int64_t code = -1;
  decoded.container.GetInt64("code", &code, kNoIndex);
  if (code < 0 || code > std::numeric_limits<uint32_t>::max()) {
    ThrowNotProtocol("its reply has no result code", reply.body);
  }
  reply.code = static_cast<uint32_t>(code);
  if (!decoded.container.GetContainer("container", &reply.container, kNoIndex)) {
    ThrowNotProtocol("its reply has no container", reply.body);
  }
  return reply;
}

std::vector<ActionDescription> ParseActionList(const std::string& body) {
  // The codec reads objects; the list becomes one of its values.
  const JsonDecodeResult list = DecodeContainer("{\"actions\":" + body + "}");
  if (!list.error.empty()) ThrowNotProtocol(list.error, body);

  std::vector<ActionDescription> actions;
  ZelContainer row;
  for (uint32_t i = 0; list.container.GetContainer("actions", &row, i); ++i) {
    ZelString name;
    ZelString signature;
    row.GetString("name", &name, kNoIndex);
    row.GetString("signature", &signature, kNoIndex);
    actions.push_back({std::string(name.Utf8()), std::string(signature.Utf8())});
  }
  return actions;
}
