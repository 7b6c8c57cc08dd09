#include "libZel/http.h"

#include <algorithm>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "agent/libZel/ascii.h"
#include "agent/libZel/boundary.h"
#include "agent/libZel/file_body.h"
#include "agent/libZel/file_checks.h"
#include "agent/libZel/http_exchange.h"
#include "agent/libZel/network/port.h"
#include "agent/libZel/request_proof.h"
#include "libZel/debug.h"

using http_exchange::AgentAddress;
using http_exchange::Request;

namespace {

constexpr uint32_t kDefaultConnectTimeoutMs = 10'000;
constexpr uint32_t kDefaultStallTimeoutMs = 30'000;
constexpr size_t kMaxAnswerBytes = size_t{64} << 10;
// Stopped before, or for a reason that libcurl has no number below 100 for.
constexpr int kNotSent = 99;

const char* NameOf(HttpMethod_e method) {
  switch (method) {
    case kHttpGet:
      return "GET";
    case kHttpHead:
      return "HEAD";
    case kHttpPost:
      return "POST";
    case kHttpPut:
      return "PUT";
    case kHttpDelete:
      return "DELETE";
  }
  return nullptr;
}

// How an exchange ended: the client's return code, and a sentence when it is not 0.
struct Ending {
  int code = 0;
  std::string reason;
};

bool IsIpv6Character(char c) {
  return IsHexDigit(c) || c == ':' || c == '.';
}

// The host as it stands in a URL, or nothing.
std::optional<std::string> HostForUrl(std::string_view host) {
  if (host.starts_with('[') && host.ends_with(']')) host = host.substr(1, host.size() - 2);
  if (host.empty()) return std::nullopt;
  if (std::all_of(host.begin(), host.end(), IsAsciiNameCharacter)) return std::string(host);
  const bool isIpv6 =
      host.find(':') != host.npos && std::all_of(host.begin(), host.end(), IsIpv6Character);
  if (!isIpv6) return std::nullopt;
  return "[" + std::string(host) + "]";
}

// The message of an agent's error answer, {"error":{"code":"...","message":"..."}}, or nothing. It
// is for people: what is escaped in it stays so.
std::string_view MessageIn(std::string_view answer) {
  constexpr std::string_view kStart = "{\"error\":{";
  constexpr std::string_view kName = "\"message\":\"";
  const size_t name = answer.starts_with(kStart) ? answer.find(kName) : answer.npos;
  if (name == answer.npos) return {};
  const std::string_view text = answer.substr(name + kName.size());
  size_t end = 0;
  while (end < text.size() && text[end] != '"') end += text[end] == '\\' ? 2 : 1;
  return end < text.size() ? text.substr(0, end) : std::string_view();
}

std::string StatusText(long status, std::string_view answer) {
  std::string text = "the agent answered with status " + std::to_string(status);
  const std::string_view message = MessageIn(answer);
  if (!message.empty()) text.append(": ").append(message);
  return text;
}

long SecondsRoundedUp(uint32_t ms) {
  return static_cast<long>(std::max<uint32_t>(1, ms / 1000 + (ms % 1000 != 0 ? 1 : 0)));
}

// What a request carries: a file or a text.
struct Body {
  std::optional<FileBody> file;
  std::string_view text;
};

Ending OpenBody(const HttpMessage& request, Body* body) {
  const auto* const message = dynamic_cast<const HttpFileMessage*>(&request);
  if (message == nullptr || message->GetSendPath().IsEmpty()) {
    body->text = request.GetBody().Utf8();
    return {};
  }
  if (request.GetMethod() != kHttpPut) return {kNotSent, "files are sent with PUT alone"};
  const NativePath path = ToNativeFile(message->GetSendPath());
  const Outcome outcome = path ? body->file.emplace().Open(path.path) : InvalidName(path);
  return outcome ? Ending{} : Ending{kNotSent, std::string(outcome.reason.Utf8())};
}

void SetMethod(Request* request, HttpMethod_e method, std::string_view text) {
  if (method == kHttpHead) request->Set(CURLOPT_NOBODY, 1L);
  if (method == kHttpHead || method == kHttpGet) return;
  request->SetSize(CURLOPT_POSTFIELDSIZE_LARGE, text.size());
  request->Set(CURLOPT_POSTFIELDS, text.data());
  request->Set(CURLOPT_CUSTOMREQUEST, NameOf(method));
  request->AddHeader("Content-Type: application/json");
}

}  // namespace

struct HttpClient::Implementation {
  long connectTimeoutMs = 0;
  long stallTimeoutSeconds = 0;
  ZelDebug log{"HttpClient", "Requests to other agents"};
  bool hasLog = false;
  http_exchange::AgentLogin login;
  bool isTls = false;
  const SslContext* ssl = nullptr;
  bool isPac = false;

  ZelDebug& Log() { return hasLog ? log : LibraryLog(); }
  Ending Send(AgentAddress* address, uint32_t port, const HttpMessage& message,
              HttpMessage* response, bool checksStatus) const;
  void LogFailure(const ZelString* agent, const AgentAddress& address, const HttpMessage& message,
                  const Ending& end);
  Ending Judge(const AgentAddress& address) const;
  Ending Digest(Body* body, std::string* digest) const;
  void SetUp(Request* request) const;
  Ending Exchange(const AgentAddress& address, const HttpMessage& message, HttpMessage* response,
                  bool checksStatus) const;
  Ending Perform(Request* request, Body* body, HttpMessage* response, bool checksStatus) const;
};

Ending HttpClient::Implementation::Send(AgentAddress* address, uint32_t port,
                                        const HttpMessage& message, HttpMessage* response,
                                        bool checksStatus) const {
  const std::optional<std::string> host = HostForUrl(address->host);
  if (!host) return {kNotSent, "the host is neither a name nor an address"};
  address->host = *host;
  if (port == 0 || port > kMaxPort) return {kNotSent, "there is no such port"};
  if (NameOf(message.GetMethod()) == nullptr) return {kNotSent, "there is no such method"};
  if (!message.GetResourcePath().StartsWith("/")) {
    return {kNotSent, "the resource does not start with \"/\""};
  }
  const Ending end = Judge(*address);
  return end.code == 0 ? Exchange(*address, message, response, checksStatus) : end;
}

void HttpClient::Implementation::LogFailure(const ZelString* agent, const AgentAddress& address,
                                            const HttpMessage& message, const Ending& end) {
  const char* const method = NameOf(message.GetMethod());
  const auto* const file = dynamic_cast<const HttpFileMessage*>(&message);
  ZelString what(method != nullptr ? method : "request");
  if (file != nullptr) what += ZelString(" of ") + file->GetSendPath();
  ZelString whom;
  if (agent != nullptr && !agent->IsEmpty()) whom = ZelString("agent ") + *agent + " at ";
  // What is no host may be anything, a login included.
  const std::string base = HostForUrl(address.host) ? address.Base() : std::string("(no host)");
  const std::string url = base + http_exchange::EncodePath(message.GetResourcePath().Utf8());
  Log().WarningWithNL("%S to %S%s failed: %s", what, whom, url, end.reason);
}

// Whether the settings let anything be sent at all.
Ending HttpClient::Implementation::Judge(const AgentAddress& address) const {
  if (isTls && ssl == nullptr) return {kNotSent, "TLS is not configured"};
  if (isTls && ssl->authorityFile.empty()) return {kNotSent, "[fleet] ca is not set"};
  if (isPac && login.pac == nullptr) return {kNotSent, "proofs of requests are not configured"};
  const bool isPlain = !isTls && !isPac && !http_exchange::IsLoopback(address.host);
  if (isPlain && !http_exchange::ArePlainCredentialsAllowed()) {
    return {kNotSent,
            "fleet credentials do not leave this machine without TLS ([fleet] allow_plain = no)"};
  }
  return {};
}

Ending HttpClient::Implementation::Digest(Body* body, std::string* digest) const {
  if (!isPac) return {};
  if (body->file) {
    const Outcome outcome = body->file->Digest(digest);
    return outcome ? Ending{} : Ending{kNotSent, std::string(outcome.reason.Utf8())};
  }
  BodyDigest sum;
  sum.Add(body->text);
  *digest = sum.Hex();
  return {};
}

void HttpClient::Implementation::SetUp(Request* request) const {
  request->Set(CURLOPT_CONNECTTIMEOUT_MS, connectTimeoutMs);
  request->Set(CURLOPT_LOW_SPEED_LIMIT, http_exchange::kStallBytesPerSecond);
  request->Set(CURLOPT_LOW_SPEED_TIME, stallTimeoutSeconds);
  if (isTls) http_exchange::UseFleetTls(request, *ssl);
}

Ending HttpClient::Implementation::Exchange(const AgentAddress& address, const HttpMessage& message,
                                            HttpMessage* response, bool checksStatus) const {
  Body body;
  Ending end = OpenBody(message, &body);
  std::string digest;
  if (end.code == 0) end = Digest(&body, &digest);
  if (end.code != 0) return end;

  const std::string target = http_exchange::EncodePath(message.GetResourcePath().Utf8());
  Request request(address.Base() + target);
  SetUp(&request);
  http_exchange::AddressAgent(&request, address, login, NameOf(message.GetMethod()), target,
                              digest);
  if (!body.file) {
    SetMethod(&request, message.GetMethod(), body.text);
    return Perform(&request, &body, response, checksStatus);
  }
  const auto& file = dynamic_cast<const HttpFileMessage&>(message);
  Progress progress(Progress::Kind::kSend, file.GetSendPath(), body.file->SizeBytes());
  body.file->SendWith(&request, &progress);
  end = Perform(&request, &body, response, checksStatus);
  progress.Finish(ZelString(end.reason));
  return end;
}

Ending HttpClient::Implementation::Perform(Request* request, Body* body, HttpMessage* response,
                                           bool checksStatus) const {
  std::string answer;
  request->Collect(&answer, kMaxAnswerBytes);
  const CURLcode code = request->Perform();
  // That of an interim answer is none.
  const long status = request->Status() < 200 ? 0 : request->Status();
  response->SetStatus(static_cast<int>(status));
  response->SetBody(ZelString(answer));

  if (body->file && !body->file->Failure()) {
    return {kNotSent, std::string(body->file->Failure().reason.Utf8())};
  }
  // Who refuses a body may break off before it has read everything: the status tells more.
  if (code != CURLE_OK && !request->IsTooLong() && status < 300) {
    return {std::min<int>(code, kNotSent), request->Reason()};
  }
  const bool isGood = status >= 200 && status <= 299;
  if (!isGood)
    return checksStatus ? Ending{static_cast<int>(status), StatusText(status, answer)} : Ending{};
  const bool isWhole = !body->file || request->Number(CURLINFO_SIZE_UPLOAD_T) ==
                                          static_cast<curl_off_t>(body->file->SizeBytes());
  return isWhole ? Ending{} : Ending{kNotSent, "the agent did not take the whole file"};
}

HttpClient::HttpClient(uint32_t connectTimeoutMs, uint32_t stallTimeoutMs)
    : implementation_(std::make_unique<Implementation>()) {
  constexpr uint32_t kDefault = ~0U;
  // 0 would mean libcurl's own time.
  implementation_->connectTimeoutMs = static_cast<long>(std::clamp<uint32_t>(
      connectTimeoutMs == kDefault ? kDefaultConnectTimeoutMs : connectTimeoutMs, 1,
      std::numeric_limits<int32_t>::max()));
  implementation_->stallTimeoutSeconds =
      SecondsRoundedUp(stallTimeoutMs == kDefault ? kDefaultStallTimeoutMs : stallTimeoutMs);
}

HttpClient::~HttpClient() = default;

void HttpClient::SetDebugContext(ZelDebugContext* context) {
  implementation_->log.SetContext(context);
  implementation_->hasLog = context != nullptr;
}

void HttpClient::SetAuthentification(const ZelString& agentName, const ZelString& password) {
  implementation_->login.agentName = agentName.Utf8();
  implementation_->login.password = password.Utf8();
}

void HttpClient::EnableSsl(SslContext* context) {
  implementation_->isTls = true;
  implementation_->ssl = context;
}

void HttpClient::EnablePac(PacContext* context) {
  implementation_->isPac = true;
  implementation_->login.pac = context;
}

int HttpClient::SendAndRecv(const ZelString* agent, const ZelString& host, HttpMessage& request,
                            HttpMessage& response, uint32_t port, int checksStatus,
                            NetworkSocket*) {
  Implementation& self = *implementation_;
  const auto send = [&] {
    response.SetStatus(0);
    response.SetBody(ZelString());
    AgentAddress address{self.isTls, std::string(host.Utf8()), std::to_string(port)};
    Ending end;
    try {
      end = self.Send(&address, port, request, &response, checksStatus != 0);
    } catch (const std::runtime_error& error) {
      end = {kNotSent, error.what()};
    }
    if (end.code != 0) self.LogFailure(agent, address, request, end);
    return end.code;
  };
  return Guarded("HttpClient", kNotSent, send);
}
